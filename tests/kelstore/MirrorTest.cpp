// What a change of state does to the entities that pipelines follow, notification by notification.
#include <gmock/gmock.h>

#include "tests/kelstore/World.h"
#include "tests/support/TraceLog.h"

namespace Kelstore {
namespace {

constexpr const char* kMember3 = R"({"members": {"3": {
    "system": {"uptime": 7.5, "currentTimeUtc": 8, "users": 1, "processes": 2, "memorySize": 3},
    "processors": {"1": {"load": 10}, "2": {"load": 20}},
    "storage": {"/": {"allocationUnits": 4096, "size": 100, "free": 50}},
    "memory": {"total": 1000},
    "reachability": {"1": {"state": "reachable", "intf": "Backplane3/1", "lastChange": 5}}}}})";

TEST(MirrorTest, MemberAppears_ItsEntitiesAreThereWithAllTheirElements) {
  World world;
  EXPECT_EQ(world.says(kMember3), "host[3] 3.memory 3.cpu[1] 3.cpu[2] 3.storage[/] status[3] 3.reach[1]");
  EXPECT_EQ(world.host("3")->system().systemUptime, 7.5);
  EXPECT_EQ(world.host("3")->system().memorySize, 3u);
  EXPECT_EQ((*world.host("3")->processorTable().find(2u))->load(), 20);
  EXPECT_EQ((*world.host("3")->storageInfoTable().find("/"))->size(), 100u);
  EXPECT_EQ(world.host("3")->memInfo()->amounts().total, 1000u);
  EXPECT_FALSE(world.host("3")->memInfo()->amounts().free);
  auto state = *world.reachability("3")->reachabilityStatus().find(Trel::MemberId(1));
  EXPECT_EQ(state->text(), "(state=reachable, intf=Backplane3/1, lastChange=5)");
}

TEST(MirrorTest, FiguresAreThereWhenTheEntityAppears) {
  World world;
  double seen = -1;
  auto follow = world.mirror.hostResourcesDir()->entities().subscribe(
      [&](const std::string& member) { seen = world.host(member)->system().systemUptime; });
  world.says(kMember3);
  EXPECT_EQ(seen, 7.5);
}

TEST(MirrorTest, SameDocumentAgain_NothingIsTouched) {
  World world;
  world.says(kMember3);
  auto host = world.host("3");
  uint32_t version = host->processorTable().version();
  EXPECT_EQ(world.says(kMember3), "");
  EXPECT_EQ(world.host("3"), host);
  EXPECT_EQ(host->processorTable().version(), version);
}

TEST(MirrorTest, OneValueChanges_OneNotificationAndANewRecord) {
  World world;
  world.says(R"({"members": {"3": {"processors": {"1": {"load": 10}, "2": {"load": 20}}}}})");
  auto host = world.host("3");
  auto before = *host->processorTable().find(1u);
  auto untouched = *host->processorTable().find(2u);
  EXPECT_EQ(world.says(R"({"members": {"3": {"processors": {"1": {"load": 11}, "2": {"load": 20}}}}})"),
            "3.cpu[1]");
  EXPECT_EQ(before->load(), 10);
  EXPECT_EQ((*host->processorTable().find(1u))->load(), 11);
  EXPECT_EQ(*host->processorTable().find(2u), untouched);
}

TEST(MirrorTest, SystemFiguresChangeInPlace_NobodyIsNotified) {
  World world;
  world.says(kMember3);
  auto host = world.host("3");
  std::string changed = kMember3;
  changed.replace(changed.find("7.5"), 3, "9.5");
  EXPECT_EQ(world.says(changed), "");
  EXPECT_EQ(world.host("3"), host);
  EXPECT_EQ(host->system().systemUptime, 9.5);
}

TEST(MirrorTest, SystemGoesWhileProcessorsStay_FiguresReadAsZero) {
  World world;
  world.says(
      R"({"members": {"3": {"system": {"uptime": 7, "currentTimeUtc": 8, "users": 1, "processes": 2,
          "memorySize": 3}, "processors": {"1": {"load": 1}}}}})");
  EXPECT_EQ(world.says(R"({"members": {"3": {"processors": {"1": {"load": 1}}}}})"), "");
  EXPECT_EQ(world.host("3")->system(), System());
}

