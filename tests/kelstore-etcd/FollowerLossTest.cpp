// The follower loses its server, its watch or what it was told last: what it holds, where it resumes, when it
// lists anew, and for how long it waits before it tries again.
#include <gmock/gmock.h>

#include "tests/kelstore-etcd/FollowerFixture.h"

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(FollowerTest, StoreIsLost_WhatItSaidIsHeld_AndTheWatchIsResumed) {
  watching();
  says(at(11), {put("p/a", "7", 11)});
  batches();
  follower_.lost(now_, "broken");
  EXPECT_EQ(follower_.state(), State::held);
  EXPECT_FALSE(follower_.connected());
  EXPECT_EQ(follower_.lastError(), "broken");
  EXPECT_THAT(commands(), ElementsAre("disconnect"));
  advance(Follower::kFirstRetryMs);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/a at 11 x1"));
  page(at(15), {record("p/a", "7", 11)}, true);
  EXPECT_THAT(commands(), ElementsAre("watch 12"));
  EXPECT_EQ(follower_.state(), State::held);
  created(at(15));
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.counters().reconnections, 1u);
  EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(FollowerTest, RevisionIsCompactedMeanwhile_OnlyTheDifferenceIsTold) {
  watching();
  reconnecting();
  commands();
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::noRevision, "compacted");
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
  EXPECT_EQ(follower_.state(), State::held);
  page(at(30), {record("p/a", "1", 3), record("p/b", "9", 25)}, true);
  EXPECT_EQ(follower_.state(), State::listing);
  page(at(30), {record("p/c", "3", 26)});
  EXPECT_THAT(batches(), ElementsAre("30: p/b=9 p/c=3"));
  EXPECT_THAT(commands(), ElementsAre("read p/b+ at 30 x1000", "watch 31"));
  created(at(30));
  EXPECT_EQ(follower_.counters().relists, 1u);
}

TEST_F(FollowerTest, KeysVanishedDuringTheGap_AreWithdrawnByTheListing) {
  watching();
  reconnecting();
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::noRevision, "compacted");
  page(at(30), {record("p/b", "2", 5)});
  EXPECT_THAT(batches(), ElementsAre("30: -p/a"));
}

TEST_F(FollowerTest, OnlyTheLeaseOfAKeyChanged_IsTold) {
  watching();
  reconnecting();
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::noRevision, "compacted");
  page(at(30), {record("p/a", "1", 13, 77), record("p/b", "2", 5)});
  EXPECT_THAT(batches(), ElementsAre("30: p/a=1"));
}

TEST_F(FollowerTest, WatchIsCompacted_ThereIsANewListing) {
  watching();
  canceled(20);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
  EXPECT_EQ(follower_.state(), State::held);
}

TEST_F(FollowerTest, WatchIsCompactedAgainAndAgain_TimePassesInBetween) {
  watching();
  canceled(20);
  page(at(20), {});
  created(at(20));
  commands();
  canceled(30);
  EXPECT_THAT(commands(), ElementsAre("disconnect"));
  advance(Follower::kFirstRetryMs);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
}

TEST_F(FollowerTest, WatchIsCompactedAgainMuchLater_IsAnsweredAtOnce) {
  watching();
  canceled(20);
  page(at(20), {});
  created(at(20));
  now_ += Follower::kStableMs;
  commands();
  canceled(30);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
}

TEST_F(FollowerTest, WatchIsRefused_TheReasonIsShown_AndThereIsANewListingLater) {
  watching();
  canceled(0, "permission denied");
  EXPECT_EQ(follower_.lastError(), "h0:1: the watch was cancelled: permission denied");
  EXPECT_EQ(follower_.state(), State::held);
  EXPECT_THAT(commands(), ElementsAre("disconnect"));
  advance(Follower::kFirstRetryMs);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
}

TEST_F(FollowerTest, QuietWatch_IsAskedForAWord_AndSilenceIsALoss) {
  watching();
  advance(Follower::kQuietMs);
  EXPECT_THAT(commands(), ElementsAre("progress?"));
  says(at(10), {});
  advance(Follower::kQuietMs);
  EXPECT_THAT(commands(), ElementsAre("progress?"));
  advance(Follower::kSilenceMs - Follower::kQuietMs - 1);
  EXPECT_THAT(commands(), IsEmpty());
  EXPECT_EQ(follower_.state(), State::watching);
  advance(1);
  EXPECT_THAT(commands(), ElementsAre("disconnect"));
  EXPECT_EQ(follower_.state(), State::held);
  EXPECT_EQ(follower_.lastError(), "h0:1: silence for 30 s");
}

