// Which rows of a pipeline stand: those of an earlier life are reconciled; it is dropped, or another takes
// its place; something is thrown.
#include "tests/pipelines/PipelineFrameworkFixture.h"

namespace TrelSnmp::Agent {
namespace {

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
  EXPECT_EQ(world.sm->trelMibTrelReachabilityTableOutput().bookmarkText(), "None");
  EXPECT_FALSE(world.sm->trelMibTrelReachabilityTableOutput().useBookmark());
}

TEST_F(PipelineFramework, BookmarkedRowDeletedMeanwhile_ReconciliationGoesOnBehindIt) {
  for (uint32_t i = 1; i <= 4; ++i) world.staleRow(i, 9, world.record(State::unknown));
  world.start();
  const auto& output = world.sm->trelMibTrelReachabilityTableOutput();
  while (!output.useBookmark()) ASSERT_TRUE(world.scheduler.step());
  ASSERT_EQ(output.bookmarkText(), "Optional( (firstId=2, secondId=9) )");
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
  world.reports("1", 4, State::reachable);
  world.start();
  const auto& output = world.sm->trelMibTrelReachabilityTableOutput();
  bool filled = false;
  world.scheduler.drain([&] { filled = filled || output.seenSize() > 0; });
  EXPECT_TRUE(filled);
  EXPECT_EQ(output.seenSize(), 0U);
  world.reports("1", 3, State::reachable);
  EXPECT_EQ(output.seenSize(), 0U);
  EXPECT_FALSE(output.reconciling());
}

TEST_F(PipelineFramework, MachineHeldBySomebody_ListensNoLongerOnceThePipelineIsGone) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  Zavro::Ptr<Machine> held = world.sm->machines()[0];
  world.sm.reset();
  EXPECT_EQ(world.dir->entities().subscribers(), 0U);
  world.reports("1", 3, State::reachable);
  world.leaves("1");
  EXPECT_EQ(world.rows(), "[ ]");
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

TEST_F(PipelineFramework, SubscriberThrowsDuringConstruction_RowsStay) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  auto throwing = world.mib->publisher().subscribe([](const TrelMib::Change& change) {
    if (std::get<MemberIdPair>(change.key).secondId() == 3) throw std::runtime_error("no");
  });
  EXPECT_THROW(world.makePipeline(Rvx::Mode::synchronous), std::runtime_error);
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,3)=reachable ]");
}

// What used to go wrong: nobody had the rows any more, so they stayed for good.
TEST_F(PipelineFramework, DroppedBeforeItReconciled_RowsOfAnEarlierLifeGoWithIt) {
  for (int slices : {0, 1, 2, 3, 4}) {
    world.reports("1", 2, State::reachable);
    world.staleRow(1, 2, world.record(State::degraded));
    world.staleRow(3, 4, world.record(State::reachable));
    world.start();
    for (int i = 0; i < slices; ++i) world.scheduler.step();
    world.sm.reset();
    EXPECT_EQ(world.rows(), "[ ]") << slices;
  }
}

TEST_F(PipelineFramework, SubscriberThrowsWithinASlice_TheScanGoesOn) {
  for (uint8_t neighbour = 2; neighbour < 6; ++neighbour) world.reports("1", neighbour, State::reachable);
  int thrown = 0;
  auto throwing = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    if (++thrown == 2) throw std::runtime_error("no");
  });
  world.start();
  EXPECT_THROW(world.scheduler.drain(), std::runtime_error);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,3)=reachable (1,4)=reachable (1,5)=reachable ]");
  EXPECT_TRUE(world.sm->ready());
}