TEST(MirrorTest, MemberLeaves_ItsEntitiesLeaveWholeAndOthersStay) {
  World world;
  world.says(kMember3);
  auto host = world.host("3");
  auto status = world.reachability("3");
  EXPECT_EQ(world.says(R"({"members": {}})"), "-host[3] -status[3]");
  EXPECT_EQ(host->processorTable().size(), 2u);
  EXPECT_EQ(status->reachabilityStatus().size(), 1u);
}

TEST(MirrorTest, MemberLeaves_OtherMembersAreNotTouched) {
  World world;
  world.says(R"({"members": {"1": {"memory": {}}, "3": {"memory": {}}}})");
  EXPECT_EQ(world.says(R"({"members": {"1": {"memory": {}}}})"), "-host[3]");
}

TEST(MirrorTest, MemberComesBack_ItsEntityIsANewOne) {
  World world;
  world.says(kMember3);
  auto before = world.host("3");
  world.says("{}");
  world.says(kMember3);
  EXPECT_NE(world.host("3"), before);
  EXPECT_EQ(world.host("3")->processorTable().size(), 2u);
}

TEST(MirrorTest, MemberLeavesAndComesBackBeforeItsTurn_NothingHappens) {
  World world;
  world.says(kMember3);
  auto before = world.host("3");
  world.submit("{}");
  world.submit(kMember3);
  EXPECT_EQ(world.drained(), "");
  EXPECT_EQ(world.host("3"), before);
}

TEST(MirrorTest, EmptyReachability_TheEntityExists) {
  World world;
  EXPECT_EQ(world.says(R"({"members": {"3": {"reachability": {}}}})"), "status[3]");
  EXPECT_EQ(world.says(R"({"members": {"3": {}}})"), "-status[3]");
}

TEST(MirrorTest, LastNeighbourGoesWhileReachabilityStays_OnlyTheElementGoes) {
  World world;
  world.says(kMember3);
  std::string kept = kMember3;
  size_t at = kept.find("\"1\": {\"state\"");
  kept.replace(at, kept.find("}", at) + 1 - at, "");
  EXPECT_EQ(world.says(kept), "-3.reach[1]");
  EXPECT_EQ(world.reachability("3")->reachabilityStatus().size(), 0u);
}

TEST(MirrorTest, EachOfTheFourGroupsAloneKeepsTheHostEntity) {
  for (const char* group :
       {R"("system": {"uptime": 1, "currentTimeUtc": 1, "users": 1, "processes": 1, "memorySize": 1})",
        R"("processors": {})", R"("storage": {})", R"("memory": {})"}) {
    World world;
    world.says(kMember3);
    auto host = world.host("3");
    world.says(std::string(R"({"members": {"3": {)") + group + "}}}");
    EXPECT_EQ(world.host("3"), host) << group;
    EXPECT_EQ(world.says(R"({"members": {"3": {}}})"), "-host[3]") << group;
  }
}

TEST(MirrorTest, MemoryVanishes_OneNotificationAndNoRecord) {
  World world;
  world.says(R"({"members": {"3": {"memory": {"free": 5}, "processors": {}}}})");
  EXPECT_EQ(world.says(R"({"members": {"3": {"processors": {}}}})"), "3.memory");
  EXPECT_EQ(world.host("3")->memInfo(), nullptr);
}

TEST(MirrorTest, LastLinkOfAMemberGoes_ItsTopologyEntryLeavesWhole) {
  World world;
  EXPECT_EQ(world.says(R"({"topology": {"1": {"2": {"intf": "Backplane1/1"}, "3": {"intf": "Backplane1/2"}},
                                        "2": {"1": {"intf": "Backplane2/1"}}}})"),
            "topo[1] 1.link[2] 1.link[3] topo[2] 2.link[1]");
  auto first = *world.mirror.topologyConfig()->topoConfig().find(Trel::MemberId(1));
  EXPECT_EQ(world.says(R"({"topology": {"1": {}, "2": {"1": {"intf": "Backplane2/9"}}}})"),
            "-topo[1] 2.link[1]");
  EXPECT_EQ(first->neighbor().size(), 2u);
}

// Two hosts with file systems and memory, and what is mapped of them.
std::string mapped(const std::string& mounts, const std::string& memory = "") {
  return R"({"members": {"1": {"storage": {"/": {"allocationUnits": 1, "size": 10, "free": 1},
                                           "/b": {"allocationUnits": 1, "size": 20, "free": 2}}},
                         "2": {"storage": {"/b": {"allocationUnits": 1, "size": 30, "free": 3}},
                               "memory": {"total": 9}}},
             "storageMappings": {"mounts": {)" +
         mounts + R"(}, "memory": {)" + memory + "}}}";
}
std::string mapping(const std::string& key, int index, const std::string& description = "") {
  return fmt::format(R"("{}": {{"index": {}, "type": "1.3.6.1", "description": "{}"}})", key, index,
                     description);
}

