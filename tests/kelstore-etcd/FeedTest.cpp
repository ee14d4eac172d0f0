// From what a follower is told to what the event loop finds: state, status, and the lines of the log.
#include <gmock/gmock.h>

#include "tests/kelstore-etcd/FeedFixture.h"

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ClearingFeedTest : public FeedTest {
 protected:
  ClearingFeedTest() : FeedTest(true) {}
};

TEST_F(FeedTest, FirstListing_IsHandedOverAndSettles) {
  follower_.start(now());
  follows();
  EXPECT_EQ(take(), "");
  EXPECT_FALSE(settled_);
  EXPECT_EQ(status().state, "listing");
  EXPECT_EQ(status().endpoint, "");
  listed({{"p/interfaces/a", R"({"ifIndex": 1})", 3, 0}});
  EXPECT_EQ(take(), "interfaces/a");
  EXPECT_TRUE(settled_);
  created();
  EXPECT_EQ(take(), "");
  EXPECT_THAT(lines_, ElementsAre("1 follows h0:1 from revision 10"));
  EXPECT_EQ(status().state, "watching");
  EXPECT_EQ(status().endpoint, "h0:1");
  EXPECT_EQ(status().revision, 10);
  EXPECT_EQ(status().heardUtcNs, clock_.utcNs());
}

TEST_F(FeedTest, NothingIsBelowThePrefix_ItIsSaid) {
  follower_.start(now());
  follows();
  listed({});
  created();
  take();
  EXPECT_THAT(lines_,
              ElementsAre("1 follows h0:1 from revision 10, where nothing is below this prefix: see that it "
                          "is the publishers', and that trelmemberd runs on the members"));
}

