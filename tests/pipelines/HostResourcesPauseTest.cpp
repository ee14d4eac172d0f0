// The pipeline of the system and the processor table is inactive for a while: changes wait, and scans and
// reconciliation go on where they stopped, wherever that was.
#include "tests/pipelines/HostFixture.h"

namespace TrelSnmp::Agent {
namespace {

using HostResourcesPipeline = HostPipeline;

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

}  // namespace
}  // namespace TrelSnmp::Agent
