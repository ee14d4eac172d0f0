// Views that hide parts of a table: a column, a row, several, an instance. Whatever is asked, and whoever
// answers, what is hidden is as if it were not there.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct Hiding {
  const char* name;
  std::string lines;  // of the view "most"
  bool (*hides)(const std::string& instance);
};

void PrintTo(const Hiding& hiding, std::ostream* out) { *out << hiding.name; }

std::string excluded(const char* name, const char* mask = "") {
  return fmt::format("view most excluded {} {}\n", numericName(name), mask);
}

std::vector<Hiding> hidings() {
  // Two octets of bits, for fifteen sub-identifiers: the column alone does not matter.
  constexpr const char* kAnyColumn = "ff:f7";
  return {
      {"column", excluded("reach.4"), [](const std::string& name) { return name.starts_with("reach.4."); }},
      {"firstColumn", excluded("reach.3"),
       [](const std::string& name) { return name.starts_with("reach.3."); }},
      {"lastColumn", excluded("reach.5"),
       [](const std::string& name) { return name.starts_with("reach.5."); }},
      {"row", excluded("reach.3.1.3", kAnyColumn),
       [](const std::string& name) { return name.ends_with(".1.3"); }},
      {"rowRange", excluded("reach.3.1", kAnyColumn),
       [](const std::string& name) { return name.substr(0, name.rfind('.')).ends_with(".1"); }},
      {"firstAndLastRow", excluded("reach.3.1.2", kAnyColumn) + excluded("reach.3.3.2", kAnyColumn),
       [](const std::string& name) { return name.ends_with(".1.2") || name.ends_with(".3.2"); }},
      {"instance", excluded("reach.4.2.1"), [](const std::string& name) { return name == "reach.4.2.1"; }},
      {"firstInstance", excluded("reach.3.1.2"),
       [](const std::string& name) { return name == "reach.3.1.2"; }},
      {"lastInstance", excluded("reach.5.3.2"),
       [](const std::string& name) { return name == "reach.5.3.2"; }},
      {"instances",
       excluded("reach.3.1.3") + excluded("reach.3.2.1") + excluded("reach.4.3.2") + excluded("reach.5.1.2"),
       [](const std::string& name) {
         return name == "reach.3.1.3" || name == "reach.3.2.1" || name == "reach.4.3.2" ||
                name == "reach.5.1.2";
       }}};
}

class View : public testing::TestWithParam<std::tuple<Hiding, By>> {
 protected:
  View() {
    daemon_.answersBy(by());
    becomes(daemon_);
    for (const Varbind& varbind : treeOf(kStates)) {
      (hiding().hides(varbind.name) ? hidden_ : seen_).push_back(varbind);
    }
  }
  ~View() override { EXPECT_EQ(daemon_.directAnswers() != 0, by() == By::direct); }
  static const Hiding& hiding() { return std::get<Hiding>(GetParam()); }
  static By by() { return std::get<By>(GetParam()); }

  // Starts it with the view.
  void becomes(Daemon& daemon) const {
    std::string lines = fmt::format("view most included {}\n{}rocommunity public 127.0.0.1 -V most\n",
                                    numericName(Manager::kTables), hiding().lines);
    daemon.stateIs(documentOf(kStates)).with({"--conf", daemon.dir().write("trel.conf", lines)}).start();
  }
  // What follows an instance, or is the end.
  std::string behind(const std::string& name) const {
    std::vector<Varbind> all = treeOf(kStates);
    auto at = std::ranges::find(all, name, &Varbind::name);
    auto next =
        std::find_if(at + 1, all.end(), [](const auto& other) { return !hiding().hides(other.name); });
    return next == all.end() ? "No more variables left in this MIB View" : next->line();
  }
  const Manager& manager() const { return daemon_.manager(); }

  const Reports kStates = {{{1, 2}, {"reachable", 1002}},
                           {{1, 3}, {"degraded", 1003}},
                           {{2, 1}, {"unreachable"}},
                           {{3, 2}, {"disabled"}}};
  Daemon daemon_;
  std::vector<Varbind> seen_;
  std::vector<Varbind> hidden_;
};
INSTANTIATE_TEST_SUITE_P(
    Without, View, testing::Combine(testing::ValuesIn(hidings()), testing::Values(By::direct, By::chain)),
    [](const auto& with) {
      return fmt::format("{}_{}", std::get<Hiding>(with.param).name, textOf(std::get<By>(with.param)));
    });

TEST_P(View, Get_OfWhatIsHidden_IsNoSuchObject) {
  ASSERT_FALSE(hidden_.empty());
  for (const Varbind& varbind : hidden_) {
    EXPECT_THAT(manager().get({varbind.name}), HasSubstr("No Such Object")) << varbind.name;
  }
  for (const Varbind& varbind : seen_) EXPECT_EQ(manager().get({varbind.name}), varbind.line());
}

TEST_P(View, GetNext_FromEveryInstance_PassesOverWhatIsHidden) {
  EXPECT_THAT(manager().walk(), StartsWith(walkOf(seen_)));
  for (const Varbind& varbind : treeOf(kStates)) {
    EXPECT_THAT(manager().getNext({varbind.name}), HasSubstr(behind(varbind.name))) << varbind.name;
  }
}

TEST_P(View, GetBulk_PassesOverWhatIsHidden) {
  EXPECT_THAT(manager().bulkWalk(), StartsWith(walkOf(seen_)));
  for (size_t count = 1; count <= seen_.size(); ++count) {
    std::vector<Varbind> first(seen_.begin(), seen_.begin() + static_cast<std::ptrdiff_t>(count));
    EXPECT_EQ(manager().getBulk(0, static_cast<int>(count), {"reach"}), walkOf(first)) << count;
  }
}

TEST_P(View, GetBulk_FromEveryInstance_PassesOverWhatIsHidden) {
  std::vector<Varbind> all = treeOf(kStates);
  for (auto at = all.begin(); at != all.end(); ++at) {
    std::vector<Varbind> next;
    std::copy_if(at + 1, all.end(), std::back_inserter(next),
                 [](const Varbind& other) { return !hiding().hides(other.name); });
    EXPECT_THAT(manager().getBulk(0, static_cast<int>(all.size()), {at->name}), StartsWith(walkOf(next)))
        << at->name;
  }
}

}  // namespace
}  // namespace E2e
