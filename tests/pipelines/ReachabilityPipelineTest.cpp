// What the reachability table holds as members come, report, change their minds and leave.
#include <gtest/gtest.h>

#include "tests/pipelines/ReachabilityWorld.h"
#include "tests/pipelines/Untraced.h"
#include "tests/support/TraceLog.h"

namespace TrelSnmp::Agent {
namespace {

using State = Trel::ReachabilityState;

// Every publication of the table, "+(1,3)" for an insertion and "-(1,3)" for a removal, since the last
// take().
class Publications {
 public:
  explicit Publications(const TrelMib& mib)
      : subscription_(mib.publisher().subscribe([this](const TrelMib::Change& change) {
          const auto& key = std::get<MemberIdPair>(change.key);
          text_ += fmt::format("{}({},{}) ", change.entry ? '+' : '-', key.firstId(), key.secondId());
        })) {}
  std::string take() { return std::exchange(text_, ""); }

 private:
  std::string text_;
  Kor::Subscription subscription_;
};

class ReachabilityPipeline : public Untraced {
 protected:
  ReachabilityWorld world;
};

TEST_F(ReachabilityPipeline, MembersReport_EachPairIsItsOwnRow) {
  world.reports("3", 5, State::reachable);
  world.reports("5", 3, State::degraded);
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ (3,5)=reachable (5,3)=degraded ]");
}

TEST_F(ReachabilityPipeline, EveryState_ReachesTheTable) {
  for (uint8_t s = 0; s < Kor::kNames<State::State>.size(); ++s)
    world.reports("1", s, static_cast<State::State>(s));
  world.startAndDrain();
  EXPECT_EQ(
      world.rows(),
      "[ (1,0)=unknown (1,1)=initializing (1,2)=reachable (1,3)=degraded (1,4)=unreachable (1,5)=disabled ]");
}

TEST_F(ReachabilityPipeline, RowsCarryTheVeryRecords) {
  auto record = world.record(State::reachable);
  world.reports("1", 2, record);
  world.startAndDrain();
  auto row = world.mib->trelReachabilityTable({1, 2});
  EXPECT_EQ(row->reachabilityState(), record);
  EXPECT_EQ(row->ifMib(), world.ifMib);
}

TEST_F(ReachabilityPipeline, NeighbourAppears_OneRowIsInserted) {
  world.joins("1");
  world.startAndDrain();
  Publications published(*world.mib);
  world.reports("1", 2, State::reachable);
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
  EXPECT_EQ(published.take(), "+(1,2) ");
}

TEST_F(ReachabilityPipeline, NewRecord_RowIsDeletedThenInserted) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  Publications published(*world.mib);
  world.reports("1", 2, State::unreachable);
  EXPECT_EQ(world.rows(), "[ (1,2)=unreachable ]");
  EXPECT_EQ(published.take(), "-(1,2) +(1,2) ");
}

TEST_F(ReachabilityPipeline, SameRecordAnnouncedAgain_RowStays) {
  auto record = world.record(State::reachable);
  world.reports("1", 2, record);
  world.startAndDrain();
  Publications published(*world.mib);
  uint32_t version = world.mib->trelReachabilityTable().version();
  world.reports("1", 2, record);
  EXPECT_EQ(published.take(), "");
  EXPECT_EQ(world.mib->trelReachabilityTable().version(), version);
}

TEST_F(ReachabilityPipeline, EqualStateInANewRecord_RowIsWrittenAnew) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  Publications published(*world.mib);
  world.reports("1", 2, State::reachable);
  EXPECT_EQ(published.take(), "-(1,2) +(1,2) ");
}

TEST_F(ReachabilityPipeline, NeighbourVanishes_ItsRowGoes_OthersStay) {
  for (uint8_t neighbour : std::initializer_list<uint8_t>{2, 3, 4})
    world.reports("1", neighbour, State::reachable);
  world.startAndDrain();
  Publications published(*world.mib);
  world.withdraws("1", 3);
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (1,4)=reachable ]");
  EXPECT_EQ(published.take(), "-(1,3) ");
}

