// The host-resources tables while members, figures and mappings change, as a manager sees it: a state file is
// edited under a running daemon.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Hosts.h"

namespace E2e {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class HostChanges : public testing::Test {
 protected:
  void start() { daemon_.stateIs(state_.dump()).start(); }
  void edit() const { daemon_.dir().replace(Daemon::kStateName, state_.dump()); }
  nlohmann::json& member(int id) { return state_["members"][std::to_string(id)]; }
  nlohmann::json& mount(const std::string& point) { return state_["storageMappings"]["mounts"][point]; }

  // The table as it was at the start but for these answers; an empty one stands for a row that is not there.
  testing::AssertionResult walkBecomes(const std::map<std::string, std::string>& changes) const {
    std::vector<Varbind> tree = hostsTree();
    for (const auto& [name, value] : changes) {
      auto at = std::find_if(tree.begin(), tree.end(),
                             [&name](const Varbind& varbind) { return varbind.name == name; });
      if (at == tree.end()) return testing::AssertionFailure() << "no instance " << name;
      at->value = value;
    }
    std::erase_if(tree, [](const Varbind& varbind) { return varbind.value.empty(); });
    return walkBecomes(walkOf(tree));
  }
  testing::AssertionResult walkBecomes(const std::string& expected) const {
    std::string walked;
    bool became = Support::waitUntil([&] {
      walked = manager().bulkWalk();
      return walked.substr(0, walked.rfind('\n', walked.find(" = No ")) + 1) == expected;
    });
    return became ? testing::AssertionSuccess() : testing::AssertionFailure() << walked;
  }
  // The instances of one member, each without a value.
  static std::map<std::string, std::string> withoutMember(int id) {
    std::map<std::string, std::string> gone;
    for (const Varbind& varbind : hostsTree()) {
      // Behind the table and the column.
      size_t row = varbind.name.find('.', varbind.name.find('.') + 1);
      if ((varbind.name.substr(row) + ".").starts_with("." + std::to_string(id) + ".")) gone[varbind.name];
    }
    return gone;
  }
  // The instances of these rows of the storage table, each without a value.
  static std::map<std::string, std::string> withoutRows(const std::vector<std::string>& rows) {
    std::map<std::string, std::string> gone;
    for (const std::string& row : rows) {
      for (int column = 3; column <= 7; ++column) gone[fmt::format("stor.{}.{}", column, row)];
    }
    return gone;
  }
  const Manager& manager() const { return daemon_.manager(); }

