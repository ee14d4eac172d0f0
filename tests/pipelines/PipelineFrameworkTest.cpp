// The mechanics that all pipelines share, shown on the reachability pipeline: start, scans in slices, the
// initial scan, reconciliation, run control, type information, and what ends the process.
#include <gtest/gtest.h>

#include "ReachabilityWorld.h"
#include "support/TraceLog.h"

namespace TrelSnmp::Agent {
namespace {

using State = Trel::ReachabilityState;
using testing::ExitedWithCode;
using Lines = std::vector<std::string>;

constexpr const char* kSm = "TrelSnmpReachabilityTableSm";
constexpr const char* kElement =
    "TrelSnmpReachabilityTableSm/7 reachabilityStatusStream = from( reachabilityDir.entityPtr< "
    "ReachabilityStatus "
    ">[].reachabilityStatus[] ): dirKey={} nbr={} reachabilityStateOpt={}";
constexpr const char* kInserting =
    "TrelSnmpReachabilityTableSm/7 into( trelMib.trelReachabilityTable[ key ] ): inserting k1={}, value={}";
constexpr const char* kDeleting =
    "TrelSnmpReachabilityTableSm/7 into( trelMib.trelReachabilityTable[ key ] ): deleting k1={}";

std::string line(int level, const std::string& text) { return fmt::format("{}/{} {}", kSm, level, text); }

class PipelineFramework : public testing::Test {
 protected:
  TraceLog traces{kSm};
  ReachabilityWorld world;
};

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
  auto onReady = world.sm->outputState().subscribeReady([&] { ++readyAt; });
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

TEST_F(PipelineFramework, EmptyTableAtStart_NothingIsReconciled) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  for (const std::string& l : traces.lines()) {
    EXPECT_EQ(l.find("Deletion scan"), std::string::npos) << l;
    EXPECT_EQ(l.find("reconciliation processing"), std::string::npos) << l;
  }
  EXPECT_EQ(Kor::attribute(*world.sm, "trelMibTrelReachabilityTableOutputSeen"), "0");
}

TEST_F(PipelineFramework, Reconciliation_YieldsWithABookmarkAndCountsItsWork) {
  for (uint32_t i = 1; i <= 3; ++i) world.staleRow(i, 9, world.record(State::unknown));
  world.reports("2", 9, State::reachable);
  world.start();
  auto task = world.sm->trelMibTrelReachabilityTableOutput().reconciliationTask();
  ASSERT_NE(task, nullptr);
  world.scheduler.drain();
  // The first row is handled on the scan's task, which then hands over to the reconciliation's own.
  size_t yields = traces.count(
      line(9, "Yielding in reconciliation processing after processing 1 items, including 1 deletions ."));
  EXPECT_EQ(yields, 1U);
  EXPECT_EQ(
      traces.count(
          line(9, "Yielding in reconciliation processing after processing 1 items, including 0 deletions .")),
      1U);
  EXPECT_TRUE(traces.contains(line(
      9, "Deletion scan for reconciliation is done, last task run processed 1 items, deleting 1 items.")));
  EXPECT_EQ(task->workCount(), 3U);
  EXPECT_EQ(world.rows(), "[ (2,9)=reachable ]");
  EXPECT_EQ(world.sm->trelMibTrelReachabilityTableOutput().bookmark(), std::nullopt);
  EXPECT_FALSE(world.sm->trelMibTrelReachabilityTableOutput().useBookmark());
}

TEST_F(PipelineFramework, BookmarkedRowDeletedMeanwhile_ReconciliationGoesOnBehindIt) {
  for (uint32_t i = 1; i <= 4; ++i) world.staleRow(i, 9, world.record(State::unknown));
  world.start();
  const auto& output = world.sm->trelMibTrelReachabilityTableOutput();
  while (!output.useBookmark()) ASSERT_TRUE(world.scheduler.step());
  ASSERT_EQ(output.bookmark(), MemberIdPair(2, 9));
  world.mib->trelReachabilityTableDel(MemberIdPair(2, 9));
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_TRUE(world.sm->ready());
}

TEST_F(PipelineFramework, RowWithdrawnWhileReconciling_StaysAway) {
  world.staleRow(5, 6, world.record(State::unknown));
  world.staleRow(1, 9, world.record(State::unknown));
  world.reports("5", 6, State::reachable);
  world.start();
  const auto& output = world.sm->trelMibTrelReachabilityTableOutput();
  while (!output.useBookmark()) ASSERT_TRUE(world.scheduler.step());
  world.withdraws("5", 6);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(PipelineFramework, SurvivingRowWithTheSameRecord_IsNeverTouched) {
  auto record = world.record(State::reachable);
  world.staleRow(1, 2, record);
  world.reports("1", 2, record);
  auto row = world.mib->trelReachabilityTable({1, 2});
  size_t published = 0;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change&) { ++published; });
  world.startAndDrain();
  EXPECT_EQ(published, 0U);
  EXPECT_EQ(world.mib->trelReachabilityTable({1, 2}), row);
}

