// What the system and the processor table hold as members come, change and leave.
#include <gtest/gtest.h>

#include "HostWorld.h"
#include "support/TraceLog.h"

namespace TrelSnmp::Agent {
namespace {

using Lines = std::vector<std::string>;
using DirSm = RivoCode::TrelSnmpHostResourcesSm::HostResourcesDirSm0;

constexpr const char* kSm = "TrelSnmpHostResourcesSm";
std::string line(int level, const std::string& text) { return fmt::format("{}/{} {}", kSm, level, text); }

std::string systemElement(const std::string& dirKey, const std::string& hrOpt) {
  return line(7,
              "hrSystemTableStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[] ): "
              "dirKey=" +
                  dirKey + " hrOpt=" + hrOpt);
}
std::string processorElement(const std::string& dirKey, int index, const std::string& processorOpt) {
  return line(7, fmt::format("processorTableStream = from( hostResourcesDir.entityPtr< "
                             "HostResources::HostResources >[].processorTable[] ): dirKey={} "
                             "processorIndex={} processorOpt={}",
                             dirKey, index, processorOpt));
}

class HostResourcesPipeline : public testing::Test {
 protected:
  void SetUp() override { Lumalog::levelIs("*", -1); }
  void TearDown() override { Lumalog::levelsReset(); }