TEST_F(FeedTest, ClockOfAMemberIsAhead_IsShownAndLogged_AndItsReportsFollow) {
  watching();
  uint64_t changedNs = clock_.utcNs() - 60'000'000'000;
  event({"p/members/1/reachability/2",
         fmt::format(R"({{"state": "reachable", "lastChange": {}}})", changedNs + 500'000'000'000), 11, 77});
  take();
  EXPECT_EQ(status().members.at(0).clockAheadSeconds, std::nullopt);
  for (int64_t revision = 12; revision < 15; ++revision) {
    EXPECT_EQ(take(), revision == 12 ? "" : "members/1/system");
    advance(1000);
    event({"p/members/1/system", systemAt(500), revision, 77});
  }
  Mailbox::Update update = mailbox_.take();
  ASSERT_EQ(update.changed.size(), 2u);
  EXPECT_EQ(update.changed[1].text(), "members/1/reachability/2");
  EXPECT_EQ(update.snapshot->find(update.changed[1])->get<Reachability>().lastChangeNs, changedNs);
  ASSERT_EQ(update.lines.size(), 1u);
  EXPECT_EQ(
      update.lines[0].text,
      "the clock of member 1 is 500.0 s ahead of this machine's: the times of its changes are corrected");
  EXPECT_EQ(status().members.at(0).clockAheadSeconds, 500);
  EXPECT_EQ(status().members.at(0).clockErrorSeconds, 1);
}

// What a listing shows may have been written long ago.
TEST_F(FeedTest, MemberIsListedAgain_ItsTimeSaysNothing) {
  watching();
  for (int64_t revision = 11; revision < 16; ++revision) {
    advance(1000);
    feed_.startsAnew();
    follower_ = newFollower();
    follower_.start(now());
    follows();
    listed({processor(), {"p/members/1/system", systemAt(-500), revision, 77}}, revision);
    created(revision);
    EXPECT_EQ(take(), revision == 11 ? "-interfaces/a members/1/system" : "members/1/system");
  }
  EXPECT_EQ(status().members.at(0).clockAheadSeconds, std::nullopt);
}

TEST_F(FeedTest, MemberThatReadsNothing_IsAMember) {
  follower_.start(now());
  follows();
  listed({{"p/members/7/unread/users", R"({"state": "fails", "since": 1, "error": "gone"})", 3, 5}});
  ASSERT_EQ(status().members.size(), 1u);
  EXPECT_EQ(status().members[0].member, "7");
  EXPECT_TRUE(status().members[0].leased);
}

TEST_F(FeedTest, NoServerIsReached_ItSettlesWithNothing_OnceAllWereTried) {
  follower_.start(now());
  follower_.lost(now(), "h0:1: refused");
  follows();
  take();
  EXPECT_FALSE(settled_);
  EXPECT_THAT(lines_, ElementsAre("0 h0:1: refused"));
  EXPECT_EQ(status().staleSinceUtcNs, 0u);
  advance(Follower::kFailoverMs);
  lost();
  take();
  EXPECT_TRUE(settled_);
  EXPECT_EQ(status().staleSinceUtcNs, clock_.utcNs());
  EXPECT_EQ(status().state, "stale") << "nothing is being listed";
  EXPECT_EQ(status().lastError, "h1:1: broken");
}

TEST_F(FeedTest, ChangesAreHandedOver_UnchangedValuesAreNot) {
  watching();
  event({"p/interfaces/a", R"({"ifIndex": 2})", 11, 0});
  EXPECT_EQ(take(), "interfaces/a");
  event({"p/interfaces/a", R"({ "ifIndex": 2 })", 12, 0});
  EXPECT_EQ(take(), "");
  EXPECT_EQ(status().revision, 12);
  event({"p/interfaces/a", "", 13, 0}, true);
  EXPECT_EQ(take(), "-interfaces/a");
}

TEST_F(FeedTest, ValueTurnsBad_TheLastGoodOneStays_AndItsKeyIsShown) {
  watching();
  event({"p/interfaces/a", R"({"ifIndex": "x"})", 11, 0});
  EXPECT_EQ(take(), "");
  EXPECT_THAT(lines_, ElementsAre("0 key p/interfaces/a: ifIndex: found \"x\", expected an integer from 0 to "
                                  "4294967295"));
  EXPECT_EQ(status().setAside, 1u);
  ASSERT_EQ(status().examples.size(), 1u);
  EXPECT_EQ(status().examples.front().key, "p/interfaces/a");
  event({"p/interfaces/a", "", 12, 0}, true);
  EXPECT_EQ(take(), "-interfaces/a") << "the value that had stayed";
  EXPECT_EQ(status().setAside, 0u);
}

TEST_F(FeedTest, TooManyKeysOfOneMember_AreRefusedCountedAndShown_OthersAreServed) {
  watching();
  for (int i = 2; i <= 10; ++i) {
    event({fmt::format("p/members/1/processors/{}", i), R"({"load": 1})", 10 + i, 77});
  }
  event({"p/members/2/processors/1", R"({"load": 1})", 30, 78});
  EXPECT_EQ(take(), "members/1/processors/2 members/1/processors/3 members/2/processors/1");
  EXPECT_THAT(lines_, ElementsAre("0 members/1/processors: 1 left out, as there are more than 3; one is "
                                  "p/members/1/processors/4"));
  EXPECT_EQ(status().setAside, 7u);
  EXPECT_EQ(counter("refused"), 7u);
  ASSERT_EQ(status().examples.size(), 1u);
  EXPECT_EQ(status().examples[0].key, "members/1/processors");
  EXPECT_EQ(status().examples[0].error,
            "7 left out, as there are more than 3; one is p/members/1/processors/4");
}

TEST_F(FeedTest, KeysThatAreTooLong_AreRefused) {
  watching();
  event({"p/interfaces/" + std::string(1024, 'a'), R"({"ifIndex": 1})", 11, 0});
  EXPECT_EQ(take(), "");
  EXPECT_EQ(status().setAside, 1u);
  EXPECT_EQ(status().examples.at(0).key, "keys that are too long");
}

TEST_F(FeedTest, KeysThatAreNotOfTheState_AreIgnoredWithOneLine) {
  watching();
  event({"p/colour", "red", 11, 0});
  EXPECT_EQ(take(), "");
  EXPECT_THAT(lines_, ElementsAre("1 key p/colour: not of the state model; such keys are ignored"));
  event({"p/colour", "blue", 12, 0});
  event({"p/members/1/mood", "good", 13, 0});
  event({"p/members/1/mood", "", 14, 0}, true);
  take();
  EXPECT_THAT(lines_, IsEmpty());
  EXPECT_EQ(status().setAside, 0u);
  EXPECT_EQ(follower_.keys(), 2u) << "they take no room";
}

// As after there was no memory for what was told.
TEST_F(FeedTest, StartsAnew_WhatWasToldIsStale_ThenWhatIsNotThereAnyMoreGoes) {
  watching();
  event({"p/interfaces/b", R"({"ifIndex": 2})", 11, 0});
  event({"p/interfaces/c", R"({"ifIndex": 3})", 12, 0});
  take();
  follower_ = newFollower();
  follower_.startAfter(1000, now(), "out of memory");
  feed_.startsAnew();
  follows();
  EXPECT_EQ(take(), "");
  EXPECT_THAT(lines_, ElementsAre("0 out of memory"));
  EXPECT_EQ(status().staleSinceUtcNs, clock_.utcNs());
  EXPECT_EQ(status().lastError, "out of memory");
  advance(999);
  EXPECT_EQ(follower_.pageAsked(), 0u);
  advance(1);
  listed({{"p/interfaces/a", R"({"ifIndex": 1})", 3, 0},
          {"p/interfaces/b", R"({"ifIndex": 9})", 13, 0},
          {"p/interfaces/c", "bad", 14, 0},
          {"p/interfaces/d", R"({"ifIndex": 4})", 15, 0}},
         20);
  EXPECT_EQ(take(), "interfaces/b interfaces/d -members/1/processors/1");
  EXPECT_THAT(status().members, IsEmpty());
  EXPECT_EQ(status().setAside, 1u);
  created(20);
  EXPECT_EQ(status().staleSinceUtcNs, 0u);
  EXPECT_EQ(status().state, "watching");
}

TEST_F(FeedTest, StoreIsLost_HeldThenStale_EachSinceItBegan_AndToldOnce) {
  watching();
  lost();
  uint64_t lostAt = clock_.utcNs();
  EXPECT_EQ(take(), "");
  EXPECT_THAT(lines_, ElementsAre("0 h1:1: broken"));
  EXPECT_EQ(status().state, "held");
  EXPECT_EQ(status().endpoint, "");
  EXPECT_EQ(status().heldSinceUtcNs, lostAt);
  advance(200);
  lost();
  take();
  EXPECT_THAT(lines_, IsEmpty()) << "the same error is told once";
  advance(kHoldMs - 200);
  EXPECT_EQ(take(), "");
  EXPECT_THAT(lines_, testing::Contains("0 out of reach for too long: what it said last is stale"));
  EXPECT_EQ(status().state, "stale");
  EXPECT_EQ(status().heldSinceUtcNs, lostAt);
  EXPECT_EQ(status().staleSinceUtcNs, clock_.utcNs());
  resumed();
  EXPECT_EQ(take(), "");
  EXPECT_EQ(status().state, "watching");
  EXPECT_EQ(status().heldSinceUtcNs, 0u);
  EXPECT_EQ(status().staleSinceUtcNs, 0u);
  EXPECT_EQ(status().lastError, "h1:1: broken");
  EXPECT_EQ(counter("reconnections"), 1u);
}

TEST_F(FeedTest, ServerHasAnotherStore_WhatWasReadStays_AndItIsToldOnceAndShown) {
  watching();
  reconnecting();
  take();
  std::vector<std::string> told;
  for (int i = 0; i < 5; ++i) {
    follower_.pageRead(now(), follower_.pageAsked(), {{8, 10, 2}, {}, false});
    follows();
    EXPECT_EQ(take(), "");
    told.insert(told.end(), lines_.begin(), lines_.end());
    EXPECT_EQ(status().state, "held");
    EXPECT_EQ(status().otherStore, follower_.otherStore());
    EXPECT_NE(status().otherStore, "");
    reconnecting();
  }
  EXPECT_EQ(std::set<std::string>(told.begin(), told.end()).size(), told.size());
  EXPECT_EQ(
      std::count_if(told.begin(), told.end(),
                    [](const std::string& line) { return line.find("trelctl store accept") != line.npos; }),
      2)
      << "one for each server";
  resumed();
  EXPECT_EQ(status().otherStore, "");
}

class GraceFeedTest : public FeedTest {
 protected:
  GraceFeedTest() : FeedTest(false, 5'000) {}
  void leaseEnds() {
    watching();
    follower_.watchSaid(now(), watchEvents(at(11), {del("p/members/1/processors/1", 11)}));
    follows();
  }
};

TEST_F(GraceFeedTest, LeaseEndsByItself_TheMemberIsShownAsHeld_AndItsValuesGoAfterTheGrace) {
  leaseEnds();
  EXPECT_EQ(take(), "");
  ASSERT_EQ(status().members.size(), 1u);
  EXPECT_EQ(status().members[0].heldSinceUtcNs, clock_.utcNs());
  EXPECT_EQ(status().revision, 11);
  EXPECT_EQ(feed_.wakeAtMs(), now() + Grace::kMostAtOnceMs);
  advance(4'999);
  EXPECT_EQ(take(), "");
  advance(1);
  EXPECT_EQ(take(), "-members/1/processors/1");
  EXPECT_THAT(status().members, IsEmpty());
  EXPECT_EQ(feed_.wakeAtMs(), Follower::kNever);
}

TEST_F(GraceFeedTest, MemberIsBackInTime_ItIsNotHeldAnyMore) {
  leaseEnds();
  Record back{"p/members/1/processors/1", R"({"load": 2})", 12, 78};
  follower_.watchSaid(now(), watchEvents(at(12), {{back, false}}));
  follows();
  EXPECT_EQ(take(), "members/1/processors/1");
  EXPECT_EQ(status().members.at(0).heldSinceUtcNs, 0u);
  advance(5'000);
  EXPECT_EQ(take(), "");
}

// The table of the follower is empty then, which does not mean that nothing was handed over.
TEST_F(GraceFeedTest, AllKeysAreHeld_AnEmptyListingWithdrawsNothingBeforeTheGraceIsOver) {
  follower_.start(now());
  follows();
  listed({processor()});
  created();
  take();
  event({"p/members/1/processors/1", "", 11}, true);
  EXPECT_EQ(take(), "");
  follower_.watchSaid(now(), watchCanceled(at(11), 0, "no leader"));
  follows();
  while (follower_.pageAsked() == 0) advance(1);
  listed({}, 11);
  created(11);
  EXPECT_EQ(take(), "");
  advance(5'000);
  EXPECT_EQ(take(), "-members/1/processors/1");
}

TEST_F(GraceFeedTest, WatchBreaksAgainAndAgain_RowsOfADeadMemberGoAllTheSame) {
  watching();
  event({"p/members/1/processors/1", "", 11}, true);
  std::string gone;
  int breaks = 0;
  for (; gone.empty() && breaks < 10; ++breaks) {
    advance(4'000);
    gone = take();
    if (!gone.empty()) break;
    lost();
    while (follower_.pageAsked() == 0) advance(1);
    follower_.pageRead(now(), follower_.pageAsked(),
                       {at(11), {{"p/interfaces/a", R"({"ifIndex": 1})", 3, 0}}, false});
    created(11);
  }
  EXPECT_EQ(gone, "-members/1/processors/1");
  EXPECT_EQ(breaks, 2);
}

// A leader that stalls revokes the leases and is lost, so that nobody can come back.
TEST_F(GraceFeedTest, StoreIsLostBeforeTheGraceIsOver_TheTimeBeginsWhenItIsBack) {
  leaseEnds();
  lost();
  EXPECT_EQ(feed_.wakeAtMs(), Follower::kNever);
  advance(60'000);
  EXPECT_EQ(take(), "");
  reconnecting();
  follower_.pageRead(now(), follower_.pageAsked(),
                     {at(11), {{"p/interfaces/a", R"({"ifIndex": 1})", 3, 0}}, false});
  created(11);
  EXPECT_EQ(status().state, "watching");
  advance(4'999);
  EXPECT_EQ(take(), "");
  advance(1);
  EXPECT_EQ(take(), "-members/1/processors/1");
}

TEST_F(ClearingFeedTest, Stale_EverythingIsWithdrawn_AndBackWithTheStore) {
  watching();
  lost();
  EXPECT_EQ(take(), "");
  advance(kHoldMs);
  EXPECT_EQ(take(), "-interfaces/a -members/1/processors/1");
  EXPECT_THAT(lines_, testing::Contains("0 out of reach for too long: what it said last is withdrawn"));
  resumed();
  EXPECT_EQ(take(), "interfaces/a members/1/processors/1");
}

TEST_F(ClearingFeedTest, StoreIsBackWithOtherContent_TheOldOneIsNotShownAgain) {
  watching();
  lost();
  advance(kHoldMs);
  take();
  reconnecting();
  follower_.pageFailed(now(), follower_.pageAsked(), PageFailure::noRevision, "compacted");
  follows();
  listed({{"p/interfaces/b", R"({"ifIndex": 1})", 20, 0}}, 20);
  EXPECT_EQ(take(), "") << "as long as it is not followed";
  created(20);
  EXPECT_EQ(take(), "interfaces/b");
}

TEST_F(FeedTest, ResyncRepairs_ItIsTold) {
  watching();
  advance(60'000);  // the silence is a loss
  resumed();
  take();
  advance(Follower::kResumedResyncMs);
  follower_.pageRead(now(), follower_.pageAsked(),
                     {at(10), {{"p/interfaces/a", R"({"ifIndex": 9})", 5, 0}}, false});
  follows();
  EXPECT_EQ(take(), "interfaces/a -members/1/processors/1");
  EXPECT_THAT(lines_,
              ElementsAre("0 h0:1: the watch missed what the resync repaired; another one is opened",
                          "0 the resync found 2 keys that differed from the store, and repaired them"));
  EXPECT_EQ(counter("reopenings"), 1u);
  EXPECT_EQ(counter("repairs"), 2u);
}

// One that failed each time left no trace but the standing count of those that worked.
TEST_F(FeedTest, ResyncsFail_ItIsToldOnce_AndWhenTheyWorkAgain) {
  watching();
  auto resync = [this](const std::string& error) {
    do {
      follower_.watchSaid(now(), watchEvents(at(10)));
      advance(500);
    } while (follower_.pageAsked() == 0);
    for (; !error.empty() && follower_.pageAsked() != 0; advance(Follower::kResyncPauseMs)) {
      follower_.pageFailed(now(), follower_.pageAsked(), PageFailure::other, error);
    }
    if (error.empty()) {
      listed({{"p/interfaces/a", R"({"ifIndex": 1})", 3, 0},
              {"p/members/1/processors/1", R"({"load": 1})", 4, 77}});
    }
    take();
    return lines_;
  };
  EXPECT_THAT(resync(""), IsEmpty());
  EXPECT_THAT(resync("h0:1: too many requests"), ElementsAre("0 the resync failed: h0:1: too many requests"));
  EXPECT_THAT(resync("h0:1: no space"), IsEmpty());
  EXPECT_EQ(counter("resyncFailures"), 2u);
  EXPECT_EQ(counter("resyncs"), 1u);
  EXPECT_THAT(resync(""), ElementsAre("1 resyncs work again"));
  EXPECT_THAT(resync(""), IsEmpty());
  EXPECT_THAT(resync("h0:1: no space"), ElementsAre("0 the resync failed: h0:1: no space"));
  EXPECT_EQ(counter("resyncFailures"), 3u);
  EXPECT_EQ(status().state, "watching");
}

TEST_F(FeedTest, Members_TheirLeaseAndLastChangeAreShown_WhileTheyPublishSomething) {
  watching();
  EXPECT_THAT(status().members, ElementsAre(MemberStatus{"1", true, {}, 0}));
  EXPECT_THAT(feed_.takeLeases(), ElementsAre(77));
  feed_.leaseIs(77, 12, 0);
  EXPECT_THAT(status().members, ElementsAre(MemberStatus{"1", true, 12, 0}));
  advance(1000);
  event({"p/members/2/processors/1", R"({"load": 1})", 11, 0});
  event({"p/members/1/processors/1", R"({"load": 2})", 12, 77});
  EXPECT_THAT(status().members, ElementsAre(MemberStatus{"1", true, 12, clock_.utcNs()},
                                            MemberStatus{"2", false, {}, clock_.utcNs()}));
  event({"p/members/1/processors/1", "", 13, 0}, true);
  EXPECT_THAT(status().members, ElementsAre(MemberStatus{"2", false, {}, clock_.utcNs()}));
  EXPECT_THAT(feed_.takeLeases(), IsEmpty());
}

TEST_F(FeedTest, Leases_EachIsAskedAfterOnce_AndWhatWasKnownIsForgotten) {
  watching();
  event({"p/members/3/processors/1", R"({"load": 1})", 11, 99});
  event({"p/members/2/processors/1", R"({"load": 1})", 12, 0});
  event({"p/members/4/processors/1", R"({"load": 1})", 13, 99});
  EXPECT_THAT(feed_.takeLeases(), ElementsAre(77, 99));
  feed_.leaseIs(77, 12, 15);
  feed_.leaseIs(99, 5, 15);
  // A member that was started anew has a new lease, of which nothing is known yet.
  event({"p/members/3/processors/1", R"({"load": 1})", 14, 100});
  EXPECT_EQ(status().members.at(2).leaseLeftSeconds, std::nullopt);
  EXPECT_EQ(status().members.at(3).leaseLeftSeconds, 5u);
  EXPECT_EQ(status().members.at(3).leaseSeconds, 15u);
  EXPECT_THAT(feed_.takeLeases(), ElementsAre(77, 99, 100));
  for (const MemberStatus& member : status().members) EXPECT_EQ(member.leaseLeftSeconds, std::nullopt);
}

// It was shown with the second that it had left when the store was asked last.
TEST_F(FeedTest, LeaseHasEnded_TheMembersOtherKeysAreShownWithoutOne) {
  watching();
  event({"p/members/1/processors/2", R"({"load": 2})", 11, 0});
  feed_.takeLeases();
  feed_.leaseIs(77, 1, 0);
  event({"p/members/1/processors/1", "", 12, 0}, true);
  EXPECT_THAT(feed_.takeLeases(), ElementsAre(77));
  feed_.leaseIs(77, std::nullopt, 0);
  EXPECT_THAT(status().members, ElementsAre(MemberStatus{"1", false, {}, clock_.utcNs()}));
  EXPECT_THAT(feed_.takeLeases(), IsEmpty());
}

}  // namespace
}  // namespace Kelstore::Etcd