TEST_F(PipelineFramework, NeverActivated_IsPausedAllTheSame) {
  world.sm = world.makePipeline();
  world.sm->hasNotificationActiveIs(false);
  world.reports("1", 2, State::reachable);
  world.scheduler.drain();
  EXPECT_TRUE(world.sm->paused());
  EXPECT_EQ(world.rows(), "[ ]");
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
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

TEST_F(PipelineFramework, SuccessorOnTheSameTable_TheFormerOneNeitherWritesNorDeletes) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  auto successor = world.makePipeline();
  world.scheduler.drain();
  successor->hasNotificationActiveIs(false);
  world.sm->hasNotificationActiveIs(false);
  world.sm->hasNotificationActiveIs(true);
  world.reports("1", 3, State::reachable);
  world.scheduler.drain();
  EXPECT_TRUE(world.sm->paused());
  EXPECT_FALSE(world.sm->ownsRows());
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
  world.sm.reset();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
  successor->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,3)=reachable ]");
  successor.reset();
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(PipelineFramework, AnotherPipelineOnAnotherTable_EachHasItsRows) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  auto otherMib = trelMibFactory("other");
  auto other = trelSnmpReachabilityTableSmFactory(world.dir, world.ifMib, otherMib, world.control());
  world.reports("1", 3, State::reachable);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,3)=reachable ]");
  EXPECT_EQ(otherMib->trelReachabilityTable().size(), 2U);
  world.sm.reset();
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_EQ(otherMib->trelReachabilityTable().size(), 2U);
}

TEST_F(PipelineFramework, SuccessorCannotBeMade_WhoeverHadTheRowsHasThemAgain) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  world.startAndDrain();
  auto otherIfMib = Zavro::makePtr<IntfSnmp::IfMib>("other");
  auto throwing = world.mib->publisher().subscribe([](const TrelMib::Change& change) {
    if (change.entry != nullptr && std::get<MemberIdPair>(change.key).secondId() == 3)
      throw std::runtime_error("no");
  });
  EXPECT_THROW(trelSnmpReachabilityTableSmFactory(world.dir, otherIfMib, world.mib,
                                                  world.control(Rvx::Mode::synchronous)),
               std::runtime_error);
  throwing.reset();
  world.reports("1", 4, State::reachable);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,3)=reachable (1,4)=reachable ]");
  for (auto row = world.mib->trelReachabilityTable().begin(); row; row.next())
    EXPECT_EQ(row.entry()->ifMib(), world.ifMib);
  EXPECT_TRUE(world.sm->ready());
  world.sm.reset();
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(PipelineFramework, SubscriberThrowsWithinAnEvent_TheElementHasItsTurnAfterTheNext) {
  for (Rvx::Mode mode : {Rvx::Mode::synchronous, Rvx::Mode::pipelineDefault}) {
    world.reports("1", 2, State::reachable);
    world.start(mode);
    world.scheduler.drain();
    bool throws = true;
    auto throwing = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
      if (std::exchange(throws, false)) throw std::runtime_error("no");
    });
    EXPECT_THROW(world.reports("1", 2, State::degraded), std::runtime_error);
    EXPECT_EQ(world.rows(), "[ ]");
    world.reports("1", 3, State::reachable);
    EXPECT_EQ(world.rows(), "[ (1,2)=degraded (1,3)=reachable ]");
    world.leaves("1");
    world.sm.reset();
  }
}

TEST_F(PipelineFramework, SubscriberThrowsWhenAMemberComesOrGoes_ItsRowsFollowWithTheNextEvent) {
  world.start(Rvx::Mode::synchronous);
  bool throws = true;
  auto throwing = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    if (std::exchange(throws, false)) throw std::runtime_error("no");
  });
  auto comes = Zavro::makePtr<Trel::ReachabilityStatus>("1");
  for (uint8_t neighbour = 2; neighbour < 5; ++neighbour)
    comes->reachabilityStatus().set(Trel::MemberId(neighbour), world.record(State::reachable));
  EXPECT_THROW(world.dir->entityPtrIs("1", comes), std::runtime_error);
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
  world.joins("7");
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,3)=reachable (1,4)=reachable ]");
  throws = true;
  EXPECT_THROW(world.leaves("1"), std::runtime_error);
  EXPECT_EQ(world.rows(), "[ (1,3)=reachable (1,4)=reachable ]");
  world.leaves("7");
  EXPECT_EQ(world.rows(), "[ ]");
}

}  // namespace
}  // namespace TrelSnmp::Agent