  HostWorld world;
};

TEST_F(HostResourcesPipeline, Member_HasASystemRowAndOneForEachProcessor) {
  world.load("3", 0, 7);
  world.load("3", 5, -1);
  world.load("1", 0, 100);
  world.startAndDrain();
  EXPECT_EQ(world.systemRows(), "[ 1 3 ]");
  EXPECT_EQ(world.processorRows(), "[ (1,0)=100 (3,0)=7 (3,5)=-1 ]");
}

TEST_F(HostResourcesPipeline, MemberWithoutProcessors_HasASystemRowOnly) {
  world.joins("4");
  world.startAndDrain();
  EXPECT_EQ(world.systemRows(), "[ 4 ]");
  EXPECT_EQ(world.processorRows(), "[ ]");
}

TEST_F(HostResourcesPipeline, RowsCarryTheVeryRecords) {
  auto record = world.processor(5);
  world.host("1")->processorTable().set(2, record);
  world.startAndDrain();
  EXPECT_EQ(world.mib->trelHrSystemTable(1)->hostResources(), world.member("1"));
  EXPECT_EQ(world.mib->trelProcessorTable({1, 2})->processor(), record);
}

TEST_F(HostResourcesPipeline, FiguresChangeInPlace_TheRowStaysAndShowsThem) {
  world.joins("1");
  world.startAndDrain();
  HostPublications published(*world.mib);
  auto row = world.mib->trelHrSystemTable(1);
  HostWorld::Host::System system;
  system.systemProcesses = 17;
  world.member("1")->systemIs(system);
  EXPECT_EQ(row->hostResources()->system().systemProcesses, 17U);
  EXPECT_EQ(published.take(), "");
}

TEST_F(HostResourcesPipeline, SameEntityAnnouncedAgain_NothingIsWritten) {
  world.load("1", 0, 7);
  world.startAndDrain();
  HostPublications published(*world.mib);
  world.dir->entityPtrIs(world.dir->entityPtr("1"));
  EXPECT_EQ(published.take(), "");
}

TEST_F(HostResourcesPipeline, EntityReplaced_AllItsRowsAreWrittenAnew) {
  world.load("1", 0, 7);
  world.load("1", 1, 8);
  world.load("2", 0, 9);
  world.startAndDrain();
  auto entity = Zavro::makePtr<HostWorld::Host>("1");
  entity->processorTable().set(1, world.processor(50));
  HostPublications published(*world.mib);
  world.dir->entityPtrIs(entity);
  EXPECT_EQ(published.take(), "-system(1) +system(1) -processor(1,0) -processor(1,1) +processor(1,1) ");
  EXPECT_EQ(world.mib->trelHrSystemTable(1)->hostResources(), entity);
  EXPECT_EQ(world.processorRows(), "[ (1,1)=50 (2,0)=9 ]");
}

TEST_F(HostResourcesPipeline, ReplacedEntityIsNotFollowedAnyMore) {
  world.load("1", 0, 7);
  world.startAndDrain();
  auto old = boost::static_pointer_cast<HostWorld::Host>(world.dir->entityPtr("1"));
  world.joins("1");
  old->processorTable().set(3, world.processor(1));
  EXPECT_EQ(world.processorRows(), "[ ]");
  EXPECT_EQ(old->processorTable().subscribers(), 0U);
}

TEST_F(HostResourcesPipeline, MemberLeaves_SystemRowThenProcessorRowsVanish_OthersStay) {
  world.load("1", 0, 7);
  world.load("1", 1, 8);
  world.load("2", 0, 9);
  world.startAndDrain();
  HostPublications published(*world.mib);
  world.leaves("1");
  EXPECT_EQ(published.take(), "-system(1) -processor(1,0) -processor(1,1) ");
  EXPECT_EQ(world.systemRows(), "[ 2 ]");
  EXPECT_EQ(world.processorRows(), "[ (2,0)=9 ]");
}

TEST_F(HostResourcesPipeline, ProcessorAppearsChangesVanishes_OnlyItsRowFollows) {
  world.load("1", 0, 7);
  world.startAndDrain();
  HostPublications published(*world.mib);
  world.load("1", 4, 1);
  EXPECT_EQ(published.take(), "+processor(1,4) ");
  world.load("1", 4, 2);
  EXPECT_EQ(published.take(), "-processor(1,4) +processor(1,4) ");
  world.member("1")->processorTable().set(4, *world.member("1")->processorTable().find(4U));
  EXPECT_EQ(published.take(), "");
  world.member("1")->processorTable().del(4);
  EXPECT_EQ(published.take(), "-processor(1,4) ");
  EXPECT_EQ(world.processorRows(), "[ (1,0)=7 ]");
}

TEST_F(HostResourcesPipeline, ProcessorIndexesAtTheEdge_ReachTheTable) {
  world.load("255", 0xFFFFFFFF, 1);
  world.load("0", 0x80000000, 2);
  world.startAndDrain();
  EXPECT_EQ(world.processorRows(), "[ (0,2147483648)=2 (255,4294967295)=1 ]");
}

TEST_F(HostResourcesPipeline, EntityOfAnotherType_HasNoRowsAndIsTracedOnce) {
  world.load("1", 0, 7);
  world.startAndDrain();
  TraceLog traces{kSm};
  world.dir->entityPtrIs("1", Zavro::makePtr<Kor::Dir>("1"));
  EXPECT_EQ(world.systemRows(), "[ ]");
  EXPECT_EQ(world.processorRows(), "[ ]");
  EXPECT_EQ(traces.count(line(1,
                              "dynamic cast to type ::HostResources::HostResources::RawPtrConst from "
                              "Kor::Entity::PtrConst failed. ")),
            1U);
  world.load("1", 0, 8);
  EXPECT_EQ(world.processorRows(), "[ (1,0)=8 ]");
}

TEST_F(HostResourcesPipeline, KeyThatIsNoMemberId_CountsAsMemberZero) {
  world.load("spine-a", 4, 1);
  world.load("256", 5, 2);
  world.startAndDrain();
  EXPECT_EQ(world.systemRows(), "[ 0 ]");
  EXPECT_EQ(world.processorRows(), "[ (0,4)=1 (0,5)=2 ]");
}

TEST_F(HostResourcesPipeline, TwoKeysThatSpellOneMember_LaterEventWins) {
  world.load("3", 0, 1);
  world.startAndDrain();
  world.load("03", 0, 2);
  EXPECT_EQ(world.mib->trelHrSystemTable(3)->hostResources(), world.member("03"));
  EXPECT_EQ(world.processorRows(), "[ (3,0)=2 ]");
  world.leaves("03");
  EXPECT_EQ(world.systemRows(), "[ ]");
  EXPECT_EQ(world.processorRows(), "[ ]");
}

TEST_F(HostResourcesPipeline, RowsOfAnEarlierLife_GoUnlessTheyAreProducedAgain) {
  world.load("1", 0, 7);
  auto kept = *world.member("1")->processorTable().find(0U);
  world.mib->trelProcessorTableIs({1, 0}, kept);
  world.mib->trelProcessorTableIs({1, 1}, kept);
  world.mib->trelProcessorTableIs({9, 0}, kept);
  world.mib->trelHrSystemTableIs(1, world.member("1"));
  world.mib->trelHrSystemTableIs(9, nullptr);
  HostPublications published(*world.mib);
  world.startAndDrain();
  EXPECT_EQ(published.take(), "-system(9) -processor(1,1) -processor(9,0) ");
}

// One table is whole, its stale rows gone, while the other has not been scanned to its end.
TEST_F(HostResourcesPipeline, OneTableReadyAndReconciled_WhileTheOthersScanRuns) {
  for (uint32_t i = 0; i < 8; ++i) world.load("1", i, 1);
  world.mib->trelHrSystemTableIs(9, nullptr);
  world.mib->trelProcessorTableIs({9, 0}, nullptr);
  world.start();
  const auto& outputs = *world.sm;
  while (!outputs.trelMibTrelHrSystemTableOutput().ready()) ASSERT_TRUE(world.scheduler.step());
  EXPECT_EQ(world.systemRows(), "[ 1 ]");
  EXPECT_FALSE(outputs.trelMibTrelProcessorTableOutput().ready());
  EXPECT_TRUE(outputs.trelMibTrelProcessorTableOutput().reconciling());
  EXPECT_NE(world.mib->trelProcessorTable({9, 0}), nullptr);
  EXPECT_EQ(Kor::attribute(world.sm->inputSmScanState(), "hrSystemTableStreamScan"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->inputSmScanState(), "processorTableStreamScan"), "false");
  EXPECT_EQ(Kor::attribute(world.sm->outputState(), "trelMibTrelHrSystemTableOutputReady"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->outputState(), "trelMibTrelProcessorTableOutputReady"), "false");
  EXPECT_FALSE(world.sm->ready());
  world.scheduler.drain();
  EXPECT_TRUE(world.sm->ready());
  EXPECT_EQ(world.mib->trelProcessorTable({9, 0}), nullptr);
}

TEST_F(HostResourcesPipeline, ProcessorTableReady_WhileTheSystemTableWaits) {
  for (const char* key : {"1", "2", "3"}) world.joins(key);
  world.start();
  // Only the directory's own stream has to yield.
  auto& dirSm = dynamic_cast<DirSm&>(*world.sm->machines()[0]);
  world.scheduler.yieldWhen([&] { return dirSm.inTask(0); });
  while (!world.sm->trelMibTrelProcessorTableOutput().ready()) ASSERT_TRUE(world.scheduler.step());
  EXPECT_FALSE(world.sm->trelMibTrelHrSystemTableOutput().ready());
  EXPECT_FALSE(world.sm->ready());
  world.scheduler.drain();
  EXPECT_TRUE(world.sm->ready());
  EXPECT_EQ(world.systemRows(), "[ 1 2 3 ]");
}

TEST_F(HostResourcesPipeline, TasksAndTheirNames) {
  world.start();
  std::string names;
  for (const Vem::Task* task : world.scheduler.get()->tasks()) names += task->name() + "\n";
  EXPECT_EQ(names,
            "TrelSnmpHostResourcesSm-trelMibTrelHrSystemTableOutputTask\n"
            "TrelSnmpHostResourcesSm-trelMibTrelProcessorTableOutputTask\n"
            "TrelSnmp::Agent::TrelSnmpHostResourcesSm-HostResourcesDirSm0InputScanTask0\n"
            "TrelSnmp::Agent::TrelSnmpHostResourcesSm-HostResourcesDirSm0InputScanTask1\n");
}

TEST_F(HostResourcesPipeline, SynchronousStart_GoldenTrace) {
  world.load("1", 2, 7);
  TraceLog traces{kSm};
  world.start(Rvx::Mode::synchronous);
  const std::string host = "Optional( 1 )";
  const std::string processor = "(load=7)";
  const std::string key = "(trelMemberId=1, processorIndex=2)";
  EXPECT_EQ(traces.lines(),
            (Lines{line(9, "Reconciling trelMibTrelHrSystemTableOutput: false"),
                   line(9, "Reconciling trelMibTrelProcessorTableOutput: false"),
                   line(9, "create local SMs"),
                   line(8, "k: 1"),
                   line(9, "HostResourcesDirSm0 initial scan, and parent scan, complete."),
                   line(8, "k: 1"),
                   line(8, "2"),
                   line(9, "EntityPtrSm1 initial scan, and parent scan, complete."),
                   line(9, "HostResourcesDirSm0 initial scan, and parent scan, complete."),
                   line(9, "initialized"),
                   line(9, "Initial scan done for child SMs. Now scanning with events triggered."),
                   line(8, "k: 1"),
                   systemElement("1", host),
                   line(7, "into( trelMib.trelHrSystemTable[ key ] ): inserting k1=1, value=1"),
                   line(9, "HostResourcesDirSm0 scan, and parent scan, complete."),
                   line(9, "Input scans for trelMibTrelHrSystemTableOutput complete"),
                   line(8, "k: 1"),
                   line(8, "2"),
                   processorElement("1", 2, "Optional( " + processor + " )"),
                   line(7, "into( trelMib.trelProcessorTable[ key ] ): inserting k1=" + key + ", value=(" +
                               key + ", " + processor + ")"),
                   line(9, "EntityPtrSm1 scan, and parent scan, complete."),
                   line(9, "HostResourcesDirSm0 scan, and parent scan, complete."),
                   line(9, " already ready, not reconciling."),
                   line(9, "Input scans for trelMibTrelProcessorTableOutput complete"),
                   line(9, " already ready, not reconciling."),
                   line(9, " already ready, not reconciling."),
                   line(9, " already ready, not reconciling.")}));
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
}

TEST_F(HostResourcesPipeline, MemberLeaves_GoldenTrace) {
  world.load("1", 2, 7);
  world.startAndDrain();
  TraceLog traces{kSm};
  world.leaves("1");
  EXPECT_EQ(traces.lines(), (Lines{line(8, "k: 1"), systemElement("1", "None"),
                                   line(7, "into( trelMib.trelHrSystemTable[ key ] ): deleting k1=1"),
                                   line(8, "k: 1"), processorElement("1", 2, "None"),
                                   line(7,
                                        "into( trelMib.trelProcessorTable[ key ] ): deleting "
                                        "k1=(trelMemberId=1, processorIndex=2)")}));
}

TEST_F(HostResourcesPipeline, InitialScanNotDone_SaysWhichStreamIsMissing) {
  world.joins("1");
  world.start();
  TraceLog traces{kSm};
  Kor::invoke(*world.sm, "handleInitialScanDone");
  EXPECT_EQ(traces.lines(), (Lines{line(9, " hrSystemTableStream scan is false"),
                                   line(9, "Initial scan yielding for child SM TrelSnmpHostResourcesSm.")}));
  while (Kor::attribute(*world.sm, "hrSystemTableStreamScan") == "false") world.scheduler.step();
  traces.clear();
  Kor::invoke(*world.sm, "handleInitialScanDone");
  EXPECT_EQ(traces.lines().front(), line(9, " processorTableStream scan is false"));
}

TEST_F(HostResourcesPipeline, EventsBeforeTheInitialScanIsDone_WriteNothing) {
  world.load("1", 0, 7);
  world.start();
  world.sm->eventToHrSystemTableStream("5", world.member("1"));
  world.sm->eventToProcessorTableStream("5", 0, world.processor(1));
  EXPECT_EQ(world.systemRows() + world.processorRows(), "[ ][ ]");
}

TEST_F(HostResourcesPipeline, DoDeleteAllByName_DeletesEveryRowThatCanBeAccountedFor) {
  world.load("1", 0, 7);
  world.joins("2");
  world.startAndDrain();
  HostPublications published(*world.mib);
  Kor::invoke(*world.sm, "doDeleteAll");
  EXPECT_EQ(published.take(), "-processor(1,0) -system(1) -system(2) ");
  EXPECT_EQ(Kor::attribute(*world.sm->machines()[0], "childSmEntityPtrHostResourcesHostResourcesPtrConst"),
            "0");
}

TEST_F(HostResourcesPipeline, Dropped_TakesTheProcessorRowsAlongAndLeavesTheSystemRows) {
  world.load("1", 0, 7);
  world.startAndDrain();
  world.sm.reset();
  EXPECT_EQ(world.systemRows(), "[ 1 ]");
  EXPECT_EQ(world.processorRows(), "[ ]");
  EXPECT_EQ(world.dir->useCount(), 1U);
  EXPECT_EQ(world.mib->useCount(), 1U);
  EXPECT_EQ(world.dir->entities().subscribers(), 0U);
  EXPECT_EQ(world.member("1")->processorTable().subscribers(), 0U);
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
}

TEST_F(HostResourcesPipeline, WhileInactive_ChangesWaitUntilItIsActiveAgain) {
  world.load("1", 0, 7);
  world.load("2", 0, 7);
  world.startAndDrain();
  world.sm->hasNotificationActiveIs(false);
  world.leaves("1");
  world.load("2", 1, 8);
  world.load("3", 0, 9);
  EXPECT_EQ(world.systemRows(), "[ 1 2 ]");
  EXPECT_EQ(world.processorRows(), "[ (1,0)=7 (2,0)=7 ]");
  world.sm->hasNotificationActiveIs(true);
  EXPECT_EQ(world.systemRows(), "[ 2 3 ]");
  EXPECT_EQ(world.processorRows(), "[ (2,0)=7 (2,1)=8 (3,0)=9 ]");
}

// The member used to get rows of the changes that were still waiting when it left.
TEST_F(HostResourcesPipeline, MemberLeavesWhileItsWaitingChangesAreHandled_NoRowOfItStays) {
  world.load("1", 0, 7);
  world.startAndDrain();
  world.sm->hasNotificationActiveIs(false);
  world.load("1", 0, 8);
  world.load("1", 1, 9);
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change&) { world.leaves("1"); });
  world.sm->hasNotificationActiveIs(true);
  EXPECT_EQ(world.systemRows() + world.processorRows(), "[ ][ ]");
}