TEST(MirrorTest, MountMappingComesAfterItsRecords_TheyAreAnnouncedAnew) {
  World world;
  world.says(mapped(""));
  auto before = *world.host("2")->storageInfoTable().find("/b");
  auto untouched = *world.host("1")->storageInfoTable().find("/");
  EXPECT_EQ(world.says(mapped(mapping("/b", 5))), "mount[/b] 1.storage[/b] 2.storage[/b]");
  auto after = *world.host("2")->storageInfoTable().find("/b");
  EXPECT_NE(after, before);
  EXPECT_EQ(after->text(), before->text());
  EXPECT_EQ(*world.host("1")->storageInfoTable().find("/"), untouched);
}

TEST(MirrorTest, MountMappingChangesItsIndex_RecordsGoBeforeAndComeBackAfter) {
  World world;
  world.says(mapped(mapping("/b", 5)));
  EXPECT_EQ(world.says(mapped(mapping("/b", 6))),
            "-1.storage[/b] -2.storage[/b] mount[/b] 1.storage[/b] 2.storage[/b]");
  EXPECT_EQ((*world.host("2")->storageInfoTable().find("/b"))->size(), 30u);
}

TEST(MirrorTest, MountMappingVanishes_RecordsGoBeforeAndComeBackAfter) {
  World world;
  world.says(mapped(mapping("/b", 5)));
  EXPECT_EQ(world.says(mapped("")), "-1.storage[/b] -2.storage[/b] -mount[/b] 1.storage[/b] 2.storage[/b]");
}

TEST(MirrorTest, MountMappingChangesItsDescription_RecordsAreAnnouncedButNeverGo) {
  World world;
  world.says(mapped(mapping("/b", 5)));
  EXPECT_EQ(world.says(mapped(mapping("/b", 5, "backup"))), "mount[/b] 1.storage[/b] 2.storage[/b]");
}

TEST(MirrorTest, MountMappingsTradeIndexes_EveryRecordIsAnnouncedAfterTheLastDeletionUnderItsIndex) {
  World world;
  world.says(mapped(mapping("/", 5) + "," + mapping("/b", 6)));
  EXPECT_EQ(world.says(mapped(mapping("/", 6) + "," + mapping("/b", 5))),
            "-1.storage[/] mount[/] 1.storage[/] "
            "-1.storage[/b] -2.storage[/b] mount[/b] 1.storage[/b] 2.storage[/b] 1.storage[/]");
}

TEST(MirrorTest, MemoryMappingComesChangesAndGoes_MemoryIsAnnouncedAndTakenAwayAlike) {
  World world;
  world.says(mapped(""));
  std::vector<bool> there;
  auto follow = world.host("2")->memInfoElement().subscribe(
      [&](const auto&) { there.push_back(world.host("2")->memInfo() != nullptr); });
  EXPECT_EQ(world.says(mapped("", mapping("1", 1))), "mem[1] 2.memory");
  EXPECT_EQ(world.says(mapped("", mapping("1", 1, "RAM"))), "mem[1] 2.memory");
  EXPECT_EQ(world.says(mapped("", mapping("1", 2))), "2.memory mem[1] 2.memory");
  EXPECT_EQ(world.says(mapped("")), "2.memory -mem[1] 2.memory");
  EXPECT_THAT(there, testing::ElementsAre(true, true, false, true, false, true));
  EXPECT_EQ(world.host("2")->memInfo()->amounts().total, 9u);
}

TEST(MirrorTest, MemoryTakesTheIndexThatAMountHad_ItIsAnnouncedAfterTheMountsRowWent) {
  World world;
  world.says(mapped(mapping("/b", 5)));
  world.says(mapped(mapping("/b", 5), mapping("1", 5)));
  EXPECT_EQ(world.says(mapped(mapping("/b", 6), mapping("1", 5))),
            "-1.storage[/b] -2.storage[/b] mount[/b] 1.storage[/b] 2.storage[/b] 2.memory");
}

TEST(MirrorTest, MappingGoesTogetherWithItsRecords_TheyEndUpGone) {
  World world;
  world.says(mapped(mapping("/b", 5)));
  EXPECT_EQ(world.says("{}"),
            "-1.storage[/b] -2.storage[/b] -mount[/b] 1.storage[/b] 2.storage[/b] -host[2] -host[1]");
}

