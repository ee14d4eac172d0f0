// How a pipeline starts and scans, in tasks or at once: what it traces, when it yields and goes on, what
// comes and goes meanwhile, and when it is ready.
#include "tests/pipelines/PipelineFrameworkFixture.h"

namespace TrelSnmp::Agent {
namespace {

constexpr const char* kElement =
    "TrelSnmpReachabilityTableSm/7 reachabilityStatusStream = from( reachabilityDir.entityPtr< "
    "ReachabilityStatus "
    ">[].reachabilityStatus[] ): dirKey={} nbr={} reachabilityStateOpt={}";
constexpr const char* kInserting =
    "TrelSnmpReachabilityTableSm/7 into( trelMib.trelReachabilityTable[ key ] ): inserting k1={}, value={}";
constexpr const char* kDeleting =
    "TrelSnmpReachabilityTableSm/7 into( trelMib.trelReachabilityTable[ key ] ): deleting k1={}";

// The state record and the key as the traces show them.
const std::string kReachable = "(state=reachable, intf=None, lastChange=0)";

TEST_F(PipelineFramework, AsynchronousStart_GoldenTrace) {
  world.reports("1", 2, State::reachable);
  world.scheduler.neverYield();
  world.start();
  EXPECT_EQ(traces.lines(), (Lines{line(9, "Reconciling trelMibTrelReachabilityTableOutput: false"),
                                   line(9, "create local SMs"), line(9, "initialized")}));
  traces.clear();
  EXPECT_TRUE(world.scheduler.step());
  EXPECT_EQ(
      traces.lines(),
      (Lines{line(8, "1"), line(8, "2"), line(9, "EntityPtrSm1 initial scan, and parent scan, complete."),
             line(9, "ReachabilityDirSm0 initial scan, and parent scan, complete."),
             line(9, "Initial scan done for child SMs. Now scanning with events triggered.")}));
  traces.clear();
  EXPECT_TRUE(world.scheduler.step());
  EXPECT_EQ(traces.lines(), (Lines{line(8, "1"), line(8, "2"),
                                   fmt::format(kElement, "1", "2", "Optional( " + kReachable + " )"),
                                   fmt::format(kInserting, "(firstId=1, secondId=2)",
                                               "((firstId=1, secondId=2), " + kReachable + ", ifMib)"),
                                   line(9, "EntityPtrSm1 scan, and parent scan, complete."),
                                   line(9, "ReachabilityDirSm0 scan, and parent scan, complete."),
                                   line(9, "Input scans for trelMibTrelReachabilityTableOutput complete")}));
  EXPECT_FALSE(world.scheduler.step());
}

TEST_F(PipelineFramework, SynchronousStart_IsWholeWithinTheConstructor) {
  world.reports("1", 2, State::reachable);
  world.staleRow(4, 4, world.record(State::unknown));
  world.start(Rvx::Mode::synchronous);
  EXPECT_EQ(
      traces.lines(),
      (Lines{line(9, "Reconciling trelMibTrelReachabilityTableOutput: true"), line(9, "create local SMs"),
             line(8, "1"), line(8, "2"), line(9, "EntityPtrSm1 initial scan, and parent scan, complete."),
             line(9, "ReachabilityDirSm0 initial scan, and parent scan, complete."), line(9, "initialized"),
             line(9, "Initial scan done for child SMs. Now scanning with events triggered."), line(8, "1"),
             line(8, "2"), fmt::format(kElement, "1", "2", "Optional( " + kReachable + " )"),
             fmt::format(kInserting, "(firstId=1, secondId=2)",
                         "((firstId=1, secondId=2), " + kReachable + ", ifMib)"),
             line(9, "EntityPtrSm1 scan, and parent scan, complete."),
             line(9, "ReachabilityDirSm0 scan, and parent scan, complete."),
             line(9, "Input scans for trelMibTrelReachabilityTableOutput complete"),
             line(9,
                  "Deletion scan for reconciliation is done, last task run processed 2 items, deleting 1 "
                  "items."),
             line(9, " already ready, not reconciling.")}));
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
  EXPECT_TRUE(world.sm->ready());
  EXPECT_TRUE(world.sm->idle());
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
}

TEST_F(PipelineFramework, DeletedNeighbour_GoldenTrace) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  traces.clear();
  world.withdraws("1", 2);
  EXPECT_EQ(traces.lines(), (Lines{line(8, "2"), fmt::format(kElement, "1", "2", "None"),
                                   fmt::format(kDeleting, "(firstId=1, secondId=2)")}));
}

TEST_F(PipelineFramework, YieldAfterEveryItem_IsTracedAndReportedAsWork) {
  for (const char* key : {"1", "2", "3"}) world.joins(key);
  world.start();
  const Vem::Task* scan = world.scheduler.get()->tasks().back();
  ASSERT_EQ(scan->name(), "TrelSnmp::Agent::TrelSnmpReachabilityTableSm-ReachabilityDirSm0InputScanTask0");
  traces.clear();
  world.scheduler.step();
  EXPECT_EQ(traces.lines().back(),
            line(8,
                 "TrelSnmpReachabilityTableSm ReachabilityDirSm0 yielding after 1 iterations "
                 "(3 total items)"));
  EXPECT_EQ(scan->workCount(), 1U);
  EXPECT_EQ(scan->workPending(), 3U);
  EXPECT_EQ(Kor::attribute(*world.sm->machines()[0], "inputScanState0"), "1");
  EXPECT_EQ(Kor::attribute(*world.sm->machines()[0], "inputScanBookmark0"), "2");
}

TEST_F(PipelineFramework, YieldWithinAChild_ResumesAtItsNextElement) {
  for (uint8_t neighbour : std::initializer_list<uint8_t>{1, 2, 3})
    world.reports("7", neighbour, State::reachable);
  world.start();
  world.scheduler.step();
  EXPECT_TRUE(traces.contains(
      line(8, "TrelSnmpReachabilityTableSm EntityPtrSm1 yielding after 1 iterations (3 total items)")));
  traces.clear();
  world.scheduler.step();
  EXPECT_TRUE(traces.contains(line(8, "2")));
  EXPECT_FALSE(traces.contains(line(8, "1")));
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (7,1)=reachable (7,2)=reachable (7,3)=reachable ]");
}