TEST_F(PipelineFramework, SeenKeys_AreForgottenOnceReconciled) {
  world.staleRow(1, 2, world.record(State::unknown));
  world.reports("1", 2, State::reachable);
  world.start();
  const auto& output = world.sm->trelMibTrelReachabilityTableOutput();
  bool filled = false;
  world.scheduler.drain([&] { filled = filled || output.seenSize() > 0; });
  EXPECT_EQ(output.seenSize(), 0U);
  world.reports("1", 3, State::reachable);
  EXPECT_EQ(output.seenSize(), 0U);
  EXPECT_FALSE(output.reconciling());
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

TEST_F(PipelineFramework, ChangeInsideItsOwnWrite_NewerValueStands) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  bool nested = false;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change& change) {
    if (change.entry || std::exchange(nested, true)) return;
    world.reports("1", 2, State::disabled);
  });
  world.reports("1", 2, State::unreachable);
  EXPECT_TRUE(nested);
  EXPECT_EQ(world.rows(), "[ (1,2)=disabled ]");
}

TEST_F(PipelineFramework, EntityReplacedInsideItsOwnDeletion_LastOneStands) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  world.startAndDrain();
  bool nested = false;
  auto last = Zavro::makePtr<Trel::ReachabilityStatus>("1");
  last->reachabilityStatus().set(Trel::MemberId(2), world.record(State::initializing));
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change& change) {
    if (change.entry || std::exchange(nested, true)) return;
    world.dir->entityPtrIs(last);
  });
  world.leaves("1");
  EXPECT_EQ(world.rows(), "[ (1,2)=initializing ]");
}

TEST_F(PipelineFramework, EntityReplacedAgainWhileItsRowsGo_TheOneBetweenNeverHasRows) {
  world.reports("1", 2, State::reachable);
  world.start(Rvx::Mode::synchronous);
  auto between = Zavro::makePtr<Trel::ReachabilityStatus>("1");
  between->reachabilityStatus().set(Trel::MemberId(5), world.record(State::reachable));
  auto last = Zavro::makePtr<Trel::ReachabilityStatus>("1");
  last->reachabilityStatus().set(Trel::MemberId(2), world.record(State::initializing));
  std::string published;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change& change) {
    published += fmt::format("{}{} ", change.entry ? '+' : '-', std::get<MemberIdPair>(change.key).text());
    if (!change.entry) world.dir->entityPtrIs(last);
  });
  world.dir->entityPtrIs(between);
  EXPECT_EQ(published, "-(firstId=1, secondId=2) +(firstId=1, secondId=2) ");
  EXPECT_EQ(world.rows(), "[ (1,2)=initializing ]");
}

TEST_F(PipelineFramework, DroppedInsideItsOwnWrite_EndsCleanly) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  world.start();
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change&) { world.sm.reset(); });
  world.scheduler.drain();
  EXPECT_EQ(world.sm, nullptr);
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
}

TEST_F(PipelineFramework, MachineHeldBySomebody_ListensNoLongerOnceThePipelineIsGone) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  Zavro::Ptr<TopMachine> held = world.sm->machines()[0];
  world.sm.reset();
  EXPECT_EQ(world.dir->entities().subscribers(), 0U);
  world.reports("1", 3, State::reachable);
  world.leaves("1");
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(PipelineFramework, DroppedByWhatAnOperationByNameLedTo_EndsCleanly) {
  const std::vector<std::pair<bool, const char*>> operations = {
      {false, "doDeleteAll"}, {true, "doDeleteAll"}, {false, "doInputScan0"}};
  for (auto [ofChild, operation] : operations) {
    SCOPED_TRACE(fmt::format("{} of {}", operation, ofChild ? "a child" : "the machine"));
    world.reports("1", 2, State::reachable);
    world.reports("1", 3, State::reachable);
    world.start();
    while (!world.sm->initialScanDone() || world.rows() == "[ ]") ASSERT_TRUE(world.scheduler.step());
    Zavro::Ptr<TopMachine> machine = world.sm->machines()[0];
    auto child =
        dynamic_cast<RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0&>(*machine).child("1");
    auto dropping = world.mib->publisher().subscribe([&](const TrelMib::Change&) { world.sm.reset(); });
    Kor::invoke(ofChild ? static_cast<Kor::Object&>(*child) : *machine, operation);
    EXPECT_EQ(world.sm, nullptr);
    EXPECT_EQ(world.rows(), "[ ]");
  }
}

