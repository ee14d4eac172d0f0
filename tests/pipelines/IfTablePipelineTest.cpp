// What the backplane interface table holds as links and interface indexes come, move and go.
#include <gmock/gmock.h>

#include "tests/pipelines/IfTableFixture.h"
#include "tests/support/Reflection.h"

namespace TrelSnmp::Agent {
namespace {

TEST_F(IfTablePipeline, LinkWithAnIndex_OneRow) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
}

TEST_F(IfTablePipeline, LinkBeforeItsIndex_RowComesWithTheIndex) {
  world.wires(1, 2, "Backplane1/2");
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ ]");
  world.indexIs("Backplane1/2", 10);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
}

TEST_F(IfTablePipeline, IndexBeforeItsLink_RowComesWithTheLink) {
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ ]");
  world.wires(1, 2, "Backplane1/2");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
}

TEST_F(IfTablePipeline, IndexChanges_OldRowGoesThenNewOneComes) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  takePublished();
  world.indexIs("Backplane1/2", 12);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 12=(1,2) ]");
  EXPECT_EQ(takePublished(), "-10 +12 ");
}

TEST_F(IfTablePipeline, IndexVanishes_RowGoes) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  world.indexDel("Backplane1/2");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_TRUE(world.sm->cacheAttr0().empty());
}

TEST_F(IfTablePipeline, NeighbourUnwired_RowAndCacheEntryGo) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(1, 3, "Backplane1/3");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Backplane1/3", 11);
  world.startAndDrain();
  world.unwires(1, 2);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 11=(1,3) ]");
  EXPECT_EQ(world.sm->cacheAttr0().size(), 1U);
  EXPECT_EQ(world.sm->cacheAttr0().at({1, 3}), 11U);
}

TEST_F(IfTablePipeline, LinkMovesToAnotherInterface_RowFollows) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Backplane1/9", 19);
  world.startAndDrain();
  takePublished();
  world.wires(1, 2, "Backplane1/9");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 19=(1,2) ]");
  EXPECT_EQ(takePublished(), "-10 +19 ");
}

TEST_F(IfTablePipeline, LinkMovesToAnInterfaceThatIsNoBackplane_RowGoes) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Ethernet4", 4);
  world.startAndDrain();
  world.wires(1, 2, "Ethernet4");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(IfTablePipeline, IndexMovesBetweenPairs_LaterPairKeepsIt) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(2, 1, "Backplane2/1");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  // The index goes to the other link before either is processed; the loser's withdrawal comes second.
  world.indexIs("Backplane2/1", 10);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(2,1) ]");
  traces.clear();
  world.indexDel("Backplane1/2");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(2,1) ]");
  EXPECT_TRUE(traces.contains(line(6, kNotOwned)));
}

TEST_F(IfTablePipeline, SubscriberThrowsWithinASlice_NoKeyIsLost) {
  world.startAndDrain();
  for (uint8_t remote = 2; remote < 5; ++remote) {
    world.wires(1, remote, fmt::format("Backplane1/{}", remote));
    world.indexIs(fmt::format("Backplane1/{}", remote), remote);
  }
  bool thrown = false;
  auto throwing = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    if (!std::exchange(thrown, true)) throw std::runtime_error("no");
  });
  EXPECT_THROW(world.scheduler.drain(), std::runtime_error);
  EXPECT_GT(world.sm->topoConfigStreamCodef().size() + world.sm->ifMibIfIndexStreamCodef().size(), 3U);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 2=(1,2) 3=(1,3) 4=(1,4) ]");
  EXPECT_TRUE(world.sm->idle());
}