TEST_F(ReachabilityPipeline, MemberLeaves_ItsRowsVanish_WhatOthersReportOfItStays) {
  world.reports("1", 3, State::reachable);
  world.reports("3", 1, State::reachable);
  world.reports("3", 2, State::reachable);
  world.startAndDrain();
  Publications published(*world.mib);
  world.leaves("3");
  EXPECT_EQ(world.rows(), "[ (1,3)=reachable ]");
  EXPECT_EQ(published.take(), "-(3,1) -(3,2) ");
}

TEST_F(ReachabilityPipeline, MemberJoinsLater_ItsRowsAppearAtOnce) {
  world.startAndDrain();
  auto entity = Zavro::makePtr<Trel::ReachabilityStatus>("7");
  entity->reachabilityStatus().set(Trel::MemberId(1), world.record(State::reachable));
  entity->reachabilityStatus().set(Trel::MemberId(2), world.record(State::disabled));
  world.dir->entityPtrIs(entity);
  EXPECT_EQ(world.rows(), "[ (7,1)=reachable (7,2)=disabled ]");
}

TEST_F(ReachabilityPipeline, EntityReplaced_OldRowsGoBeforeNewOnesCome) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  world.startAndDrain();
  Publications published(*world.mib);
  auto entity = Zavro::makePtr<Trel::ReachabilityStatus>("1");
  entity->reachabilityStatus().set(Trel::MemberId(3), world.record(State::degraded));
  world.dir->entityPtrIs(entity);
  EXPECT_EQ(published.take(), "-(1,2) -(1,3) +(1,3) ");
  EXPECT_EQ(world.rows(), "[ (1,3)=degraded ]");
}

TEST_F(ReachabilityPipeline, ReplacedEntityIsNotFollowedAnyMore) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  auto old = boost::static_pointer_cast<Trel::ReachabilityStatus>(world.dir->entityPtr("1"));
  world.joins("1");
  old->reachabilityStatus().set(Trel::MemberId(9), world.record(State::reachable));
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_EQ(old->reachabilityStatus().subscribers(), 0U);
}

TEST_F(ReachabilityPipeline, SameEntityAnnouncedAgain_NothingIsWritten) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  Publications published(*world.mib);
  world.dir->entityPtrIs(world.dir->entityPtr("1"));
  EXPECT_EQ(published.take(), "");
}

TEST_F(ReachabilityPipeline, EntityOfAnotherType_CountsAsAbsentAndIsTraced) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  TraceLog traces;
  world.dir->entityPtrIs("1", Zavro::makePtr<Kor::Dir>("1"));
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_TRUE(
      traces.contains("TrelSnmpReachabilityTableSm/1 dynamic cast to type "
                      "::Trel::ReachabilityStatus::RawPtrConst from Kor::Entity::PtrConst failed."));
}

TEST_F(ReachabilityPipeline, EntityOfAnotherTypeFromTheStart_OthersAreServed) {
  world.dir->entityPtrIs("1", Zavro::makePtr<Kor::Dir>("1"));
  world.reports("2", 1, State::reachable);
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ (2,1)=reachable ]");
}

TEST_F(ReachabilityPipeline, KeyThatIsNoMemberId_CountsAsMemberZero) {
  world.reports("spine-a", 4, State::reachable);
  world.reports("256", 5, State::reachable);
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ (0,4)=reachable (0,5)=reachable ]");
}

TEST_F(ReachabilityPipeline, TwoKeysThatSpellOneMember_LaterEventWins) {
  world.reports("3", 1, State::reachable);
  world.startAndDrain();
  world.reports("03", 1, State::unreachable);
  EXPECT_EQ(world.rows(), "[ (3,1)=unreachable ]");
  world.leaves("03");
  EXPECT_EQ(world.rows(), "[ ]");
  world.reports("3", 1, State::degraded);
  EXPECT_EQ(world.rows(), "[ (3,1)=degraded ]");
}