TEST_F(PipelineFramework, ScanAskedForByNameWhileItRuns_IsNotTakenForComplete) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  world.start();
  std::string scanned;
  auto asking = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    Kor::invoke(*world.sm->machines()[0], "doInputScan0");
    scanned += Kor::attribute(*world.sm, "reachabilityStatusStreamScan") + " ";
  });
  world.scheduler.drain();
  EXPECT_EQ(scanned, "false false ");
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,3)=reachable ]");
  EXPECT_TRUE(world.sm->ready());
}

TEST_F(PipelineFramework, TaskHeldBySomebody_DoesNothingOnceThePipelineIsGone) {
  world.reports("1", 2, State::reachable);
  world.staleRow(3, 4, world.record(State::reachable));
  world.start();
  using DirSm = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  Zavro::Ptr<Vem::Task> scan = dynamic_cast<DirSm&>(*world.sm->machines()[0]).task(0);
  ASSERT_NE(scan, nullptr);
  world.sm.reset();
  scan->scheduleTask();
  EXPECT_FALSE(world.scheduler.step());
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

TEST_F(PipelineFramework, IdleByName_IsDerivedAnewWhileThePipelineLives) {
  world.startAndDrain();
  Zavro::Ptr<InputSmScanState> state(&world.sm->inputSmScanState());
  state->idleIs(false);
  EXPECT_EQ(Kor::attribute(*state, "idle"), "false");
  Kor::invoke(*state, "handleIdle");
  EXPECT_EQ(Kor::attribute(*state, "idle"), "true");
  world.sm.reset();
  state->idleIs(false);
  Kor::invoke(*state, "handleIdle");
  EXPECT_EQ(Kor::attribute(*state, "idle"), "false");
}

TEST_F(PipelineFramework, SubscriberThrowsDuringConstruction_RowsStay) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  auto throwing = world.mib->publisher().subscribe([](const TrelMib::Change& change) {
    if (std::get<MemberIdPair>(change.key).secondId() == 3) throw std::runtime_error("no");
  });
  EXPECT_THROW(world.makePipeline(Rvx::Mode::synchronous), std::runtime_error);
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,3)=reachable ]");
}

TEST(FlagsTest, SameValueAgain_NotifiesNobody) {
  Flags flags({"first", "second"});
  int notified = 0;
  auto subscription = flags.subscribe([&] { ++notified; });
  flags.set(1, false);
  EXPECT_EQ(notified, 0);
  flags.set(1, true);
  flags.set(1, true);
  EXPECT_EQ(notified, 1);
  flags.clear();
  flags.clear();
  EXPECT_EQ(notified, 2);
}

TEST(NamesTest, Capitalised_IsAFirstLetterFromAToZ) {
  EXPECT_EQ(capitalised(""), "");
  EXPECT_EQ(capitalised("apple"), "Apple");
  EXPECT_EQ(capitalised("zone"), "Zone");
  EXPECT_EQ(capitalised("Zone"), "Zone");
  EXPECT_EQ(capitalised("`{"), "`{");
  EXPECT_EQ(capitalised("{`"), "{`");
}

TEST_F(PipelineFramework, InitialScanDoneTooEarly_SaysWhatIsMissingAndWaits) {
  world.reports("1", 2, State::reachable);
  world.start();
  traces.clear();
  Kor::invoke(*world.sm, "handleInitialScanDone");
  EXPECT_EQ(traces.lines(),
            (Lines{line(9, " reachabilityStatusStream scan is false"),
                   line(9, "Initial scan yielding for child SM TrelSnmpReachabilityTableSm.")}));
  EXPECT_FALSE(world.sm->initialScanDone());
}

TEST_F(PipelineFramework, InputReadyWhenReady_SaysSo) {
  world.startAndDrain();
  traces.clear();
  Kor::invoke(*world.sm, "handleTrelMibTrelReachabilityTableOutputInputReady");
  EXPECT_EQ(traces.lines(), (Lines{line(9, " already ready, not reconciling.")}));
}

TEST_F(PipelineFramework, DoDeleteAllByName_DeletesEveryRowAndChild) {
  world.reports("1", 2, State::reachable);
  world.reports("2", 1, State::reachable);
  world.startAndDrain();
  Kor::invoke(*world.sm, "doDeleteAll");
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_EQ(Kor::attribute(*world.sm->machines()[0], "childSmEntityPtrTrelReachabilityStatusPtrConst"), "0");
}

