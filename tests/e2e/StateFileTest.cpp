// A state file that is edited, broken, removed and repaired under a running daemon, as a manager sees it.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"

namespace E2e {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

// What a thread or process has computed so far, in the ticks of its stat file.
long ticksOf(const std::string& stat) {
  std::string text = Support::readFile(stat);
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string skipped;
  for (int i = 3; i < 14; ++i) fields >> skipped;
  long user = 0;
  long system = 0;
  fields >> user >> system;
  return user + system;
}

class StateFile : public testing::Test {
 protected:
  StateFile() { daemon_.stateIs(documentOf(reports_)); }

  // The instances whose lines are not the same in both walks.
  static std::set<std::string> difference(const std::string& before, const std::string& after) {
    std::set<std::string> differing;
    auto collect = [&differing](const std::string& lines, const std::string& others) {
      std::istringstream in(lines);
      for (std::string line; std::getline(in, line);) {
        if (("\n" + others).find("\n" + line + "\n") == std::string::npos) {
          differing.insert(line.substr(0, line.find(' ')));
        }
      }
    };
    collect(before, after);
    collect(after, before);
    return differing;
  }

  testing::AssertionResult walkBecomes(const Reports& reports) {
    std::string expected = walkOf(treeOf(reports));
    std::string walked;
    bool became = Support::waitUntil([&] { return (walked = walk()) == expected; });
    return became ? testing::AssertionSuccess() : testing::AssertionFailure() << walked;
  }

  // The rows alone.
  std::string walk() {
    std::string lines = daemon_.manager().bulkWalk();
    size_t end = lines.find("No more variables");
    return end == std::string::npos ? lines : lines.substr(0, lines.rfind('\n', end) + 1);
  }

  testing::AssertionResult errorAppears() {
    bool appeared = Support::waitUntil([&] { return !daemon_.sourceError().empty(); });
    return appeared ? testing::AssertionSuccess() : testing::AssertionFailure() << daemon_.process().err();
  }

  const Reports reports_ = {{{1, 2}, {"reachable", 1002}},
                            {{1, 3}, {"reachable", 1003}},
                            {{2, 1}, {"reachable", 2001}},
                            {{3, 1}, {"degraded"}}};
  Daemon daemon_;
};

TEST_F(StateFile, ReplacedByRename_OnlyTheChangedRowDiffers) {
  daemon_.start();
  std::string before = walk();
  Reports changed = reports_;
  changed[{1, 3}].state = "unreachable";
  daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  EXPECT_TRUE(walkBecomes(changed));
  EXPECT_THAT(difference(before, walk()), ElementsAre("reach.4.1.3"));
  EXPECT_THAT(daemon_.errors(), IsEmpty());
}

TEST_F(StateFile, WrittenInPlace_OnlyTheChangedRowDiffers) {
  daemon_.start();
  std::string before = walk();
  Reports changed = reports_;
  changed[{2, 1}].ifIndex = 0;
  daemon_.dir().write(Daemon::kStateName, documentOf(changed));
  EXPECT_TRUE(walkBecomes(changed));
  EXPECT_THAT(difference(before, walk()), ElementsAre("reach.3.2.1"));
  EXPECT_THAT(daemon_.errors(), IsEmpty());
}

TEST_F(StateFile, MemberGoes_ItsRowsVanish_OthersStay) {
  daemon_.start();
  Reports changed = reports_;
  changed.erase({1, 2});
  changed.erase({1, 3});
  daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  EXPECT_TRUE(walkBecomes(changed));
}

TEST_F(StateFile, MemberAndNeighbourAppear_TheirRowsAreInTheirPlaces) {
  daemon_.start();
  Reports changed = reports_;
  changed[{2, 3}] = {"initializing", 7};
  changed[{0, 255}] = {"disabled"};
  daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  EXPECT_TRUE(walkBecomes(changed));
}

TEST_F(StateFile, EmptyDocument_NoRowIsLeft) {
  daemon_.start();
  daemon_.dir().replace(Daemon::kStateName, "{}");
  ASSERT_TRUE(Support::waitUntil([&] { return daemon_.manager().getNext({"reach"}).find("reach.3.") != 0; }));
  EXPECT_EQ(daemon_.status().at("tables").at(1).at("rows"), 0);
  EXPECT_THAT(daemon_.errors(), IsEmpty());
}

TEST_F(StateFile, ReplacedManyTimesInARow_EndsWithTheLast) {
  daemon_.start();
  Reports changed = reports_;
  for (uint32_t i = 1; i <= 300; ++i) {
    changed[{1, 2}].ifIndex = i;
    daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  }
  EXPECT_TRUE(walkBecomes(changed));
  EXPECT_THAT(daemon_.errors(), IsEmpty());
}

TEST_F(StateFile, RowVanishesBetweenTwoSteps_WalkGoesOnBehindIt) {
  daemon_.start();
  ASSERT_EQ(daemon_.manager().getNext({"reach.4.1.2"}), "reach.4.1.3 = INTEGER: 3\n");
  Reports changed = reports_;
  changed.erase({1, 3});
  daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  ASSERT_TRUE(walkBecomes(changed));
  EXPECT_EQ(daemon_.manager().getNext({"reach.4.1.3"}), "reach.4.2.1 = INTEGER: 3\n");
}

uint64_t utcNs() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::nanoseconds(since).count());
}