TEST_F(HostResourcesPipeline, InactiveAgainWhileWaitingChangesAreHandled_TheRestGoesOnWaiting) {
  world.load("1", 0, 7);
  world.startAndDrain();
  world.sm->hasNotificationActiveIs(false);
  world.load("1", 1, 8);
  world.load("1", 2, 9);
  {
    auto subscription = world.mib->publisher().subscribe(
        [&](const TrelMib::Change&) { world.sm->hasNotificationActiveIs(false); });
    world.sm->hasNotificationActiveIs(true);
  }
  EXPECT_EQ(world.processorRows(), "[ (1,0)=7 (1,1)=8 ]");
  world.sm->hasNotificationActiveIs(true);
  EXPECT_EQ(world.processorRows(), "[ (1,0)=7 (1,1)=8 (1,2)=9 ]");
}

TEST_F(HostResourcesPipeline, InactiveMidScan_GoesOnWhereItStopped) {
  for (const char* key : {"1", "2", "3"}) world.load(key, 0, 1);
  world.mib->trelHrSystemTableIs(9, nullptr);
  world.start();
  while (world.processorRows() == "[ ]") ASSERT_TRUE(world.scheduler.step());
  world.sm->hasNotificationActiveIs(false);
  std::string before = world.systemRows() + world.processorRows();
  world.load("2", 1, 5);
  world.scheduler.drain();
  EXPECT_EQ(world.systemRows() + world.processorRows(), before);
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.systemRows(), "[ 1 2 3 ]");
  EXPECT_EQ(world.processorRows(), "[ (1,0)=1 (2,0)=1 (2,1)=5 (3,0)=1 ]");
  EXPECT_TRUE(world.sm->ready());
}