  nlohmann::json state_ = nlohmann::json::parse(hostsDocument());
  Daemon daemon_;
};

TEST_F(HostChanges, LoadChanges_OnlyThatInstanceDiffers) {
  start();
  member(1)["processors"]["1"]["load"] = 55;
  edit();
  EXPECT_TRUE(walkBecomes({{"proc.3.1.1", "INTEGER: 55"}}));
}

TEST_F(HostChanges, FiguresChange_TheRowStaysAndReadsAnew) {
  start();
  auto systemTable = [this] { return daemon_.status().at("tables").at(2); };
  nlohmann::json before = systemTable();
  ASSERT_EQ(before.at("name"), "veldaTrelHrSystemTable");
  member(1)["system"]["users"] = 9;
  member(1)["system"]["currentTimeUtc"] = 1767225602.25;
  edit();
  EXPECT_TRUE(walkBecomes({{"sys.3.1", "Hex-STRING: 07 EA 01 01 00 00 02 02 2B 00 00 "},  //
                           {"sys.4.1", "Gauge32: 9"}}));
  EXPECT_EQ(systemTable().at("rows"), before.at("rows"));
  EXPECT_EQ(systemTable().at("version"), before.at("version"));
}

TEST_F(HostChanges, MemberLeavesAndComesBack_ItsRowsAreThoseOfTheNewOne) {
  start();
  nlohmann::json leaving = member(2);
  state_["members"].erase("2");
  edit();
  EXPECT_TRUE(walkBecomes(withoutMember(2)));
  leaving["system"]["users"] = 3;
  leaving["processors"]["0"]["load"] = 4;
  member(2) = leaving;
  edit();
  EXPECT_TRUE(walkBecomes({{"sys.4.2", "Gauge32: 3"}, {"proc.3.2.0", "INTEGER: 4"}}));
  EXPECT_THAT(daemon_.errors(), IsEmpty());
}

TEST_F(HostChanges, MemberReplacedAtOnce_NoRowOfTheOldOneStays) {
  start();
  member(2) = {
      {"system", {{"uptime", 1}, {"currentTimeUtc", 0}, {"users", 0}, {"processes", 2}, {"memorySize", 3}}}};
  edit();
  auto changes = withoutMember(2);
  changes["sys.2.2"] = "Timeticks: (100) 0:00:01.00";
  changes["sys.3.2"] = "Hex-STRING: 07 B2 01 01 00 00 00 00 2B 00 00 ";
  changes["sys.4.2"] = "Gauge32: 0";
  changes["sys.5.2"] = "Gauge32: 2";
  changes["sys.6.2"] = "INTEGER: 3";
  EXPECT_TRUE(walkBecomes(changes));
}

TEST_F(HostChanges, SystemFiguresWithdrawn_TheRowReadsAsZero) {
  start();
  member(1).erase("system");
  edit();
  EXPECT_TRUE(walkBecomes({{"sys.2.1", "Timeticks: (0) 0:00:00.00"},
                           {"sys.3.1", "Hex-STRING: 07 B2 01 01 00 00 00 00 2B 00 00 "},
                           {"sys.4.1", "Gauge32: 0"},
                           {"sys.5.1", "Gauge32: 0"},
                           {"sys.6.1", "INTEGER: 0"}}));
}

TEST_F(HostChanges, MemoryChanges_EveryMemoryRowOfThatMemberFollows) {
  start();
  member(1)["memory"] = {{"total", 1000}, {"free", 400}};
  edit();
  EXPECT_TRUE(walkBecomes({{"stor.6.1.1", "INTEGER: 1000"},
                           {"stor.7.1.1", "INTEGER: 600"},
                           {"stor.6.1.100", "INTEGER: 1000"},
                           {"stor.7.1.100", "INTEGER: 1000"}}));
}

TEST_F(HostChanges, MemoryWithdrawn_ItsRowsVanishTheOthersStay) {
  start();
  member(1).erase("memory");
  edit();
  EXPECT_TRUE(walkBecomes(withoutRows({"1.1", "1.100"})));
}

TEST_F(HostChanges, MemoryMappingWithdrawn_EveryMembersRowVanishes) {
  start();
  state_["storageMappings"]["memory"].erase("100");
  edit();
  EXPECT_TRUE(walkBecomes(withoutRows({"1.100", "2.100"})));
}

TEST_F(HostChanges, MemoryMappingAppears_EveryMembersRowDoes) {
  start();
  state_["storageMappings"]["memory"]["2"] = {
      {"index", 2}, {"type", "1.3.6.1.2.1.25.2.1.1"}, {"description", "buffers"}};
  edit();
  EXPECT_TRUE(Support::waitUntil([this] {
    return manager().get({"stor.4.1.2", "stor.7.1.2", "stor.7.2.2"}) ==
           "stor.4.1.2 = STRING: \"buffers\"\nstor.7.1.2 = INTEGER: 8388608\nstor.7.2.2 = INTEGER: 8000000\n";
  })) << manager().bulkWalk();
}

TEST_F(HostChanges, MountsGo_OnlyTheMappedOnesRowVanishes) {
  start();
  member(2)["storage"].erase("/nowhere");
  member(2)["storage"].erase("/");
  edit();
  EXPECT_TRUE(walkBecomes(withoutRows({"2.31"})));
}

TEST_F(HostChanges, UnmappedMountGoes_NothingDiffers) {
  start();
  member(2)["storage"].erase("/nowhere");
  member(2)["processors"]["0"]["load"] = 1;  // shows that the edit has been read
  edit();
  EXPECT_TRUE(walkBecomes({{"proc.3.2.0", "INTEGER: 1"}}));
}

TEST_F(HostChanges, ProcessorsAppearAndGo_TheirRowsDo) {
  start();
  member(255)["processors"] = {{"2", {{"load", 50}}}};
  edit();
  EXPECT_TRUE(Support::waitUntil([this] {
    return manager().getNext({"proc.3.2.2147483648"}) == "proc.3.255.2 = INTEGER: 50\n";
  })) << manager().bulkWalk();
}

TEST_F(HostChanges, MappingWithdrawn_EveryMembersRowVanishes) {
  start();
  state_["storageMappings"]["mounts"].erase("/");
  edit();
  std::map<std::string, std::string> gone;
  for (const Varbind& varbind : hostsTree()) {
    if (varbind.name.starts_with("stor.") && varbind.name.ends_with(".31")) gone[varbind.name];
  }
  EXPECT_TRUE(walkBecomes(gone));
}

TEST_F(HostChanges, MappingAppears_TheRowOfItsFileSystemDoes) {
  start();
  mount("/nowhere") = {{"index", 40}, {"type", "1.3.6.1.2.1.25.2.1.4"}, {"description", "nowhere"}};
  edit();
  EXPECT_TRUE(Support::waitUntil([this] {
    return manager().getNext({"stor.4.2.31", "stor.7.2.31"}) ==
           "stor.4.2.40 = STRING: \"nowhere\"\nstor.7.2.40 = INTEGER: 0\n";
  })) << manager().bulkWalk();
}

TEST_F(HostChanges, MappingGetsAnotherIndex_TheRowMoves) {
  start();
  ASSERT_EQ(manager().getNext({"stor.6.1.100"}), "stor.6.1.2147483648 = INTEGER: 5\n");
  mount("/größe")["index"] = 4294967295;
  edit();
  EXPECT_TRUE(Support::waitUntil(
      [this] { return manager().getNext({"stor.6.1.100"}) == "stor.6.1.4294967295 = INTEGER: 5\n"; }));
  EXPECT_EQ(manager().getNext({"stor.6.1.2147483648"}), "stor.6.1.4294967295 = INTEGER: 5\n");
  EXPECT_EQ(manager().getNext({"stor.6.1.4294967295"}), "stor.6.2.1 = INTEGER: 8000000\n");
}

// While they do, each has the index that the other had, and either's row may go under it.
TEST_F(HostChanges, MappingsTradeIndexes_NoRowIsMissing) {
  start();
  ASSERT_EQ(manager().get({"stor.6.1.31", "stor.6.1.2147483648"}),
            "stor.6.1.31 = INTEGER: 5242880\nstor.6.1.2147483648 = INTEGER: 5\n");
  mount("/größe")["index"] = 31;
  mount("/")["index"] = 2147483648;
  edit();
  EXPECT_TRUE(Support::waitUntil([this] {
    return manager().get({"stor.6.1.31", "stor.6.1.2147483648", "stor.6.2.2147483648"}) ==
           "stor.6.1.31 = INTEGER: 5\nstor.6.1.2147483648 = INTEGER: 5242880\n"
           "stor.6.2.2147483648 = INTEGER: 100\n";
  })) << manager().bulkWalk();
}

TEST_F(HostChanges, DescriptionChanges_OnlyItsInstancesDiffer) {
  start();
  mount("/")["description"] = "root";
  edit();
  EXPECT_TRUE(walkBecomes({{"stor.4.1.31", "STRING: \"root\""}, {"stor.4.2.31", "STRING: \"root\""}}));
}

TEST_F(HostChanges, RowVanishesBetweenTwoSteps_WalkGoesOnBehindIt) {
  start();
  ASSERT_EQ(manager().getNext({"proc.3.1.1"}), "proc.3.1.4294967295 = INTEGER: 100\n");
  member(1)["processors"].erase("4294967295");
  edit();
  ASSERT_TRUE(walkBecomes({{"proc.3.1.4294967295", ""}}));
  EXPECT_EQ(manager().getNext({"proc.3.1.4294967295"}), "proc.3.2.0 = INTEGER: 32767\n");
}

TEST_F(HostChanges, ValueThatDoesNotFit_KeepsTheLastAndIsSaidOnce) {
  start();
  member(1)["processors"]["1"]["load"] = 32768;
  member(1)["processors"]["4294967295"]["load"] = 7;
  edit();
  EXPECT_TRUE(walkBecomes({{"proc.3.1.4294967295", "INTEGER: 7"}}));
  EXPECT_THAT(daemon_.errors(),
              ElementsAre(AllOf(HasSubstr(daemon_.stateFile()), HasSubstr("members/1/processors/1"))));
}

TEST_F(HostChanges, StorageSwitchedOff_ItsTableIsEmptyTheOthersAreNot) {
  for (const char* toggles :
       {R"({"TrelHrStorageSnmp": false})", R"({"TrelHrMemStorage": false, "TrelHrStorageSnmp": true})",
        R"({"TrelHrStorageSnmp": false, "TrelHrMemStorage": false})"}) {
    Daemon daemon;
    daemon.stateIs(state_.dump()).with({"--toggles", daemon_.dir().write("TrelCore.json", toggles)}).start();
    EXPECT_THAT(daemon.manager().walk(), AllOf(HasSubstr("sys.2.1 "), HasSubstr("proc.3.1.1 "))) << toggles;
    EXPECT_THAT(daemon.manager().walk(), Not(HasSubstr("stor."))) << toggles;
    EXPECT_THAT(daemon.manager().get({"stor.4.1.31"}), HasSubstr("No Such Instance")) << toggles;
    EXPECT_TRUE(daemon.errors().empty()) << toggles;
  }
}

TEST_F(HostChanges, StorageSwitchedOnInSoManyWords_IsServed) {
  daemon_.with(
      {"--toggles",
       daemon_.dir().write("TrelCore.json", R"({"TrelHrStorageSnmp": true, "TrelHrMemStorage": true})")});
  start();
  EXPECT_TRUE(walkBecomes(walkOf(hostsTree())));
}

TEST_F(HostChanges, ToggleFileThatIsNoJson_IsSaidOnceAndStorageIsServed) {
  std::string path = daemon_.dir().write("TrelCore.json", "{\"TrelHrStorageSnmp\": fals");
  daemon_.with({"--toggles", path});
  start();
  EXPECT_TRUE(walkBecomes(walkOf(hostsTree())));
  EXPECT_THAT(daemon_.errors(), ElementsAre(AllOf(HasSubstr(path), HasSubstr("expected JSON"))));
}

TEST_F(HostChanges, SetByAWriter_IsNotWritableWhateverTheColumn) {
  daemon_.with({"--conf", daemon_.dir().write("trel.conf", writingAccess("public"))});
  start();
  for (const Varbind& varbind : hostsTree()) {
    EXPECT_THAT(manager().set(varbind.name, 1), HasSubstr("Reason: notWritable")) << varbind.name;
  }
  EXPECT_THAT(manager().set("sys.3.1", 'x', "07E80B0C0D0E0F05"), HasSubstr("Reason: notWritable"));
  EXPECT_THAT(manager().set("sys.3.1", 'x', "07E80B0C0D0E0F052B0000"), HasSubstr("Reason: notWritable"));
  EXPECT_THAT(manager().set("sys.3.3", 'x', "07E80B0C0D0E0F05"), HasSubstr("Reason: notWritable"));
  EXPECT_TRUE(walkBecomes(walkOf(hostsTree())));
}

}  // namespace
}  // namespace E2e