TEST_F(IfTablePipeline, SubscriberThrowsWithinASynchronousEvent_TheKeyHasItsTurnAfterTheNext) {
  for (uint8_t remote = 2; remote < 4; ++remote) {
    world.wires(1, remote, fmt::format("Backplane1/{}", remote));
    world.indexIs(fmt::format("Backplane1/{}", remote), remote);
  }
  world.start(Rvx::Mode::synchronous);
  int throws = 1;
  auto throwing = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    if (throws-- > 0) throw std::runtime_error("no");
  });
  EXPECT_THROW(world.indexIs("Backplane1/2", 20), std::runtime_error);
  EXPECT_EQ(world.rows(), "[ 3=(1,3) ]");
  EXPECT_FALSE(world.sm->idle());
  world.indexIs("Backplane1/3", 30);
  EXPECT_EQ(world.rows(), "[ 20=(1,2) 30=(1,3) ]");
  EXPECT_TRUE(world.sm->idle());
  world.indexIs("Backplane1/2", 30);
  EXPECT_EQ(world.sm->conflicts().size(), 1U);
  world.indexDel("Backplane1/2");
  EXPECT_EQ(world.rows(), "[ 30=(1,3) ]");
  EXPECT_EQ(world.sm->conflicts().size(), 0U);
}

TEST_F(IfTablePipeline, IndexesSwapped_BothRowsStandAfterwards) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(1, 3, "Backplane1/3");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Backplane1/3", 11);
  world.startAndDrain();
  world.indexIs("Backplane1/2", 11);
  world.indexIs("Backplane1/3", 10);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,3) 11=(1,2) ]");
}

TEST_F(IfTablePipeline, OneInterfaceOfTwoLinks_BothPairsAreProcessedInWalkOrder) {
  world.wires(3, 1, "Backplane7");
  world.wires(1, 2, "Backplane7");
  world.startAndDrain();
  traces.clear();
  world.indexIs("Backplane7", 10);
  world.scheduler.drain();
  auto first = std::find(traces.lines().begin(), traces.lines().end(), line(7, merged(1, 2)));
  auto second = std::find(traces.lines().begin(), traces.lines().end(), line(7, merged(3, 1)));
  ASSERT_NE(first, traces.lines().end());
  ASSERT_NE(second, traces.lines().end());
  EXPECT_LT(first, second);
  EXPECT_EQ(world.rows(), "[ 10=(3,1) ]");
}

// A start looks at each link a few times, however many links there are.
uint64_t looksPerLink(uint8_t members, Rvx::Mode mode) {
  Lumalog::levelIs("TrelSnmpIfTableSm", 5);
  IfTableWorld world;
  uint32_t links = 0;
  for (uint8_t local = 1; local <= members; ++local) {
    for (uint8_t remote = 1; remote <= members; ++remote) {
      if (local == remote) continue;
      std::string intf = fmt::format("Backplane{}/{}", local, remote);
      world.wires(local, remote, intf);
      world.indexIs(intf, ++links);
    }
  }
  world.start(mode);
  world.scheduler.drain();
  EXPECT_EQ(world.mib->trelIfTable().size(), links);
  EXPECT_FALSE(world.sm->linksByInterface().current());
  return world.sm->linksByInterface().visited() / links;
}

TEST_F(IfTablePipeline, StartOverLinksAndIndexes_EveryLinkIsLookedAtOnce) {
  for (Rvx::Mode mode : {Rvx::Mode::asynchronous, Rvx::Mode::synchronous}) {
    EXPECT_EQ(looksPerLink(4, mode), 1U);
    EXPECT_EQ(looksPerLink(24, mode), 1U);
  }
}

TEST_F(IfTablePipeline, TopologyChangesBetweenTwoInterfacesOfABacklog_PairsAreThoseOfNow) {
  Lumalog::levelIs("TrelSnmpIfTableSm", 5);
  world.wires(1, 2, "Backplane1");
  world.wires(1, 3, "Backplane3");
  world.startAndDrain();
  world.sm->hasNotificationActiveIs(false);
  for (int i = 1; i <= 3; ++i) world.indexIs(fmt::format("Backplane{}", i), static_cast<uint32_t>(10 + i));
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.step();
  EXPECT_TRUE(world.sm->linksByInterface().current());
  EXPECT_EQ(world.rows(), "[ 11=(1,2) ]");
  world.wires(1, 3, "Backplane2");
  EXPECT_FALSE(world.sm->linksByInterface().current());
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 11=(1,2) 12=(1,3) ]");
}

