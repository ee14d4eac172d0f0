// The tables in the process of the distribution's own snmpd, which loads libTrelSnmpd.so.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "tests/e2e/Hosts.h"
#include "tests/e2e/Links.h"
#include "tests/e2e/Reports.h"
#include "tests/e2e/StockSnmpd.h"
#include "tests/support/WaitUntil.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class InSnmpd : public testing::Test {
 protected:
  InSnmpd() { stateIs(kReports); }

  // Replaces the document, as an editor or a tool does.
  void stateIs(const Reports& reports) {
    auto document = nlohmann::json::parse(documentOf(reports));
    document.merge_patch(nlohmann::json::parse(hostsDocument()));
    documentIs(document.dump());
  }
  void documentIs(const std::string& text) {
    std::filesystem::rename(snmpd_.dir().write("next.json", text), state());
  }
  std::string state() const { return snmpd_.dir().file("state.json"); }
  std::string lines() const { return documentedView() + kModule + "trelState " + state() + "\n"; }
  static std::string expected(const Reports& reports) {
    return walkOf(treeOf(reports)) + walkOf(hostsTree());
  }
  std::string walk() const { return snmpd_.manager().bulkWalk(); }
  testing::AssertionResult becomes(const std::string& rows) {
    std::string walked;
    bool there = Support::waitUntil([&] { return (walked = walk()).starts_with(rows); });
    return there ? testing::AssertionSuccess() : testing::AssertionFailure() << walked << log();
  }
  std::string log() { return snmpd_.process().err(); }
  bool logs(const std::string& text) {
    return Support::waitUntil([&] { return log().find(text) != std::string::npos; });
  }
  size_t timesLogged(const std::string& text) {
    size_t count = 0;
    std::string all = log();
    for (size_t at = 0; (at = all.find(text, at)) != std::string::npos; ++at) ++count;
    return count;
  }
  // Returns once the configuration has been read again.
  void reload() {
    size_t before = timesLogged(" restarted\n");
    snmpd_.process().signal(SIGHUP);
    ASSERT_TRUE(Support::waitUntil([&] { return timesLogged(" restarted\n") > before; })) << log();
  }

  static constexpr const char* kModule = "dlmod trel " TREL_SNMPD_MODULE "\n";
  static constexpr const char* kNoRows = "No more variables left";
  StockSnmpd snmpd_;
};

TEST_F(InSnmpd, TablesAreServed_ByItsOneThreadAndLoop) {
  snmpd_.start(lines());
  EXPECT_TRUE(becomes(expected(kReports)));
  std::string process = fmt::format("/proc/{}", snmpd_.process().pid());
  std::filesystem::directory_iterator threads(process + "/task");
  EXPECT_EQ(std::distance(begin(threads), end(threads)), 1);
  EXPECT_THAT(Support::readFile(process + "/maps"),
              Not(testing::AnyOf(HasSubstr("grpc"), HasSubstr("libuv"))));
  EXPECT_EQ(snmpd_.process().stop(), 0) << log();
}

TEST_F(InSnmpd, DocumentIsReplaced_RowsFollow) {
  snmpd_.start(lines());
  ASSERT_TRUE(becomes(expected(kReports)));
  Reports changed = {{{1, 2}, {"unreachable", 1002}}, {{1, 3}, {"reachable"}}};
  stateIs(changed);
  EXPECT_TRUE(becomes(expected(changed)));
}

TEST_F(InSnmpd, BadDocument_RowsStayAndTheLogSaysWhy) {
  snmpd_.start(lines());
  ASSERT_TRUE(becomes(expected(kReports)));
  documentIs("{\"members\": ");
  EXPECT_TRUE(logs("trel: " + state() + ":1:13: syntax error")) << log();
  EXPECT_THAT(walk(), StartsWith(expected(kReports)));
  Reports changed = {{{2, 1}, {"reachable"}}};
  stateIs(changed);
  EXPECT_TRUE(becomes(expected(changed)));
}

TEST_F(InSnmpd, DocumentComesLater_RowsCome) {
  std::filesystem::remove(state());
  snmpd_.start(lines());
  EXPECT_TRUE(logs("trel: " + state() + ": No such file")) << log();
  stateIs(kReports);
  EXPECT_TRUE(becomes(expected(kReports)));
}

TEST_F(InSnmpd, Reload_RowsStay) {
  snmpd_.start(lines());
  ASSERT_TRUE(becomes(expected(kReports)));
  std::string all = walk();
  for (int i = 0; i < 3; ++i) {
    reload();
    EXPECT_EQ(walk(), all) << "after reload " << i;
  }
  EXPECT_EQ(timesLogged("initialize_table_veldaTrelBaIfTable"), 1) << "registered once";
  Reports changed = {{{2, 1}, {"reachable"}}};
  stateIs(changed);
  EXPECT_TRUE(becomes(expected(changed))) << "still followed";
}

TEST_F(InSnmpd, ReloadWithAnotherDocument_IsFollowed) {
  snmpd_.start(lines());
  ASSERT_TRUE(becomes(expected(kReports)));
  Reports others = {{{4, 5}, {"degraded"}}};
  std::string other = snmpd_.dir().write("other.json", documentOf(others));
  snmpd_.additionsAre(documentedView() + kModule + "trelState " + other + "\n");
  reload();
  EXPECT_TRUE(becomes(walkOf(treeOf(others))));
}

TEST_F(InSnmpd, ReloadWithAWrongPath_RowsStay_AndAPathMayBeInQuotes) {
  snmpd_.start(documentedView() + kModule + "trelState \"" + state() + "\"\n");
  ASSERT_TRUE(becomes(expected(kReports)));
  snmpd_.additionsAre(documentedView() + kModule + "trelState state.json\n");
  reload();
  EXPECT_THAT(walk(), StartsWith(expected(kReports)));
  EXPECT_THAT(log(), HasSubstr("expected the absolute path of a state document"));
  EXPECT_THAT(log(), Not(HasSubstr("no trelState")));
}

TEST_F(InSnmpd, ReloadWithoutTheModule_TablesGoUntilItIsBack) {
  snmpd_.start(lines());
  ASSERT_TRUE(becomes(expected(kReports)));
  snmpd_.additionsAre(documentedView());
  reload();
  EXPECT_THAT(walk(), HasSubstr(kNoRows));
  snmpd_.additionsAre(lines());
  reload();
  EXPECT_TRUE(becomes(expected(kReports)));
}

TEST_F(InSnmpd, NoDocumentIsNamed_TheLogSaysWhatIsMissing) {
  snmpd_.start(documentedView() + kModule);
  EXPECT_TRUE(logs("trel: no trelState in snmpd.conf, expected a line \"trelState PATH\" after dlmod"))
      << log();
  EXPECT_THAT(walk(), HasSubstr(kNoRows));
}

TEST_F(InSnmpd, WrongLines_AreNamedWithFileAndLine) {
  snmpd_.start(documentedView() + kModule + "trelState state.json\n");
  EXPECT_THAT(log(), HasSubstr("expected the absolute path of a state document"));
  snmpd_.additionsAre(lines() + "trelState /another\n");
  reload();
  EXPECT_THAT(log(), HasSubstr("a second trelState, expected one: the first counts"));
  EXPECT_TRUE(becomes(expected(kReports)));
}

}  // namespace
}  // namespace E2e
