// Coalescing streams, shown on the backplane interface pipeline: what is noted, when it is worked off, and
// what the pipeline says of it meanwhile.
#include "tests/pipelines/IfTableFixture.h"

namespace TrelSnmp::Agent {
namespace {

using Backlogs = IfTablePipeline;

TEST_F(Backlogs, ManyChangesOfOneLink_AreProcessedOnce) {
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

TEST_F(Backlogs, BacklogIsWorkedOffInSlices_AndReportsWhatIsLeft) {
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

TEST_F(Backlogs, KeyThatKeepsChanging_LetsTheOthersHaveTheirTurn) {
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

TEST_F(Backlogs, InitialScan_WaitsForBothStreams) {
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

TEST_F(Backlogs, Generations_StepInTwosAndMeet) {
  world.wires(1, 2, "Backplane1/2");
  world.start();
  const auto& stream = world.sm->topoConfigStreamCodef();
  std::string fields;
  auto progress = world.sm->inputSmScanState().subscribe([&](const std::string& field) {
    if (field.starts_with("topoConfigStream")) fields += field.substr(16) + " ";
  });
  EXPECT_EQ(stream.doneGen(), 0U);
  EXPECT_FALSE(stream.idle());
  world.scheduler.drain();
  EXPECT_GE(stream.generation(), 2U);
  EXPECT_EQ(stream.generation() % 2, 0U);
  EXPECT_EQ(stream.generation(), stream.doneGen());
  EXPECT_TRUE(stream.idle());
  EXPECT_EQ(fields, "Scan Scan Idle Idle Scan CodefDoneGen Idle CodefGeneration ");
  EXPECT_TRUE(world.sm->ifMibIfIndexStreamCodef().caughtUp());
}

TEST_F(Backlogs, GenerationsStandStill_UntilTheInitialScanIsDone) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.start();
  auto atStart = [](const BacklogBase& stream) {
    return stream.doneGen() == 0 && stream.generation() == 0 && !stream.idle();
  };
  size_t slices = 0;
  while (!world.sm->initialScanDone()) {
    EXPECT_TRUE(atStart(world.sm->topoConfigStreamCodef()));
    EXPECT_TRUE(atStart(world.sm->ifMibIfIndexStreamCodef()));
    ASSERT_TRUE(world.scheduler.step());
    ++slices;
  }
  EXPECT_GT(slices, 1U);
  EXPECT_TRUE(atStart(world.sm->topoConfigStreamCodef()));
}

TEST_F(Backlogs, InputReadyAgain_AnnouncesADoneGenerationOnce) {
  world.startAndDrain();
  const auto& stream = world.sm->topoConfigStreamCodef();
  uint64_t generation = stream.generation();
  size_t announced = 0;
  auto progress = world.sm->inputSmScanState().subscribe([&](const std::string&) { ++announced; });
  Kor::invoke(*world.sm, "handleTopoConfigStreamCodefInputReady");
  Kor::invoke(*world.sm, "handleTopoConfigStreamCodefInputReady");
  EXPECT_EQ(stream.doneGen(), generation + 2);
  EXPECT_EQ(announced, 1U);
  world.scheduler.drain();
  EXPECT_EQ(stream.generation(), generation + 2);
}

TEST_F(Backlogs, ReadyOnlyWhenBothBacklogsAreWorkedOff) {
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

TEST_F(Backlogs, Tasks_HaveTheirNames) {
  world.start();
  std::set<std::string> names;
  for (const Vem::Task* task : world.scheduler.get()->tasks()) names.insert(task->name());
  EXPECT_EQ(names, (std::set<std::string>{
                       "TrelSnmp::Agent::TrelSnmpIfTableSm-IfMibSm2InputScanTask1",
                       "TrelSnmp::Agent::TrelSnmpIfTableSm-TopologyConfigSm0InputScanTask0",
                       "TrelSnmpIfTableSm-ifMibIfIndexStreamTask", "TrelSnmpIfTableSm-topoConfigStreamTask",
                       "TrelSnmpIfTableSm-trelMibTrelIfTableOutputTask"}));
}

TEST_F(Backlogs, DroppedWithABacklog_EndsCleanly) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.startAndDrain();
  world.indexIs("Backplane1/2", 12);
  world.sm.reset();
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_FALSE(world.scheduler.step());
  EXPECT_EQ(world.topology->useCount(), 1U);
  EXPECT_EQ(world.ifMib->useCount(), 1U);
  EXPECT_EQ(world.ifMib->ifIndexByIntfId().subscribers(), 0U);
}

TEST_F(Backlogs, InactivePipeline_LetsItsBacklogRest) {
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

TEST_F(Backlogs, InactivePipeline_LetsChangedLinksRest) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Backplane1/3", 20);
  world.startAndDrain();
  world.wires(1, 2, "Backplane1/3");
  world.sm->hasNotificationActiveIs(false);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 20=(1,2) ]");
}

TEST_F(Backlogs, TaskHeldBySomebody_DoesNothingOnceThePipelineIsGone) {
  world.startAndDrain();
  Zavro::Ptr<Vem::Task> task = world.sm->topoConfigStreamCodef().task();
  world.sm.reset();
  task->scheduleTask();
  EXPECT_FALSE(world.scheduler.step());
}

// What used to go wrong: the task's run was used up while the pipeline was inactive, and it was never ready.
TEST_F(Backlogs, TaskRanWhileInactive_PipelineStillBecomesReady) {
  world.mib->trelIfTableIs(15, 7, 8);
  world.start();
  while (world.sm->topoConfigStreamCodef().doneGen() == 0) ASSERT_TRUE(world.scheduler.step());
  world.sm->hasNotificationActiveIs(false);
  world.scheduler.drain();
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_TRUE(world.sm->ready());
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(Backlogs, SynchronousPipelineDropped_ItsRowsGoWithoutAnyBeingWritten) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(2, 1, "Backplane2/1");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Backplane2/1", 10);
  world.start(Rvx::Mode::synchronous);
  takePublished();
  world.sm.reset();
  EXPECT_EQ(takePublished(), "-10 ");
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(Backlogs, SubscriberThrowsDuringConstruction_ExceptionLeavesAndTheProcessLives) {
  world.wires(1, 2, "Backplane1/2");
  world.indexIs("Backplane1/2", 10);
  auto throwing =
      world.mib->publisher().subscribe([](const TrelMib::Change&) { throw std::runtime_error("no"); });
  EXPECT_THROW(world.makePipeline(Rvx::Mode::synchronous), std::runtime_error);
  EXPECT_EQ(world.topology->topoConfig().subscribers(), 0U);
}

}  // namespace
}  // namespace TrelSnmp::Agent