TEST_F(PipelineFramework, RunThatMayGoOn_HandlesAtLeastOneItemAndThenAsManyAsItMay) {
  for (const char* key : {"1", "2", "3", "4", "5"}) world.joins(key);
  int asked = 0;
  world.scheduler.yieldWhen([&] { return ++asked % 3 == 0; });
  world.start();
  world.scheduler.step();
  EXPECT_EQ(traces.lines().back(),
            line(8,
                 "TrelSnmpReachabilityTableSm ReachabilityDirSm0 yielding after 3 iterations "
                 "(5 total items)"));
}

TEST_F(PipelineFramework, Tasks_HaveTheirNamesAndThePipelinesPriority) {
  auto control = world.control();
  control.priority = 17;
  world.sm = trelSnmpReachabilityTableSmFactory(world.dir, world.ifMib, world.mib, control);
  std::string names;
  for (const Vem::Task* task : world.scheduler.get()->tasks()) {
    names += fmt::format("{}@{}\n", task->name(), task->priority());
  }
  EXPECT_EQ(names,
            "TrelSnmpReachabilityTableSm-trelMibTrelReachabilityTableOutputTask@17\n"
            "TrelSnmp::Agent::TrelSnmpReachabilityTableSm-ReachabilityDirSm0InputScanTask0@17\n");
}

TEST_F(PipelineFramework,
       ScanTask_LivesUntilTheTriggeredScanEnds_ReconciliationTaskUntilTheDeletionScanDoes) {
  world.staleRow(1, 1, world.record(State::unknown));
  world.startAndDrain();
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
  EXPECT_EQ(Kor::attribute(*world.sm->machines()[0], "task0"), "None");
}

TEST_F(PipelineFramework, EventDuringTheInitialScan_IsIgnoredAndCoveredByTheNextScan) {
  world.reports("1", 2, State::reachable);
  world.start();
  traces.clear();
  world.reports("1", 2, State::degraded);
  EXPECT_TRUE(traces.lines().empty());
  EXPECT_EQ(world.rows(), "[ ]");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=degraded ]");
}