TEST_F(HostResourcesPipeline, InactiveWithinAScansWrite_NothingMoreIsWrittenUntilItIsActiveAgain) {
  for (const char* key : {"1", "2", "3"}) world.load(key, 0, 1);
  world.scheduler.neverYield();
  world.start();
  {
    auto subscription = world.mib->publisher().subscribe(
        [&](const TrelMib::Change&) { world.sm->hasNotificationActiveIs(false); });
    world.scheduler.drain();
  }
  EXPECT_EQ(world.systemRows() + world.processorRows(), "[ 1 ][ ]");
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.systemRows(), "[ 1 2 3 ]");
  EXPECT_EQ(world.processorRows(), "[ (1,0)=1 (2,0)=1 (3,0)=1 ]");
  EXPECT_TRUE(world.sm->ready());
}

TEST_F(HostResourcesPipeline, InactiveWithinAReconciliationsDeletion_NothingMoreGoesUntilItIsActiveAgain) {
  for (uint32_t i = 1; i <= 3; ++i) world.mib->trelHrSystemTableIs(i, nullptr);
  world.scheduler.neverYield();
  world.start();
  {
    auto subscription = world.mib->publisher().subscribe(
        [&](const TrelMib::Change&) { world.sm->hasNotificationActiveIs(false); });
    world.scheduler.drain();
  }
  EXPECT_EQ(world.systemRows(), "[ 2 3 ]");
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.systemRows(), "[ ]");
  EXPECT_TRUE(world.sm->ready());
}