TEST_F(FollowerTest, ResumedWatchNeverTellsWhatThereIs_ThereIsAListingInstead) {
  watching();
  reconnecting();
  resumes(at(5000));
  created(at(5000));
  commands();
  advance(Follower::kSilenceMs);
  EXPECT_EQ(follower_.lastError(), "h0:1: silence for 30 s");
  advance(Follower::kLastRetryMs);
  EXPECT_EQ(commands().back(), "read p/ at 0 x1000");
}

TEST_F(FollowerTest, WatchGoesSilentAfterItTold_ItIsResumed) {
  watching();
  reconnecting();
  resumes(at(5000));
  created(at(5000));
  says(at(5000), {put("p/a", "7", 4000)});
  commands();
  advance(Follower::kSilenceMs);
  EXPECT_EQ(follower_.lastError(), "h0:1: silence for 30 s");
  advance(Follower::kFirstRetryMs);
  EXPECT_EQ(commands().back(), "read p/a at 4000 x1");
}

TEST_F(FollowerTest, PagesOfAResync_DoNotHideTheSilenceOfTheWatch) {
  watching();
  reconnecting();
  resumes(at(10));
  created(at(10));
  advance(Follower::kResumedResyncMs);
  while (follower_.state() == State::watching && now_ < 2'000'000) {
    page(at(10), {record("p/a", "1", 3)}, true);
    advance(1000);
  }
  EXPECT_EQ(follower_.lastError(), "h0:1: silence for 30 s");
}

TEST_F(FollowerTest, LostForLong_IsStale_UntilTheWatchIsBack) {
  watching();
  follower_.lost(now_, "broken");
  uint64_t lostAt = now_;
  while (now_ < lostAt + 300'000 - 20'000) {
    advance(1000);
    follower_.lost(now_, "refused");
  }
  EXPECT_EQ(follower_.state(), State::held);
  now_ = lostAt + 300'000;
  follower_.elapsed(now_);
  EXPECT_EQ(follower_.state(), State::stale);
  follower_.lost(now_, "refused");
  advance(Follower::kLastRetryMs);
  commands();
  resumes(at(10));
  EXPECT_EQ(follower_.state(), State::stale) << "as long as it is not up to date";
  created(at(10));
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_THAT(batches(), IsEmpty());
  follower_.lost(now_, "broken");
  EXPECT_EQ(follower_.state(), State::held) << "it is lost anew";
}

TEST_F(FollowerTest, ListingFailsAgainAndAgain_TheTimeItIsHeldGoesOn) {
  watching();
  uint64_t lostAt = now_;
  reconnecting();
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::noRevision, "compacted");
  while (now_ < lostAt + 299'000) {
    if (follower_.state() == State::held) page(at(30), {record("p/a", "1", 3)}, true);
    follower_.lost(now_, "broken");
    advance(1000);
  }
  EXPECT_NE(follower_.state(), State::stale);
  advance(2000);
  EXPECT_EQ(follower_.state(), State::stale);
}

TEST_F(FollowerTest, NeverReached_IsListing_AndTriedForEverAtGrowingDelays) {
  follower_.start(now_);
  std::vector<uint64_t> delays;
  for (int i = 0; i < 9; ++i) {
    follower_.lost(now_, "refused");
    delays.push_back(follower_.wakeAtMs() - now_);
    advance(delays.back());
  }
  EXPECT_THAT(delays, ElementsAre(125, 250, 500, 1000, 2000, 4000, 5000, 5000, 5000));
  EXPECT_EQ(follower_.state(), State::listing);
  EXPECT_FALSE(follower_.complete());
}

TEST_F(FollowerTest, DelaysAreSpreadAtRandom) {
  random_ = 0.999;
  follower_.start(now_);
  std::vector<uint64_t> delays;
  for (int i = 0; i < 8; ++i) {
    follower_.lost(now_, "refused");
    delays.push_back(follower_.wakeAtMs() - now_);
    advance(delays.back());
  }
  EXPECT_THAT(delays, ElementsAre(249, 499, 999, 1999, 3998, 7996, 9995, 9995));
}