TEST_F(StateFile, ChangeAfterTheStart_LastUpdateIsTheUptimeOfTheChange) {
  daemon_.start();
  uint32_t before = daemon_.manager().upTime();
  Reports changed = reports_;
  changed[{1, 2}].lastChangeNs = utcNs();
  uint32_t after = daemon_.manager().upTime();
  daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  std::string answer;
  ASSERT_TRUE(Support::waitUntil([&] {
    answer = daemon_.manager().get({"reach.5.1.2"});
    return answer.find("(0)") == std::string::npos;
  })) << answer;
  size_t at = answer.find('(');
  ASSERT_NE(at, std::string::npos) << answer;
  unsigned long ticks = std::stoul(answer.substr(at + 1));
  // Two clocks that are read one after the other, and the hundredth that is left out.
  constexpr unsigned long kMoment = 10;
  EXPECT_GE(ticks + kMoment, before);
  EXPECT_LE(ticks, after + kMoment);
}

// A member whose clock is ahead.
TEST_F(StateFile, ChangeToCome_LastUpdateIsTheUptimeNow) {
  constexpr uint64_t kHourNs = 3'600'000'000'000;
  Reports ahead = reports_;
  ahead[{1, 2}].lastChangeNs = utcNs() + kHourNs;
  daemon_.stateIs(documentOf(ahead)).start();
  uint32_t before = daemon_.manager().upTime();
  std::string answer = daemon_.manager().get({"reach.5.1.2"});
  uint32_t after = daemon_.manager().upTime();
  size_t at = answer.find('(');
  ASSERT_NE(at, std::string::npos) << answer;
  unsigned long ticks = std::stoul(answer.substr(at + 1));
  EXPECT_GE(ticks, before);
  EXPECT_LE(ticks, after);
}

TEST_F(StateFile, SeveralSources_TheLastWins) {
  daemon_.dir().write("more.json", documentOf({{{1, 2}, {"disabled", 9}}, {{8, 9}, {"degraded"}}}));
  daemon_.with({"--state", "file:" + daemon_.dir().file("more.json")}).start();
  Reports both = reports_;
  both[{1, 2}] = {"disabled", 9};
  both[{8, 9}] = {"degraded"};
  EXPECT_TRUE(walkBecomes(both));
  daemon_.dir().write("more.json", "{}");
  EXPECT_TRUE(walkBecomes(reports_));
}

// A way of making the file unusable, and what the one line about it says, behind the file's name.
struct Damage {
  std::string name;
  std::string error;
  std::function<void(const Daemon&, const std::string& good)> inflict;
  friend std::ostream& operator<<(std::ostream& out, const Damage& damage) { return out << damage.name; }
};

std::function<void(const Daemon&, const std::string&)> content(const std::string& text) {
  return [text](const Daemon& daemon, const std::string&) { daemon.dir().write(Daemon::kStateName, text); };
}

