// What the system and the processor table hold as members come, change and leave.
#include "tests/pipelines/HostFixture.h"

namespace TrelSnmp::Agent {
namespace {

using HostResourcesPipeline = HostPipeline;

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

TEST_F(HostResourcesPipeline, OnChildEventByName_IsOfTheStreamThatIsInsideChildren) {
  world.load("1", 0, 7);
  world.startAndDrain();
  world.mib->trelProcessorTableDel({1, 0});
  world.mib->trelHrSystemTableDel(1);
  HostPublications published(*world.mib);
  Kor::invoke(*world.sm->machines()[0], "onChildEvent1");
  EXPECT_EQ(published.take(), "+processor(1,0) ");
  EXPECT_THROW(Kor::invoke(*world.sm->machines()[0], "onChildEvent0"), Kor::NoSuchMemberException);
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

}  // namespace
}  // namespace TrelSnmp::Agent