// The pipeline used to start a second deletion scan within the first, which then went on without the seen
// keys.
TEST_F(HostResourcesPipeline, InactiveAndActiveAgainWithinAReconciliationsDeletion_LiveRowsStay) {
  for (const char* key : {"2", "4"}) world.joins(key);
  for (uint32_t i = 1; i <= 5; ++i) world.mib->trelHrSystemTableIs(i, nullptr);
  world.scheduler.neverYield();
  world.start();
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    world.sm->hasNotificationActiveIs(false);
    world.sm->hasNotificationActiveIs(true);
  });
  world.scheduler.drain();
  EXPECT_EQ(world.systemRows(), "[ 2 4 ]");
  EXPECT_TRUE(world.sm->ready());
}

// The second stream used to handle the change that the first had paused the pipeline with.
TEST_F(HostResourcesPipeline, InactiveWithinAReplacementsSystemWrite_ItsProcessorsWait) {
  world.load("1", 0, 1);
  world.startAndDrain();
  auto entity = Zavro::makePtr<HostWorld::Host>("1");
  entity->processorTable().set(5, world.processor(50));
  {
    auto subscription = world.mib->publisher().subscribe(
        [&](const TrelMib::Change&) { world.sm->hasNotificationActiveIs(false); });
    world.dir->entityPtrIs(entity);
  }
  EXPECT_EQ(world.mib->trelHrSystemTable(1)->hostResources(), entity);
  EXPECT_EQ(world.processorRows(), "[ (1,0)=1 ]");
  entity->processorTable().set(6, world.processor(60));
  EXPECT_EQ(world.processorRows(), "[ (1,0)=1 ]");
  world.sm->hasNotificationActiveIs(true);
  EXPECT_EQ(world.processorRows(), "[ (1,5)=50 (1,6)=60 ]");
}