TEST_F(IfTablePipeline, MemberLeaves_AllItsRowsGo) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(1, 3, "Backplane1/3");
  world.wires(2, 1, "Backplane2/1");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Backplane1/3", 11);
  world.indexIs("Backplane2/1", 20);
  world.startAndDrain();
  world.leaves(1);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 20=(2,1) ]");
}

TEST_F(IfTablePipeline, MemberReplacedAlike_RowsAreNotTouched) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  takePublished();
  auto replacement = Zavro::makePtr<Trel::TopoConfig>(Trel::MemberId(1));
  replacement->neighbor().set(Trel::MemberId(2), Lanix::IntfId("Backplane1/2"));
  world.topology->topoConfig().set(Trel::MemberId(1), replacement);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
  EXPECT_EQ(takePublished(), "");
}

TEST_F(IfTablePipeline, TopologyChange_GoldenTrace) {
  world.indexIs("Backplane1/2", 10);
  world.joins(1);
  world.startAndDrain();
  traces.clear();
  world.wires(1, 2, "Backplane1/2");
  EXPECT_EQ(traces.lines(), (Lines{line(8, "2")}));
  traces.clear();
  world.scheduler.drain();
  EXPECT_EQ(traces.lines(),
            (Lines{line(7, topoElement(1, 2)), line(7, merged(1, 2)),
                   line(8, "Inserting value 10 with key (firstId=1, secondId=2) into cache"),
                   line(6, kFlattening), line(6, kNoValue),
                   line(7, "into( trelMib.trelIfTable[ ifIndex ] ): inserting k1=10, value=(10, 1, 2)")}));
  traces.clear();
  world.unwires(1, 2);
  world.scheduler.drain();
  EXPECT_EQ(traces.lines(),
            (Lines{line(8, "2"), line(7, topoElement(1, 2)), line(7, merged(1, 2)),
                   line(8, "Got value 10 with key (firstId=1, secondId=2) from cache"),
                   line(8, "Deleting key (firstId=1, secondId=2) from cache"), line(6, kFlattening),
                   line(7, "into( trelMib.trelIfTable[ ifIndex ] ): deleting k1=10"), line(6, kNoValue)}));
}

TEST_F(IfTablePipeline, IndexChange_GoldenTrace) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(1, 3, "Backplane1/3");
  world.startAndDrain();
  traces.clear();
  world.indexIs("Backplane1/3", 11);
  world.indexIs("Ethernet1", 1);
  world.scheduler.drain();
  EXPECT_EQ(
      traces.lines(),
      (Lines{line(8, "Backplane1/3"), line(8, "Ethernet1"),
             line(7, "ifMibIfIndexStream = from( ifMib.ifIndexByIntfId[] ): intfId=Backplane1/3"),
             line(6, "foreach( topologyConfig.topoConfig ) flattening 1 elements"),
             line(6, "foreach( topoConfig.neighbor ) flattening 2 elements"),
             line(6, "filter( ( intfId == neighborIntfId ) ) failed, terminating pipeline"),
             line(7, merged(1, 3)), line(8, "Inserting value 11 with key (firstId=1, secondId=3) into cache"),
             line(6, kFlattening), line(6, kNoValue),
             line(7, "into( trelMib.trelIfTable[ ifIndex ] ): inserting k1=11, value=(11, 1, 3)"),
             line(7, "ifMibIfIndexStream = from( ifMib.ifIndexByIntfId[] ): intfId=Ethernet1"),
             line(6,
                  "filter( BackplaneChannelIntfId::isBackplaneChannelIntfId( intfId ) ) failed, terminating "
                  "pipeline")}));
}

