// What the backplane interface table holds as links and interface indexes come, move and go.
#include <gtest/gtest.h>

#include "IfTableWorld.h"
#include "support/TraceLog.h"

namespace TrelSnmp::Agent {
namespace {

using Lines = std::vector<std::string>;

std::string line(int level, const std::string& text) {
  return fmt::format("TrelSnmpIfTableSm/{} {}", level, text);
}

const std::string kFlattening =
    "foreach( [ ( if ( _oldValueOpt6 != _newValueOpt7 ) then _oldValueOpt6 else None, false ), ( "
    "_newValueOpt7, true "
    ") ] ) flattening 2 elements";
const std::string kNoValue = "filter( _valueOpt8 ) failed, terminating pipeline";
const std::string kNotOwned =
    "filter( ( doInsert || ( ( old && ( ( *old ).localMemberId == U32( localMemberId.id ) ) ) && ( ( *old "
    ").remoteMemberId == U32( remoteMemberId.id ) ) ) ) ) failed, terminating pipeline";

std::string topoElement(int local, int remote) {
  return fmt::format(
      "topoConfigStream = from( topologyConfig.topoConfig[].neighbor[] ): localMemberId={} "
      "remoteMemberId={}",
      local, remote);
}
std::string merged(int local, int remote) {
  return fmt::format(
      "trelIfTableStream = merge( topoConfigStream, ifMibIfIndexStream ): localMemberId={} "
      "remoteMemberId={}",
      local, remote);
}

class IfTablePipeline : public testing::Test {
 protected:
  void SetUp() override {
    subscription = world.mib->publisher().subscribe([this](const TrelMib::Change& change) {
      published += fmt::format("{}{} ", change.entry ? '+' : '-', std::get<uint32_t>(change.key));
    });
  }
  // What was published since the last call.
  std::string takePublished() { return std::exchange(published, ""); }

  TraceLog traces{"TrelSnmpIfTableSm"};
  IfTableWorld world;
  std::string published;
  Kor::Subscription subscription;
};

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

TEST_F(IfTablePipeline, ManyChangesOfOneLink_AreProcessedOnce) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  traces.clear();
  uint64_t workBefore = world.sm->topoConfigStreamCodef().task()->workCount();
  for (int i = 0; i < 1000; ++i) world.wires(1, 2, i % 2 != 0 ? "Backplane1/2" : "Backplane1/8");
  EXPECT_EQ(world.sm->topoConfigStreamCodef().size(), 1U);
  world.scheduler.drain();
  EXPECT_EQ(traces.count(line(7, topoElement(1, 2))), 1U);
  EXPECT_EQ(world.sm->topoConfigStreamCodef().task()->workCount(), workBefore + 1);
  EXPECT_EQ(world.sm->topoConfigStreamCodef().task()->workPending(), 0U);
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
}

TEST_F(IfTablePipeline, BacklogIsWorkedOffInSlices_AndReportsWhatIsLeft) {
  world.joins(1);
  world.startAndDrain();
  for (uint8_t remote = 2; remote < 6; ++remote) world.wires(1, remote, "Backplane1/2");
  const auto& task = world.sm->topoConfigStreamCodef().task();
  uint64_t workBefore = task->workCount();
  EXPECT_FALSE(world.sm->idle());
  ASSERT_TRUE(world.scheduler.step());
  EXPECT_EQ(task->workCount(), workBefore + 1);
  EXPECT_EQ(task->workPending(), 3U);
  EXPECT_EQ(Kor::attribute(*world.sm, "topoConfigStreamCodefBookmark"), "Optional( (local=1, remote=2) )");
  EXPECT_FALSE(world.sm->topoConfigStreamCodef().idle());
  world.scheduler.drain();
  EXPECT_EQ(task->workCount(), workBefore + 4);
  EXPECT_TRUE(world.sm->topoConfigStreamCodef().idle());
  EXPECT_TRUE(world.sm->idle());
}

TEST_F(IfTablePipeline, KeyThatKeepsChanging_LetsTheOthersHaveTheirTurn) {
  world.joins(1);
  world.startAndDrain();
  for (uint8_t remote = 2; remote < 6; ++remote) world.wires(1, remote, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  for (int i = 0; i < 8; ++i) {
    world.wires(1, 2, "Backplane1/2");
    world.scheduler.step();
  }
  EXPECT_LE(world.sm->topoConfigStreamCodef().size(), 1U);
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

TEST_F(IfTablePipeline, InitialScan_WaitsForBothStreams) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.start();
  traces.clear();
  ASSERT_TRUE(world.scheduler.step());
  EXPECT_EQ(
      traces.lines(),
      (Lines{line(8, "1"), line(8, "2"), line(9, "TopoConfigSm1 initial scan, and parent scan, complete."),
             line(9, "TopologyConfigSm0 initial scan, and parent scan, complete."),
             line(9, "handleTopoConfigStreamCodefInputReady"),
             line(9, "Inputs for topoConfigStreamCodef ready"), line(9, " ifMibIfIndexStream scan is false"),
             line(9, "Initial scan yielding for child SM TrelSnmpIfTableSm.")}));
  EXPECT_FALSE(world.sm->initialScanDone());
  traces.clear();
  ASSERT_TRUE(world.scheduler.step());
  EXPECT_TRUE(world.sm->initialScanDone());
  EXPECT_TRUE(
      traces.contains(line(9, "Initial scan done for child SMs. Now scanning with events triggered.")));
  EXPECT_EQ(world.rows(), "[ ]");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
  EXPECT_TRUE(traces.contains(line(9, "Inputs for ifMibIfIndexStreamCodef ready")));
}

TEST_F(IfTablePipeline, Generations_StepInTwosAndMeet) {
  world.wires(1, 2, "Backplane1/2");
  world.start();
  const auto& stream = world.sm->topoConfigStreamCodef();
  size_t announced = 0;
  auto progress = stream.subscribeProgress([&] { ++announced; });
  EXPECT_EQ(stream.doneGen(), 0U);
  EXPECT_FALSE(stream.idle());
  world.scheduler.drain();
  EXPECT_GE(stream.generation(), 2U);
  EXPECT_EQ(stream.generation() % 2, 0U);
  EXPECT_EQ(stream.generation(), stream.doneGen());
  EXPECT_TRUE(stream.idle());
  EXPECT_GE(announced, 3U);
  EXPECT_TRUE(world.sm->ifMibIfIndexStreamCodef().caughtUp());
}

TEST_F(IfTablePipeline, InputReadyAgain_AnnouncesADoneGenerationOnce) {
  world.startAndDrain();
  const auto& stream = world.sm->topoConfigStreamCodef();
  uint64_t generation = stream.generation();
  size_t announced = 0;
  auto progress = stream.subscribeProgress([&] { ++announced; });
  Kor::invoke(*world.sm, "handleTopoConfigStreamCodefInputReady");
  Kor::invoke(*world.sm, "handleTopoConfigStreamCodefInputReady");
  EXPECT_EQ(stream.doneGen(), generation + 2);
  EXPECT_EQ(announced, 1U);
  world.scheduler.drain();
  EXPECT_EQ(stream.generation(), generation + 2);
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

TEST_F(IfTablePipeline, Synchronous_ChangeInsideItsOwnWrite_NewerIndexStands) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.start(Rvx::Mode::synchronous);
  bool nested = false;
  auto inside = world.mib->publisher().subscribe([&](const TrelMib::Change& change) {
    if (change.entry || std::exchange(nested, true)) return;
    world.indexIs("Backplane1/2", 14);
  });
  world.indexIs("Backplane1/2", 12);
  EXPECT_TRUE(nested);
  EXPECT_EQ(world.rows(), "[ 14=(1,2) ]");
  EXPECT_EQ(world.sm->cacheAttr0().at({1, 2}), 14U);
}

// What used to go wrong: between the old child's end and the new one's start nobody listened to the new
// topology.
TEST_F(IfTablePipeline, Synchronous_ReplacedTopologyChangesWhileOldPairsAreWithdrawn_NothingIsMissed) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.start(Rvx::Mode::synchronous);
  int writes = 0;
  auto inside = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    if (++writes == 1)
      world.topology->topoConfig().set(Trel::MemberId(1), [] {
        auto replacement = Zavro::makePtr<Trel::TopoConfig>(Trel::MemberId(1));
        replacement->neighbor().set(Trel::MemberId(2), Lanix::IntfId("Backplane1/2"));
        return replacement;
      }());
    if (writes == 2) world.unwires(1, 2);
  });
  world.indexIs("Backplane1/2", 12);
  EXPECT_GE(writes, 2);
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_TRUE(world.sm->cacheAttr0().empty());
}

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