// The child that took the old one's place used to react although the pipeline had been paused meanwhile.
TEST_F(HostResourcesPipeline, InactiveWithinAReplacementsProcessorDeletion_TheNewEntityWaits) {
  world.load("1", 0, 1);
  world.startAndDrain();
  auto entity = Zavro::makePtr<HostWorld::Host>("1");
  entity->processorTable().set(5, world.processor(50));
  {
    auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change& change) {
      if (change.table == "trelProcessorTable") world.sm->hasNotificationActiveIs(false);
    });
    world.dir->entityPtrIs(entity);
  }
  EXPECT_EQ(world.processorRows(), "[ ]");
  entity->processorTable().set(6, world.processor(60));
  EXPECT_EQ(world.processorRows(), "[ ]");
  world.sm->hasNotificationActiveIs(true);
  EXPECT_EQ(world.processorRows(), "[ (1,5)=50 (1,6)=60 ]");
}

TEST_F(HostResourcesPipeline, InactiveWhileReconciling_GoesOnWhereItStopped) {
  for (uint32_t i = 1; i <= 5; ++i) world.mib->trelHrSystemTableIs(i, nullptr);
  world.start();
  while (!world.sm->trelMibTrelHrSystemTableOutput().useBookmark()) ASSERT_TRUE(world.scheduler.step());
  world.sm->hasNotificationActiveIs(false);
  std::string before = world.systemRows();
  world.scheduler.drain();
  EXPECT_EQ(world.systemRows(), before);
  EXPECT_FALSE(world.sm->ready());
  world.sm->hasNotificationActiveIs(true);
  world.scheduler.drain();
  EXPECT_EQ(world.systemRows(), "[ ]");
  EXPECT_TRUE(world.sm->ready());
}

// What a subscriber throws reaches whoever made the change; the pipeline goes on with the next one.
TEST_F(HostResourcesPipeline, SubscriberThatThrows_LeavesThePipelineAbleToGoOn) {
  world.load("1", 0, 7);
  world.startAndDrain();
  bool throws = true;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    if (std::exchange(throws, false)) throw std::runtime_error("subscriber");
  });
  EXPECT_THROW(world.leaves("1"), std::runtime_error);
  world.load("1", 0, 8);
  world.leaves("1");
  world.load("1", 1, 9);
  EXPECT_EQ(world.systemRows(), "[ 1 ]");
  EXPECT_EQ(world.processorRows(), "[ (1,1)=9 ]");
}