TEST_F(IfTablePipeline, Synchronous_EverythingHappensAtOnce) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.start(Rvx::Mode::synchronous);
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
  EXPECT_TRUE(world.sm->ready());
  EXPECT_TRUE(world.sm->idle());
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
  const auto& stream = world.sm->topoConfigStreamCodef();
  EXPECT_GE(stream.generation(), 2U);
  EXPECT_TRUE(stream.caughtUp());
  world.indexIs("Backplane1/2", 12);
  EXPECT_EQ(world.rows(), "[ 12=(1,2) ]");
  world.leaves(1);
  EXPECT_EQ(world.rows(), "[ ]");
}

// What used to go wrong: between the old child's end and the new one's start nobody listened to the new

// topology.

TEST_F(IfTablePipeline, Restart_LiveRowsAreNeverMissingAndStaleOnesGo) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(2, 1, "Backplane2/1");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Backplane2/1", 20);
  world.mib->trelIfTableIs(10, 1, 2);
  world.mib->trelIfTableIs(15, 7, 8);
  world.mib->trelIfTableIs(20, 9, 9);
  takePublished();
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) 20=(2,1) ]");
  EXPECT_EQ(takePublished(), "-20 +20 -15 ");
}

// An index moves from pair to pair while a manager walks: no step of the walk may loop or report a key twice.

TEST_F(IfTablePipeline, MovingIndexes_DisturbNoWalk) {
  for (uint8_t remote = 2; remote < 12; ++remote) {
    world.wires(1, remote, fmt::format("Backplane1/{}", remote));
    world.indexIs(fmt::format("Backplane1/{}", remote), remote);
  }
  world.startAndDrain();
  for (uint32_t round = 0; round < 50; ++round) {
    auto walk = world.mib->trelIfTable().begin();
    std::vector<uint32_t> visited;
    for (uint32_t step = 0; walk; ++step) {
      visited.push_back(walk.key());
      world.indexIs(fmt::format("Backplane1/{}", 2 + (round + step) % 10), 2 + (round * 7 + step * 3) % 10);
      world.scheduler.step();
      walk.next();
    }
    EXPECT_TRUE(std::is_sorted(visited.begin(), visited.end(), std::less_equal<>())) << round;
    world.scheduler.drain();
  }
}

TEST_F(IfTablePipeline, AttributesAndOperations_AreReachedByName) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  EXPECT_EQ(world.sm->korType().name(), "TrelSnmp::Agent::TrelSnmpIfTableSm");
  const auto& topology = world.sm->topoConfigStreamCodef();
  const auto& indexes = world.sm->ifMibIfIndexStreamCodef();
  const std::map<std::string, std::string> expected = {
      {"name", "TrelSnmpIfTableSm"},
      {"synchronous", "false"},
      {"initialScanDone", "true"},
      {"ready", "true"},
      {"idle", "true"},
      {"topoConfigStreamScan", "true"},
      {"ifMibIfIndexStreamScan", "true"},
      {"topoConfigStreamCodefBacklog", "0"},
      {"ifMibIfIndexStreamCodefBacklog", "0"},
      {"topoConfigStreamCodefBookmark", "Optional( (local=1, remote=2) )"},
      {"ifMibIfIndexStreamCodefBookmark", "Optional( Backplane1/2 )"},
      {"topoConfigStreamCodefGeneration", std::to_string(topology.doneGen())},
      {"topoConfigStreamCodefDoneGen", std::to_string(topology.generation())},
      {"ifMibIfIndexStreamCodefGeneration", std::to_string(indexes.doneGen())},
      {"ifMibIfIndexStreamCodefDoneGen", std::to_string(indexes.generation())},
      {"topoConfigStreamIdle", "true"},
      {"ifMibIfIndexStreamIdle", "true"},
      {"topoConfigStreamTask", "TrelSnmpIfTableSm-topoConfigStreamTask"},
      {"ifMibIfIndexStreamTask", "TrelSnmpIfTableSm-ifMibIfIndexStreamTask"},
      {"trelMibTrelIfTableOutputReady", "true"},
      {"trelMibTrelIfTableOutputReconciling", "false"},
      {"trelMibTrelIfTableOutputSeen", "0"},
      {"trelMibTrelIfTableOutputReconciliationTask", "TrelSnmpIfTableSm-trelMibTrelIfTableOutputTask"},
  };
  for (const auto& [name, value] : expected) EXPECT_EQ(Kor::attribute(*world.sm, name), value) << name;
  EXPECT_THAT(operationNames(world.sm->korType()),
              testing::IsSupersetOf({"handleTopoConfigStreamCodefInputReady",
                                     "handleIfMibIfIndexStreamCodefInputReady",
                                     "handleTrelMibTrelIfTableOutputInputReady"}));
  uint64_t before = topology.doneGen();
  Kor::invoke(*world.sm, "handleTopoConfigStreamCodefInputReady");
  EXPECT_EQ(Kor::attribute(*world.sm, "topoConfigStreamCodefDoneGen"), std::to_string(before + 2));
}