TEST_F(IfTablePipeline, ReadyOnlyWhenBothBacklogsAreWorkedOff) {
  world.mib->trelIfTableIs(10, 1, 2);
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.start();
  world.scheduler.drain([&] {
    bool caughtUp =
        world.sm->topoConfigStreamCodef().caughtUp() && world.sm->ifMibIfIndexStreamCodef().caughtUp();
    EXPECT_TRUE(!world.sm->ready() || caughtUp);
    EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
  });
  EXPECT_TRUE(world.sm->ready());
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

TEST_F(IfTablePipeline, Tasks_HaveTheirNames) {
  world.start();
  std::set<std::string> names;
  for (const Vem::Task* task : world.scheduler.get()->tasks()) names.insert(task->name());
  EXPECT_EQ(names, (std::set<std::string>{
                       "TrelSnmp::Agent::TrelSnmpIfTableSm-IfMibSm2InputScanTask1",
                       "TrelSnmp::Agent::TrelSnmpIfTableSm-TopologyConfigSm0InputScanTask0",
                       "TrelSnmpIfTableSm-ifMibIfIndexStreamTask", "TrelSnmpIfTableSm-topoConfigStreamTask",
                       "TrelSnmpIfTableSm-trelMibTrelIfTableOutputTask"}));
}

TEST_F(IfTablePipeline, DroppedWithABacklog_EndsCleanly) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  world.indexIs("Backplane1/2", 12);
  world.sm.reset();
  EXPECT_FALSE(world.scheduler.step());
  EXPECT_EQ(world.topology->useCount(), 1U);
  EXPECT_EQ(world.ifMib->useCount(), 1U);
  EXPECT_EQ(world.ifMib->ifIndexByIntfId().subscribers(), 0U);
}

TEST_F(IfTablePipeline, InactivePipeline_LetsItsBacklogRest) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  world.indexIs("Backplane1/2", 12);
  world.sm->hasNotificationActiveIs(false);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
  world.indexIs("Backplane1/2", 14);
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 14=(1,2) ]");
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