TEST(MirrorTest, MappingStaysTheSame_NothingIsTouched) {
  World world;
  world.says(mapped(mapping("/b", 5)));
  EXPECT_EQ(world.says(mapped(mapping("/b", 5))), "");
}

TEST(MirrorTest, InterfacesMappingsAndSysnameFollow) {
  World world;
  EXPECT_EQ(world.says(R"({"sysname": "alpha", "interfaces": {"Backplane1/1": {"ifIndex": 4294967295}},
      "storageMappings": {"mounts": {"/": {"index": 31, "type": "1.3.6.1", "description": "root"}},
                          "memory": {"-1": {"index": 1, "type": "1.3.6.1", "description": "RAM"}}}})"),
            "sysname=alpha mount[/] mem[-1] ifIndex[Backplane1/1]");
  EXPECT_EQ(*world.mirror.ifMib()->ifIndexByIntfId().find(Lanix::IntfId("Backplane1/1")), 4294967295u);
  EXPECT_EQ(world.mappings().mountEntries().find("/")->description, "root");
  EXPECT_EQ(world.says(R"({"sysname": "alpha",
      "interfaces": {"Backplane1/1": {"ifIndex": 4294967295, "machineIfIndex": 3}},
      "storageMappings": {"mounts": {"/": {"index": 31, "type": "1.3.6.1", "description": "root"}},
                          "memory": {"-1": {"index": 1, "type": "1.3.6.1", "description": "RAM"}}}})"),
            "")
      << "no table has the machine's own index";
  EXPECT_EQ(world.says("{}"), "sysname= -mount[/] -mem[-1] -ifIndex[Backplane1/1]");
}

// An entity would be a member in the tables that has none of what it is there for.
TEST(MirrorTest, MemberThatReadsNothing_IsShownAndLogged_WithoutAnEntity) {
  World world;
  TraceLog trace({"Kelstore"});
  world.says(R"({"members": {"3": {"unread": {
      "users": {"state": "fails", "since": 7, "error": "/run/utmp: Permission denied"},
      "mount /a": {"state": "hangs", "since": 8, "error": "no answer for 3 s"}}}}})");
  EXPECT_EQ(world.host("3"), nullptr);
  EXPECT_EQ(world.reachability("3"), nullptr);
  EXPECT_THAT(world.mirror.unread(),
              testing::ElementsAre(testing::Pair(Path(Kind::unread, "3", "mount /a"),
                                                 Unread{Unread::hangs, 8, "no answer for 3 s"}),
                                   testing::Pair(Path(Kind::unread, "3", "users"),
                                                 Unread{Unread::fails, 7, "/run/utmp: Permission denied"})));
  EXPECT_THAT(
      trace.lines(),
      testing::ElementsAre(
          "Kelstore/1 member 3: mount /a is unread, its figures are old: it hangs: no answer for 3 s",
          "Kelstore/1 member 3: users is unread, its figures are old: it fails: /run/utmp: Permission "
          "denied"));
}

TEST(MirrorTest, OnlyWhatIsUnreadIsLeft_TheEntityGoes) {
  World world;
  const std::string unread = R"("unread": {"users": {"state": "fails", "since": 7, "error": "gone"}})";
  world.says(R"({"members": {"3": {"processors": {"1": {"load": 10}}, )" + unread + "}}}");
  EXPECT_EQ(world.says(R"({"members": {"3": {)" + unread + "}}}"), "-host[3]");
}

TEST(MirrorTest, CollectorWorksAgain_IsLoggedOnce_TheFiguresAreNotTouched) {
  World world;
  auto says = [&world](const std::string& unread) {
    return world.says(R"({"members": {"3": {"processors": {"1": {"load": 10}}, "unread": {)" + unread +
                      "}}}}");
  };
  EXPECT_EQ(says(R"("users": {"state": "fails", "since": 7, "error": "first"})"), "host[3] 3.cpu[1]");
  TraceLog trace({"Kelstore"});
  EXPECT_EQ(says(R"("users": {"state": "hangs", "since": 7, "error": "second"})"), "");
  EXPECT_EQ(world.mirror.unread().begin()->second.error, "second");
  EXPECT_EQ(says(""), "");
  EXPECT_TRUE(world.mirror.unread().empty());
  EXPECT_THAT(trace.lines(), testing::ElementsAre("Kelstore/1 member 3: users is not unread any more"));
}

}  // namespace
}  // namespace Kelstore
