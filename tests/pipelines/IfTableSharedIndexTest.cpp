// Which link has the row when several links have one interface index.
#include <gmock/gmock.h>

#include "tests/pipelines/IfTableFixture.h"

namespace TrelSnmp::Agent {
namespace {

// The withdrawal of one link must not leave the index without a row until a restart.
TEST_F(IfTablePipeline, IndexGivenToAnotherInterfaceTooAndTakenBack_RowOfTheOtherComesBack) {
  for (Rvx::Mode mode : {Rvx::Mode::asynchronous, Rvx::Mode::synchronous}) {
    IfTableWorld own;
    own.wires(2, 1, "Backplane2/1");
    own.wires(2, 3, "Backplane2/3");
    own.indexIs("Backplane2/1", 2001);
    own.indexIs("Backplane2/3", 2002);
    own.start(mode);
    own.scheduler.drain();
    own.indexIs("Backplane2/3", 2001);
    own.scheduler.drain();
    EXPECT_EQ(own.rows(), "[ 2001=(2,3) ]");
    own.indexIs("Backplane2/3", 2002);
    own.scheduler.drain();
    EXPECT_EQ(own.rows(), "[ 2001=(2,1) 2002=(2,3) ]");
  }
}

TEST_F(IfTablePipeline, OneOfSeveralLinksWithOneIndexGoes_AnotherHasTheRow) {
  world.wires(1, 2, "Backplane1/2");
  world.wires(1, 3, "Backplane1/3");
  world.wires(4, 1, "Backplane4/1");
  for (const char* intf : {"Backplane1/2", "Backplane1/3", "Backplane4/1"}) world.indexIs(intf, 10);
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ 10=(4,1) ]");
  world.leaves(4);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,3) ]");
  world.unwires(1, 3);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
  world.indexDel("Backplane1/2");
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(IfTablePipeline, InterfaceOfTwoLinksLosesAnIndexThatAThirdLinkHas_TheThirdIsProcessedOnce) {
  world.start(Rvx::Mode::synchronous);
  world.indexIs("Backplane1", 10);
  world.indexIs("Backplane2", 10);
  world.wires(1, 3, "Backplane1");
  world.wires(1, 4, "Backplane2");
  world.wires(1, 2, "Backplane1");
  EXPECT_EQ(world.rows(), "[ 10=(1,2) ]");
  takePublished();
  traces.clear();
  world.indexDel("Backplane1");
  EXPECT_EQ(world.rows(), "[ 10=(1,4) ]");
  EXPECT_EQ(takePublished(), "-10 +10 ");
  EXPECT_EQ(traces.count(line(7, topoElement(1, 4))), 1U);
}

TEST_F(IfTablePipeline, TwoLinksWithOneIndex_StatusAndLogNameThem) {
  const std::string both =
      "ifIndex 10 is given to several links: (firstId=1, secondId=2), (firstId=1, secondId=3); its row shows "
      "(firstId=1, secondId=3); each needs an interface and an index of its own";
  world.wires(1, 2, "Backplane1/2");
  world.wires(1, 3, "Backplane1/3");
  world.indexIs("Backplane1/2", 10);
  world.indexIs("Backplane1/3", 11);
  world.startAndDrain();
  EXPECT_THAT(world.sm->conflicts(), testing::IsEmpty());
  traces.clear();
  world.indexIs("Backplane1/3", 10);
  world.scheduler.drain();
  EXPECT_THAT(world.sm->conflicts(), testing::ElementsAre(both));
  EXPECT_TRUE(traces.contains(line(1, both)));
  world.indexIs("Backplane1/3", 11);
  world.scheduler.drain();
  EXPECT_THAT(world.sm->conflicts(), testing::IsEmpty());
  EXPECT_TRUE(traces.contains(line(1, "ifIndex 10 is given to one link only now: (firstId=1, secondId=2)")));
}

TEST_F(IfTablePipeline, SubscriberThrowsAtAWithdrawal_AnotherLinkOfThatIndexHasTheRowAllTheSame) {
  world.start(Rvx::Mode::synchronous);
  for (uint8_t remote = 2; remote < 4; ++remote) {
    world.wires(1, remote, fmt::format("Backplane1/{}", remote));
    world.indexIs(fmt::format("Backplane1/{}", remote), 10);
  }
  int throws = 1;
  auto throwing = world.mib->publisher().subscribe([&](const TrelMib::Change&) {
    if (throws-- > 0) throw std::runtime_error("no");
  });
  EXPECT_THROW(world.indexIs("Backplane1/3", 11), std::runtime_error);
  EXPECT_EQ(world.rows(), "[ ]");
  world.indexIs("Ethernet1", 99);
  EXPECT_EQ(world.rows(), "[ 10=(1,2) 11=(1,3) ]");
}

}  // namespace
}  // namespace TrelSnmp::Agent