const std::vector<Damage> kDamages = {
    {"Empty", ":1:1: ", content("")},
    {"NotJson", ":1:1: ", content("state = good\n")},
    {"Binary", ":1:1: ", content(std::string("\0\x01\xff\xfe", 4))},
    {"NotUtf8", ":1:14: ", content("{\"sysname\": \"\xff\xfe\"}")},
    {"CommaTooMany", ":2:1: ", content("{\"sysname\": \"a\",\n}")},
    {"TwoDocuments", ":1:4: ", content("{} {}")},
    {"AList", "expected", content("[1, 2, 3]")},
    {"DeeplyNested", "expected", content(std::string(100'000, '['))},
    {"HalfWritten", ":21:25: ",
     [](const Daemon& daemon, const std::string& good) {
       daemon.dir().write(Daemon::kStateName, good.substr(0, good.size() / 2));
     }},
    {"Truncated", ":46:2: ",
     [](const Daemon& daemon, const std::string& good) {
       fs::resize_file(daemon.stateFile(), good.size() - 3);
     }},
    {"Missing", "No such file or directory",
     [](const Daemon& daemon, const std::string&) { fs::remove(daemon.stateFile()); }},
    {"ADirectory", "found a directory, expected a file",
     [](const Daemon& daemon, const std::string&) {
       fs::remove(daemon.stateFile());
       fs::create_directory(daemon.stateFile());
     }},
    {"APipe", "found a pipe, expected a file",
     [](const Daemon& daemon, const std::string&) {
       fs::remove(daemon.stateFile());
       ASSERT_EQ(mkfifo(daemon.stateFile().c_str(), 0600), 0);
     }},
    {"HundredMegabytes", "found 104857600 bytes, expected at most 67108864",
     [](const Daemon& daemon, const std::string& good) {
       std::string big = good;
       big.resize(100 << 20, ' ');
       daemon.dir().replace(Daemon::kStateName, big);
     }},
    {"DanglingLink", "No such file or directory",
     [](const Daemon& daemon, const std::string&) {
       fs::remove(daemon.stateFile());
       fs::create_symlink("nowhere", daemon.stateFile());
     }},
};

class DamagedStateFile : public StateFile, public testing::WithParamInterface<Damage> {
 protected:
  auto theError() const {
    return AllOf(StartsWith("Kelstore/0 " + daemon_.stateFile() + ":"), HasSubstr(GetParam().error));
  }
};
INSTANTIATE_TEST_SUITE_P(All, DamagedStateFile, testing::ValuesIn(kDamages),
                         [](const auto& damage) { return damage.param.name; });

TEST_P(DamagedStateFile, OneErrorLine_LastGoodStateIsKept_RepairIsSeen) {
  daemon_.start();
  std::string before = walk();
  GetParam().inflict(daemon_, documentOf(reports_));
  ASSERT_TRUE(errorAppears());
  EXPECT_THAT(daemon_.sourceError(),
              AllOf(StartsWith(daemon_.stateFile() + ":"), HasSubstr(GetParam().error)));
  EXPECT_THAT(daemon_.errors(), ElementsAre(theError()));
  EXPECT_EQ(walk(), before);

  Reports changed = reports_;
  changed[{1, 2}].state = "disabled";
  fs::remove_all(daemon_.stateFile());
  daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  ASSERT_TRUE(Support::waitUntil([&] { return daemon_.sourceError().empty(); }));
  EXPECT_TRUE(walkBecomes(changed));
  EXPECT_EQ(daemon_.errors().size(), 1u);
}

TEST_P(DamagedStateFile, AtTheStart_DaemonServesEmptyTablesUntilTheFileIsGood) {
  GetParam().inflict(daemon_, documentOf(reports_));
  daemon_.start();
  ASSERT_TRUE(errorAppears());
  EXPECT_THAT(daemon_.errors(), ElementsAre(theError()));
  EXPECT_THAT(daemon_.manager().getNext({"reach"}), testing::Not(HasSubstr("reach.3.")));

  fs::remove_all(daemon_.stateFile());
  daemon_.dir().replace(Daemon::kStateName, documentOf(reports_));
  EXPECT_TRUE(Support::waitUntil([&] { return daemon_.sourceError().empty(); }));
  EXPECT_TRUE(walkBecomes(reports_));
}

// A document in which one value is wrong: the path that the error names, and what it says of it.
struct Fault {
  const char* name;
  const char* value;  // of members/1/reachability/2
  const char* path;
  friend std::ostream& operator<<(std::ostream& out, const Fault& fault) { return out << fault.name; }
};

class WrongValue : public StateFile, public testing::WithParamInterface<Fault> {};
INSTANTIATE_TEST_SUITE_P(
    All, WrongValue,
    testing::Values(
        Fault{"StateOutOfRange", R"({"state": 256, "lastChange": 0})", "members/1/reachability/2"},
        Fault{"StateNegative", R"({"state": -1, "lastChange": 0})", "members/1/reachability/2"},
        Fault{"StateWithoutAName", R"({"state": "", "lastChange": 0})", "members/1/reachability/2"},
        Fault{"StateMissing", R"({"intf": "Backplane1", "lastChange": 0})", "members/1/reachability/2"},
        Fault{"TimeAsText", R"({"state": 2, "lastChange": "today"})", "members/1/reachability/2"},
        Fault{"InterfaceAsNumber", R"({"state": 2, "lastChange": 0, "intf": 4})", "members/1/reachability/2"},
        Fault{"TimeMissing", R"({"state": 2})", "members/1/reachability/2"},
        Fault{"NotAnObject", "2", "members/1/reachability/2"},
        Fault{"Null", "null", "members/1/reachability/2"}),
    [](const auto& fault) { return fault.param.name; });

TEST_P(WrongValue, OneErrorLine_ThatPathKeepsItsValue_OthersAreApplied) {
  daemon_.start();
  Reports changed = reports_;
  changed[{1, 3}].state = "unreachable";
  changed[{4, 1}] = {"disabled"};
  auto document = nlohmann::ordered_json::parse(documentOf(changed));
  document["members"]["1"]["reachability"]["2"] = nlohmann::ordered_json::parse(GetParam().value);
  daemon_.dir().replace(Daemon::kStateName, document.dump(1));
  EXPECT_TRUE(walkBecomes(changed));
  EXPECT_THAT(daemon_.sourceError(),
              AllOf(StartsWith(daemon_.stateFile() + ":"), HasSubstr(GetParam().path)));
  EXPECT_THAT(daemon_.errors(), ElementsAre("Kelstore/0 " + daemon_.sourceError()));
}

TEST_F(StateFile, ControlCharactersInADescription_AreRefused_AndReachNoTerminal) {
  daemon_.start();
  std::string before = walk();
  auto document = nlohmann::ordered_json::parse(documentOf(reports_));
  document["storageMappings"]["mounts"]["/"] = {
      {"index", 31}, {"type", "1.3.6.1.2.1.25.2.1.4"}, {"description", "a\x1b[2J\xc2\x9b\xe2\x80\xae"}};
  daemon_.dir().replace(Daemon::kStateName, document.dump(1));
  ASSERT_TRUE(errorAppears());
  EXPECT_THAT(daemon_.sourceError(), HasSubstr("description: found \"a\\x1b[2J\\u009b\\u202e\", expected"));
  EXPECT_EQ(walk(), before);
  std::string shown = daemon_.ctl({"status"}).out + daemon_.ctl({"status", "--json"}).out +
                      daemon_.ctl({"tables"}).out + daemon_.ctl({"--control", "/\x1b[2J", "status"}).err +
                      daemon_.log();
  for (const char* control : {"\x1b", "\xc2\x9b", "\xe2\x80\xae"}) {
    EXPECT_THAT(shown, testing::Not(HasSubstr(control)));
  }
}

TEST_F(StateFile, UnreadFiguresOfVeryMany_TheStatusShowsSome_AndHowManyMore) {
  nlohmann::json document;
  for (int member = 1; member <= 30; ++member) {
    for (int collector = 1; collector <= 30; ++collector) {
      document["members"][std::to_string(member)]["unread"][std::to_string(collector)] = {
          {"state", "hangs"}, {"since", 0}, {"error", "no answer"}};
    }
  }
  daemon_.stateIs(document.dump()).start();
  const nlohmann::json status = daemon_.status();
  const nlohmann::json& unread = status.at("unread");
  EXPECT_EQ(unread.size(), 500u);
  EXPECT_EQ(status.at("unreadLeftOut"), 400);
  EXPECT_EQ(
      std::count_if(unread.begin(), unread.end(), [](const auto& one) { return one.at("member") == "1"; }),
      20);
  EXPECT_THAT(daemon_.ctl({"status"}).out, HasSubstr("and 400 more\n"));
}

TEST_F(StateFile, HalfWrittenForAMoment_NothingIsSaidAndTheWholeIsServed) {
  daemon_.start();
  Reports changed = reports_;
  changed[{1, 2}].state = "disabled";
  std::string whole = documentOf(changed);
  daemon_.dir().write(Daemon::kStateName, whole.substr(0, whole.size() / 2));
  daemon_.dir().write(Daemon::kStateName, whole);
  EXPECT_TRUE(walkBecomes(changed));
  EXPECT_THAT(daemon_.errors(), IsEmpty());
}

// Told by what the threads have computed, which does not depend on how busy the machine is.
TEST_F(StateFile, BigFile_IsReadAndParsedBesideTheLoop) {
  daemon_.start();
  pid_t process = daemon_.process().pid();
  std::string loop = fmt::format("/proc/{0}/task/{0}/stat", process);
  std::string all = fmt::format("/proc/{}/stat", process);
  long loopBefore = ticksOf(loop);
  long allBefore = ticksOf(all);
  Reports changed = reports_;
  changed[{1, 2}].state = "disabled";
  std::string big = documentOf(changed);
  // Just below the limit, and to be parsed whole.
  std::string letters;
  while (letters.size() < 60u << 20) letters += "\\u0041";
  daemon_.dir().replace(Daemon::kStateName, big.insert(1, "\"unused\": \"" + letters + "\","));
  EXPECT_TRUE(walkBecomes(changed));
  long computed = ticksOf(all) - allBefore;
  EXPECT_GT(computed, 5);
  EXPECT_LT(ticksOf(loop) - loopBefore, computed / 2);
}

}  // namespace
}  // namespace E2e