TEST_F(IfTablePipeline, AttributesOfItsMachines_AreReadByName) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(1, 3, "Backplane1/3");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  ASSERT_EQ(world.sm->machines().size(), 2U);
  const Kor::Object& members = *world.sm->machines()[0];
  EXPECT_EQ(members.korType().name(), "TopologyConfigSm0");
  EXPECT_EQ(Kor::attribute(members, "childSmTopoConfig"), "1");
  EXPECT_EQ(Kor::attribute(members, "inputScanState0"), "2");
  using Members = RivoCode::TrelSnmpIfTableSm::TopologyConfigSm0;
  auto member = dynamic_cast<const Members&>(members).child(Trel::MemberId(1));
  ASSERT_NE(member, nullptr);
  EXPECT_EQ(member->korType().name(), "TopoConfigSm1");
  EXPECT_EQ(Kor::attribute(*member, "smKey"), "1");
  EXPECT_EQ(Kor::attribute(*member, "versionNeighbor"), "2");
  const Kor::Object& indexes = *world.sm->machines()[1];
  EXPECT_EQ(indexes.korType().name(), "IfMibSm2");
  EXPECT_EQ(Kor::attribute(indexes, "versionIfIndexByIntfId"), "1");
}

using IfTablePipelineDeath = IfTablePipeline;

TEST_F(IfTablePipelineDeath, NullArguments_EndTheProcess) {
  Rvx::SmControl control;
  control.scheduler = world.scheduler.get();
  EXPECT_DEATH(trelSnmpIfTableSmFactory(nullptr, nullptr, nullptr, control),
               "`topologyConfig\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
  EXPECT_DEATH(trelSnmpIfTableSmFactory(world.topology, nullptr, nullptr, control),
               "`ifMib\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
  EXPECT_DEATH(trelSnmpIfTableSmFactory(world.topology, world.ifMib, nullptr, control),
               "`trelMib\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
}

TEST_F(IfTablePipelineDeath, TopologyDeletedBeforeItsChangeWasHeardOf_EndsTheProcess) {
  auto earlier = world.joins(1).neighbor().subscribe([&](const Trel::MemberId&) { world.leaves(1); });
  world.startAndDrain();
  EXPECT_DEATH(world.wires(1, 2, "Backplane1/2"),
               "We missed notifications that happened to neighbor before the enclosing entity got deleted");
}

TEST_F(IfTablePipelineDeath, PipelineDeletedBeforeAnIndexChangeWasHeardOf_EndsTheProcess) {
  auto earlier = world.ifMib->ifIndexByIntfId().subscribe([&](const Lanix::IntfId&) { world.sm.reset(); });
  world.startAndDrain();
  EXPECT_DEATH(
      world.indexIs("Backplane1/2", 10),
      "We missed notifications that happened to ifIndexByIntfId before the enclosing entity got deleted");
}

}  // namespace
}  // namespace TrelSnmp::Agent