TEST_F(HostResourcesPipeline, EntityReplacedInsideItsOwnSystemWrite_LastOneStands) {
  world.load("1", 0, 7);
  world.startAndDrain();
  auto last = Zavro::makePtr<HostWorld::Host>("1");
  last->processorTable().set(9, world.processor(90));
  bool nested = false;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change& change) {
    if (!change.entry && !std::exchange(nested, true)) world.dir->entityPtrIs(last);
  });
  auto first = Zavro::makePtr<HostWorld::Host>("1");
  first->processorTable().set(1, world.processor(10));
  world.dir->entityPtrIs(first);
  EXPECT_EQ(world.mib->trelHrSystemTable(1)->hostResources(), last);
  EXPECT_EQ(world.processorRows(), "[ (1,9)=90 ]");
}

TEST_F(HostResourcesPipeline, Attributes_ReadByName) {
  world.load("1", 0, 7);
  world.startAndDrain();
  EXPECT_EQ(world.sm->korType().name(), "TrelSnmp::Agent::TrelSnmpHostResourcesSm");
  for (const char* output : {"trelMibTrelHrSystemTableOutput", "trelMibTrelProcessorTableOutput"}) {
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "Ready"), "true");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "Reconciling"), "false");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "UseBookmark"), "false");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "Bookmark"), "None");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "Seen"), "0");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "ReconciliationTask"),
              std::string("TrelSnmpHostResourcesSm-") + output + "Task");
  }
  auto& dirSm = dynamic_cast<DirSm&>(*world.sm->machines()[0]);
  for (const char* stream : {"0", "1"}) {
    EXPECT_EQ(Kor::attribute(dirSm, std::string("inputScanState") + stream), "2");
    EXPECT_EQ(Kor::attribute(dirSm, std::string("inputScanComplete") + stream), "true");
    EXPECT_EQ(Kor::attribute(dirSm, std::string("inTask") + stream), "false");
    EXPECT_EQ(Kor::attribute(dirSm, std::string("shouldYield") + stream), "false");
  }
  EXPECT_EQ(Kor::attribute(dirSm, "versionEntityPtr"), "1");
  world.joins("2");
  EXPECT_EQ(Kor::attribute(dirSm, "versionEntityPtr"), "2");
  auto child = dirSm.child("1");
  ASSERT_NE(child, nullptr);
  Kor::invoke(*child, "doInputScan1");
  EXPECT_EQ(Kor::attribute(*child, "smKey"), "1");
  EXPECT_EQ(Kor::attribute(*child, "versionProcessorTable"), "1");
  EXPECT_EQ(Kor::attribute(*child, "inputScanState1"), "2");
  EXPECT_EQ(Kor::attribute(*child, "inputScanComplete1"), "true");
  EXPECT_EQ(Kor::attribute(*child, "inTask1"), "false");
  EXPECT_EQ(Kor::attribute(*child, "shouldYield1"), "false");
}

using HostResourcesDeath = HostResourcesPipeline;

TEST_F(HostResourcesDeath, NullArguments_EndTheProcess) {
  auto control = world.control();
  EXPECT_DEATH(trelSnmpHostResourcesSmFactory(nullptr, nullptr, control),
               "Assertion `hostResourcesDir\\(\\) && \"Pointer SM args cannot be null unless they are marked "
               "Optional\"");
  EXPECT_DEATH(
      trelSnmpHostResourcesSmFactory(world.dir, nullptr, control),
      "Assertion `trelMib\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
}

TEST_F(HostResourcesDeath, EntityDeletedBeforeItsChangeWasHeardOf_EndsTheProcess) {
  auto& entity = world.joins("1");
  auto earlier = entity.processorTable().subscribe([&](uint32_t) { world.leaves("1"); });
  world.startAndDrain();
  EXPECT_DEATH(
      world.load("1", 0, 1),
      "We missed notifications that happened to processorTable before the enclosing entity got deleted");
}

}  // namespace
}  // namespace TrelSnmp::Agent
