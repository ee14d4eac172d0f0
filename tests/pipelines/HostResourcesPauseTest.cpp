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