TEST_F(PipelineFramework, Attributes_ReadByName) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  EXPECT_EQ(world.sm->korType().name(), "TrelSnmp::Agent::TrelSnmpReachabilityTableSm");
  const std::map<std::string, std::string> expected = {
      {"synchronous", "false"},
      {"initialScanDone", "true"},
      {"initialized", "true"},
      {"ready", "true"},
      {"idle", "true"},
      {"taskPriority", "128"},
      {"reachabilityStatusStreamScan", "true"},
      {"trelMibTrelReachabilityTableOutputReady", "true"},
      {"trelMibTrelReachabilityTableOutputReconciling", "false"},
      {"trelMibTrelReachabilityTableOutputUseBookmark", "false"},
      {"trelMibTrelReachabilityTableOutputBookmark", "None"},
      {"trelMibTrelReachabilityTableOutputSeen", "0"},
      {"trelMibTrelReachabilityTableOutputReconciliationTask",
       "TrelSnmpReachabilityTableSm-trelMibTrelReachabilityTableOutputTask"},
  };
  for (const auto& [name, value] : expected) EXPECT_EQ(Kor::attribute(*world.sm, name), value) << name;
  EXPECT_EQ(Kor::attribute(world.sm->inputSmScanState(), "reachabilityStatusStreamScan"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->inputSmScanState(), "idle"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->outputState(), "trelMibTrelReachabilityTableOutputReady"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->outputState(), "ready"), "true");
}

TEST_F(PipelineFramework, ChangesWhileInactive_AreCounted) {
  world.joins("1");
  world.startAndDrain();
  const Kor::Object& machine = *world.sm->machines()[0];
  EXPECT_EQ(Kor::attribute(machine, "versionEntityPtr"), "1");
  world.sm->hasNotificationActiveIs(false);
  world.joins("2");
  EXPECT_EQ(Kor::attribute(machine, "versionEntityPtr"), "2");
}

TEST_F(PipelineFramework, ChildAttributes_ReadByName) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  world.startAndDrain();
  using DirSm = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  auto child = dynamic_cast<DirSm&>(*world.sm->machines()[0]).child("1");
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(Kor::attribute(*child, "smKey"), "1");
  EXPECT_EQ(Kor::attribute(*child, "inputScanState0"), "2");
  EXPECT_EQ(Kor::attribute(*child, "versionReachabilityStatus"), "2");
  world.reports("1", 3, State::degraded);
  EXPECT_EQ(Kor::attribute(*child, "versionReachabilityStatus"), "3");
}

TEST_F(PipelineFramework, TaskAttributesOfAChild_SayWhetherItsParentsTaskRuns) {
  world.reports("1", 2, State::reachable);
  world.start();
  while (!world.sm->initialScanDone()) ASSERT_TRUE(world.scheduler.step());
  using DirSm = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  auto child = dynamic_cast<DirSm&>(*world.sm->machines()[0]).child("1");
  auto read = [&] {
    return Kor::attribute(*child, "inTask0") + " " + Kor::attribute(*child, "shouldYield0");
  };
  EXPECT_EQ(read(), "false true");  // a task that does not run has no time left
  std::string inside;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change&) { inside = read(); });
  world.scheduler.yieldWhen([] { return false; });
  world.scheduler.drain();
  EXPECT_EQ(inside, "true false");
  EXPECT_EQ(read(), "false false");  // there is no task any more
}

TEST_F(PipelineFramework, SynchronousChild_HasNoTask) {
  world.reports("1", 2, State::reachable);
  world.start(Rvx::Mode::synchronous);
  using DirSm = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  auto child = dynamic_cast<DirSm&>(*world.sm->machines()[0]).child("1");
  EXPECT_EQ(Kor::attribute(*child, "inTask0"), "false");
  EXPECT_EQ(Kor::attribute(*child, "shouldYield0"), "false");
  EXPECT_EQ(Kor::attribute(*world.sm->machines()[0], "task0"), "None");
  EXPECT_EQ(Kor::attribute(*world.sm, "trelMibTrelReachabilityTableOutputReconciliationTask"), "None");
}