TEST_F(ReachabilityPipeline, MemberIdsAtTheEdge_ReachTheTable) {
  world.reports("0", 255, State::reachable);
  world.reports("255", 0, State::reachable);
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ (0,255)=reachable (255,0)=reachable ]");
}

TEST_F(ReachabilityPipeline, InterfaceIndexes_AreReadWhenTheRowIsRead) {
  auto record = Zavro::makePtr<State>(State::reachable, Lanix::IntfId("Backplane1/2"), 0);
  world.reports("1", 2, record);
  world.startAndDrain();
  Publications published(*world.mib);
  auto row = world.mib->trelReachabilityTable({1, 2});
  EXPECT_EQ(row->baIfIndex(), 0U);
  world.ifMib->ifIndexByIntfId().set(Lanix::IntfId("Backplane1/2"), 70);
  EXPECT_EQ(row->baIfIndex(), 70U);
  EXPECT_EQ(published.take(), "");
}

TEST_F(ReachabilityPipeline, DroppedPipeline_TakesItsRowsAlong) {
  world.reports("1", 2, State::reachable);
  world.staleRow(8, 9, world.record(State::unknown));
  world.startAndDrain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
  world.sm.reset();
  EXPECT_EQ(world.rows(), "[ ]");
}

TEST_F(ReachabilityPipeline, DroppedBeforeItsInitialScanIsDone_AdoptedRowsGoWithIt) {
  world.reports("1", 2, State::reachable);
  world.reports("2", 1, State::reachable);
  world.staleRow(1, 2, world.record(State::degraded));
  world.start();
  world.scheduler.step();
  ASSERT_FALSE(world.sm->initialScanDone());
  world.sm.reset();
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_FALSE(world.scheduler.get()->runnable());
}

TEST_F(ReachabilityPipeline, DroppedPipeline_HoldsNothingAndFollowsNothing) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  world.sm.reset();
  EXPECT_EQ(world.dir->useCount(), 1U);
  EXPECT_EQ(world.ifMib->useCount(), 1U);
  EXPECT_EQ(world.mib->useCount(), 1U);
  EXPECT_EQ(world.dir->entities().subscribers(), 0U);
  EXPECT_EQ(world.member("1")->reachabilityStatus().subscribers(), 0U);
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
}

TEST_F(ReachabilityPipeline, Replaced_RowsStayForTheSuccessor) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  auto old = world.sm;
  old->hasNotificationActiveIs(false);
  world.start();
  Publications published(*world.mib);
  old.reset();
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]");
  EXPECT_EQ(published.take(), "");
}

TEST_F(ReachabilityPipeline, WhileInactive_ChangesWaitUntilItIsActiveAgain) {
  world.reports("1", 2, State::reachable);
  world.reports("4", 2, State::reachable);
  world.startAndDrain();
  world.sm->hasNotificationActiveIs(false);
  world.reports("1", 3, State::reachable);
  world.withdraws("1", 2);
  world.leaves("4");
  world.reports("5", 1, State::degraded);
  EXPECT_EQ(world.rows(), "[ (1,2)=reachable (4,2)=reachable ]");
  world.sm->hasNotificationActiveIs(true);
  EXPECT_EQ(world.rows(), "[ (1,3)=reachable (5,1)=degraded ]");
}

TEST_F(ReachabilityPipeline, DroppedWhileInactive_RowsOfVanishedNeighboursGoToo) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  world.startAndDrain();
  world.sm->hasNotificationActiveIs(false);
  world.withdraws("1", 2);
  world.sm.reset();
  EXPECT_EQ(world.rows(), "[ ]");
}

}  // namespace
}  // namespace TrelSnmp::Agent