TEST_F(PipelineFramework, ReadyAndIdle_OnlyWhenAllIsWritten) {
  world.reports("1", 2, State::reachable);
  world.staleRow(4, 4, world.record(State::unknown));
  world.start();
  size_t readyAt = 0;
  auto onReady = world.sm->outputState().subscribe(
      [&](const std::string& field) { readyAt += field == "ready" ? 1 : 0; });
  world.scheduler.drain([&] {
    EXPECT_TRUE(!world.sm->ready() || world.rows() == "[ (1,2)=reachable ]") << world.rows();
    EXPECT_TRUE(!world.sm->idle() || world.sm->ready());
  });
  EXPECT_TRUE(world.sm->ready());
  EXPECT_TRUE(world.sm->idle());
  EXPECT_EQ(readyAt, 1U);
}

TEST_F(PipelineFramework, NoMembersAtAll_IsReadyToo) {
  world.startAndDrain();
  EXPECT_TRUE(world.sm->ready());
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(PipelineFramework, EntryRemovedWhileItsChildIsMidScan_ItsRowsGoAndTheScanGoesOn) {
  for (uint8_t neighbour : std::initializer_list<uint8_t>{1, 2, 3})
    world.reports("1", neighbour, State::reachable);
  world.reports("2", 1, State::reachable);
  world.start();
  while (world.rows() == "[ ]") ASSERT_TRUE(world.scheduler.step());
  ASSERT_EQ(world.rows(), "[ (1,1)=reachable ]");
  world.leaves("1");
  EXPECT_EQ(world.rows(), "[ ]");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (2,1)=reachable ]");
  EXPECT_TRUE(world.sm->ready());
}

TEST_F(PipelineFramework, EntryAddedBehindTheBookmark_IsScannedAllTheSame) {
  for (const char* key : {"5", "6", "7"}) world.reports(key, 1, State::reachable);
  world.start();
  while (world.rows() == "[ ]") ASSERT_TRUE(world.scheduler.step());
  auto early = Zavro::makePtr<Trel::ReachabilityStatus>("1");
  early->reachabilityStatus().set(Trel::MemberId(4), world.record(State::degraded));
  world.dir->entityPtrIs(early);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,4)=degraded (5,1)=reachable (6,1)=reachable (7,1)=reachable ]");
}

TEST_F(PipelineFramework, EntityThatVanishesBeforeItsFirstScan_IsNoMissedNotification) {
  world.reports("1", 2, State::reachable);
  world.reports("2", 1, State::reachable);
  world.start();
  while (world.rows() == "[ ]") ASSERT_TRUE(world.scheduler.step());
  auto late = Zavro::makePtr<Trel::ReachabilityStatus>("9");
  for (uint8_t n = 0; n < 3; ++n)
    late->reachabilityStatus().set(Trel::MemberId(n), world.record(State::reachable));
  world.dir->entityPtrIs(late);
  world.leaves("9");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (2,1)=reachable ]");
}

TEST_F(PipelineFramework, Deletion_IsTracedBeforeItHappens) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  std::string last;
  auto subscription =
      world.mib->publisher().subscribe([&](const TrelMib::Change&) { last = traces.lines().back(); });
  world.withdraws("1", 2);
  EXPECT_EQ(last, fmt::format(kDeleting, "(firstId=1, secondId=2)"));
}

TEST_F(PipelineFramework, NoSchedulerGiven_ProcessSchedulerIsUsed) {
  Vem::TaskSchedulerRoot::schedulerIs(world.scheduler.get());
  world.reports("1", 2, State::reachable);
  world.sm = trelSnmpReachabilityTableSmFactory(world.dir, world.ifMib, world.mib, Rvx::SmControl());
  EXPECT_EQ(world.scheduler.get()->tasks().size(), 2U);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
  Vem::TaskSchedulerRoot::schedulerIs(nullptr);
}

TEST_F(PipelineFramework, SynchronousPipeline_AsksForNoScheduler) {
  Vem::TaskSchedulerRoot::schedulerIs(world.scheduler.get());
  auto before = world.scheduler.get()->useCount();
  Rvx::SmControl control;
  control.mode = Rvx::Mode::synchronous;
  world.sm = trelSnmpReachabilityTableSmFactory(world.dir, world.ifMib, world.mib, control);
  EXPECT_EQ(world.scheduler.get()->useCount(), before);
  Vem::TaskSchedulerRoot::schedulerIs(nullptr);
}

TEST_F(PipelineFramework, AsynchronousModeByNumberTwo_UsesTasks) {
  world.start(Rvx::Mode::asynchronous);
  EXPECT_FALSE(world.sm->synchronous());
  EXPECT_EQ(world.scheduler.get()->tasks().size(), 2U);
}

}  // namespace
}  // namespace TrelSnmp::Agent