TEST_F(PipelineFramework, OperationsByName_LeaveWhatIsDoneAsItIs) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  Zavro::Ptr<TopMachine> machine = world.sm->machines()[0];
  auto child = dynamic_cast<RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0&>(*machine).child("1");
  traces.clear();
  for (const char* operation : {"handleInitialized", "handleInitialScanDone"}) {
    Kor::invoke(*world.sm, operation);
  }
  for (const char* operation : {"doInputScan", "doInputScan0"}) {
    Kor::invoke(*machine, operation);
    Kor::invoke(*child, operation);
  }
  EXPECT_EQ(world.scheduler.drain(), 0U);
  EXPECT_EQ(traces.lines(), Lines());
  world.sm->hasNotificationActiveIs(false);
  Kor::invoke(*machine, "doInputScan");
  EXPECT_EQ(world.scheduler.drain(), 0U);
}

TEST_F(PipelineFramework, DoDeleteAllBeforeTheInitialScanIsDone_LeavesTheTableToReconciliation) {
  world.reports("1", 2, State::reachable);
  world.staleRow(3, 4, world.record(State::reachable));
  world.start();
  Kor::invoke(*world.sm, "doDeleteAll");
  EXPECT_EQ(world.rows(), "[ (3,4)=reachable ]");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
}

TEST_F(PipelineFramework, RowsHandedOver_NeitherActivationNorAnEventWritesAgain) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  world.sm->rowsHandedOver();
  world.reports("1", 3, State::reachable);
  world.sm->hasNotificationActiveIs(false);
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_TRUE(world.sm->paused());
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
}

TEST_F(PipelineFramework, RowsHandedOverWhileOneIsReplaced_TheNewOneIsNotWritten) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  auto subscription =
      world.mib->publisher().subscribe([&](const TrelMib::Change&) { world.sm->rowsHandedOver(); });
  world.reports("1", 2, State::degraded);
  EXPECT_EQ(world.rows(), "[ ]");
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

TEST_F(PipelineFramework, PausedByADeletionOfReconciliation_GoesOnFromThere) {
  world.staleRow(2, 8, world.record(State::reachable));
  world.staleRow(2, 9, world.record(State::reachable));
  world.start();
  auto pausing = world.mib->publisher().subscribe(
      [&](const TrelMib::Change&) { world.sm->hasNotificationActiveIs(false); });
  world.scheduler.neverYield();
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (2,9)=reachable ]");
  EXPECT_EQ(world.sm->trelMibTrelReachabilityTableOutput().bookmark(), MemberIdPair(2, 8));
  pausing.reset();
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_TRUE(world.sm->ready());
}

TEST_F(PipelineFramework, AsynchronousModeByNumberTwo_UsesTasks) {
  world.start(Rvx::Mode::asynchronous);
  EXPECT_FALSE(world.sm->synchronous());
  EXPECT_EQ(world.scheduler.get()->tasks().size(), 2U);
}

using PipelineDeath = PipelineFramework;

TEST_F(PipelineDeath, NullArguments_EndTheProcess) {
  auto control = world.control();
  EXPECT_DEATH(trelSnmpReachabilityTableSmFactory(nullptr, nullptr, nullptr, control),
               "reachabilityDir\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
  EXPECT_DEATH(
      trelSnmpReachabilityTableSmFactory(world.dir, nullptr, nullptr, control),
      "Assertion `ifMib\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
  EXPECT_DEATH(
      trelSnmpReachabilityTableSmFactory(world.dir, world.ifMib, nullptr, control),
      "Assertion `trelMib\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
}

TEST_F(PipelineDeath, ChildWithoutEntity_EndsTheProcess) {
  world.startAndDrain();
  std::string name = "EntityPtrSm1";
  EXPECT_DEATH(Zavro::makePtr<ChildMachine>(*world.sm, name, "1", nullptr, std::vector<ChildMachine::Part>()),
               "en\\(\\) && \"Sm args can only be null if marked as Optional in the SM type declaration\"");
}

// The collection changes, and before the pipeline hears of it another subscriber removes the entity.
TEST_F(PipelineDeath, EntityDeletedBeforeItsChangeWasHeardOf_EndsTheProcess) {
  auto& entity = world.joins("1");
  auto earlier = entity.reachabilityStatus().subscribe([&](const Trel::MemberId&) { world.leaves("1"); });
  world.startAndDrain();
  EXPECT_DEATH(
      world.reports("1", 2, State::reachable),
      "We missed notifications that happened to reachabilityStatus before the enclosing entity got deleted");
}

TEST_F(PipelineDeath, MissedNotificationsDuringTheInitialScan_AreNone) {
  auto& entity = world.joins("1");
  auto earlier = entity.reachabilityStatus().subscribe([&](const Trel::MemberId&) { world.leaves("1"); });
  world.start();
  world.reports("1", 2, State::reachable);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ ]");
}

}  // namespace
}  // namespace TrelSnmp::Agent