TEST_F(FollowerTest, WatchThatLastsStartsTheDelaysAnew_OneThatDoesNotDoesNot) {
  watching();
  for (int i = 0; i < 3; ++i)
    reconnecting(), follower_.lost(now_, "refused"), advance(Follower::kLastRetryMs);
  resumes(at(10));
  created(at(10));
  commands();
  follower_.lost(now_, "broken");
  EXPECT_GT(follower_.wakeAtMs() - now_, Follower::kFirstRetryMs);
  advance(Follower::kLastRetryMs);
  resumes(at(10));
  created(at(10));
  now_ += Follower::kStableMs;
  follower_.lost(now_, "broken");
  EXPECT_EQ(follower_.wakeAtMs() - now_, Follower::kFirstRetryMs / 2);
}

class ThreeServersTest : public FollowerTest {
 protected:
  ThreeServersTest() : FollowerTest({"h0:1", "h1:1", "h2:1"}) {}
};

TEST_F(ThreeServersTest, LostServer_TheOthersAreTriedAtOnce_ThenTimePasses) {
  watching();
  Texts tried;
  std::vector<uint64_t> delays;
  for (int i = 0; i < 6; ++i) {
    follower_.lost(now_, "refused");
    delays.push_back(follower_.wakeAtMs() - now_);
    advance(delays.back());
    EXPECT_EQ(commands().at(1), fmt::format("connect h{}:1", (i + 1) % 3));
  }
  EXPECT_THAT(delays, ElementsAre(25, 25, 125, 25, 25, 250));
}

TEST_F(ThreeServersTest, ListingGoesOnAtTheNextServer) {
  follower_.start(now_);
  follower_.lost(now_, "refused");
  advance(Follower::kFailoverMs);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000", "disconnect", "connect h1:1",
                                      "read p/ at 0 x1000"));
  EXPECT_EQ(follower_.endpoint(), "h1:1");
}

// How long each of so many servers in turn is listened to in vain, in seconds.
std::vector<double> patience(Follower& follower, uint64_t now, int servers) {
  std::vector<double> seconds;
  follower.start(now);
  for (int i = 0; i < servers; ++i) {
    uint64_t asked = now;
    while (follower.pageAsked() != 0) follower.elapsed(now = follower.wakeAtMs());
    seconds.push_back(static_cast<double>(now - asked) / 1000);
    while (follower.pageAsked() == 0) follower.elapsed(now = follower.wakeAtMs());
  }
  return seconds;
}

// Each silent server took ten seconds, while the one behind it was well.
TEST_F(ThreeServersTest, NothingIsKnownYet_SilentServersAreLeftSoon_ButGivenMoreTimeInEachRound) {
  EXPECT_THAT(patience(follower_, now_, 15), ElementsAre(1, 1, 1, 2, 2, 2, 4, 4, 4, 8, 8, 8, 10, 10, 10));
}

TEST_F(FollowerTest, NothingIsKnownYet_TheOnlyServerHasAllTheTime) {
  EXPECT_THAT(patience(follower_, now_, 2), ElementsAre(10, 10));
}

TEST_F(ThreeServersTest, ServerThatBeganToAnswer_HasAllTheTime) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  commands();
  advance(Follower::kAnswerMs - 1);
  EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(ThreeServersTest, SomethingIsKnown_SilentServersHaveAllTheTime) {
  watching();
  follower_.lost(now_, "broken");
  advance(follower_.wakeAtMs() - now_);
  EXPECT_EQ(commands().back(), "read p/b at 10 x1");
  advance(Follower::kAnswerMs - 1);
  EXPECT_THAT(commands(), IsEmpty());
}

// A server that is slow is not out of reach: it is asked again.
TEST_F(ThreeServersTest, ServersAreLeftBeforeTheirTime_TheyWereNotTriedInVain) {
  follower_.start(now_);
  while (follower_.endpoint() != "h2:1") advance(1);
  EXPECT_EQ(follower_.lastError(), "h1:1: no answer for 1 s");
  advance(Follower::kFailoverMs);
  follower_.lost(now_, "refused");
  EXPECT_FALSE(follower_.unreached());
  advance(Follower::kFirstRetryMs);
  for (int i = 0; i < 2; ++i) {
    follower_.lost(now_, "refused");
    EXPECT_EQ(follower_.unreached(), i == 1);
    advance(Follower::kFailoverMs);
  }
}

}  // namespace
}  // namespace Kelstore::Etcd
