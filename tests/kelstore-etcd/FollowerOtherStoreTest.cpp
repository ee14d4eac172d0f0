// A server has another store than the one that is followed: it was wiped, restored from a copy, or is the
// wrong one. What was read before stays until another server has the known store again, or none has had it
// for the length of the hold, or an operator accepts the other one.
#include <gmock/gmock.h>

#include "tests/kelstore-etcd/FollowerFixture.h"

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint64_t kOtherStoreHoldMs = 300'000;

class OtherStoreTest : public FollowerTest {
 protected:
  explicit OtherStoreTest(const Texts& endpoints = {"h0:1"}) : FollowerTest(endpoints) {
    watching();
    advance(1000);
    says(at(12), {put("p/b", "3", 12)});
    batches();
  }
  // Goes on to the next attempt.
  void next() {
    while (follower_.pageAsked() == 0) advance(1);
  }
  void loses() {
    follower_.lost(now_, "broken");
    next();
  }
  void untilTheResync() {
    while (follower_.pageAsked() == 0) {
      advance(1000);
      says(at(12), {});
    }
  }
  // The server that is connected next has no revision to resume at, and is listed.
  void cannotResume() {
    follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::noRevision, "no such revision");
    next();
  }
  void unreachableFor(uint64_t ms) {
    for (uint64_t end = now_ + ms; now_ < end;) {
      next();
      follower_.lost(now_, "no route to host");
    }
    next();
  }
  // Whether the server's answer to the next listing is left, so that nothing is told.
  bool isLeft(Header header, const std::vector<Record>& records) {
    next();
    page(header, records);
    return batches().empty() && follower_.state() != State::watching && !follower_.otherStore().empty();
  }
};

class ThreeStoresTest : public OtherStoreTest {
 protected:
  ThreeStoresTest() : OtherStoreTest({"h0:1", "h1:1", "h2:1"}) {}
};

// The empty listing of a wiped server was believed, and every row of the cluster went.
TEST_F(ThreeStoresTest, WipedServerIsNext_WhatIsKnownStays_AndTheServerBehindItIsFollowed) {
  loses();
  EXPECT_EQ(follower_.endpoint(), "h1:1");
  cannotResume();
  EXPECT_TRUE(isLeft(at(1, 8), {}));
  EXPECT_EQ(follower_.otherStore(),
            "h1:1: found cluster 8, expected 7: was it wiped or restored, or is the address wrong? What was "
            "read before stays until no server has had the expected one for 300 s; to take this one over "
            "now: restart trelmemberd on each member, then trelctl store accept");
  EXPECT_EQ(follower_.lastError(), follower_.otherStore());
  next();
  EXPECT_EQ(follower_.endpoint(), "h2:1");
  page(at(15), {record("p/a", "1", 3), record("p/b", "3", 12)});
  created(at(15));
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.otherStore(), "");
  EXPECT_THAT(batches(), ElementsAre("15:"));
}

TEST_F(ThreeStoresTest, EveryServerIsAnotherStore_OneCountsOnceTheHoldIsOver) {
  loses();
  cannotResume();
  uint64_t since = now_;
  while (now_ < since + kOtherStoreHoldMs - 20'000) ASSERT_TRUE(isLeft(at(1, 8), {})) << now_ - since;
  while (now_ < since + kOtherStoreHoldMs) advance(100);
  next();
  page(at(2, 8), {});
  page(at(2, 8), {record("p/a", "other", 2)});
  EXPECT_THAT(batches(), ElementsAre("2: p/a=other -p/b"));
  created(at(2, 8));
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_THAT(follower_.lastError(), HasSubstr("it counts now, as no server had the expected one for 300 s"));
  EXPECT_EQ(follower_.otherStore(), "");
}

// A server that has the known store, but cannot be watched, is there all the same.
TEST_F(ThreeStoresTest, OneServerStillHasTheKnownStore_NoOtherEverCounts) {
  follower_.lost(now_, "broken");
  for (uint64_t end = now_ + 2 * kOtherStoreHoldMs; now_ < end;) {
    next();
    if (follower_.endpoint() == "h0:1") {
      page(at(12), {record("p/b", "3", 12)});
      EXPECT_EQ(follower_.otherStore(), "") << "there is nothing to accept";
      follower_.lost(now_, "the watch is refused");
    } else {
      page(at(12, 8), {});
    }
    ASSERT_THAT(batches(), IsEmpty());
  }
  EXPECT_EQ(follower_.state(), State::stale);
}

TEST_F(ThreeStoresTest, WithoutAHold_EveryServerIsTriedFirst) {
  Follower impatient({"p/", {"h0:1", "h1:1", "h2:1"}, 0, 60'000}, [] { return 0.0; });
  std::swap(follower_, impatient);
  watching();
  follower_.lost(now_, "broken");
  for (int server = 1; server <= 2; ++server) {
    next();
    page(at(12, 8), {});
    EXPECT_NE(follower_.otherStore(), "") << server;
  }
  next();
  EXPECT_EQ(follower_.endpoint(), "h0:1");
  page(at(12, 8), {});
  page(at(12, 8), {});
  EXPECT_THAT(batches(), ElementsAre("12: -p/a -p/b"));
}

// Nobody could be asked meanwhile.
TEST_F(ThreeStoresTest, HoldPassesWhileNoServerIsReached_TheFirstThatAnswersDoesNotCount) {
  follower_.lost(now_, "broken");
  unreachableFor(kOtherStoreHoldMs + 60'000);
  while (follower_.endpoint() != "h1:1") {
    follower_.lost(now_, "no route to host");
    next();
  }
  EXPECT_TRUE(isLeft(at(1, 8), {}));
}

TEST_F(ThreeStoresTest, NoServerIsReachedWithinTheHold_ItBeginsAnew) {
  loses();
  EXPECT_TRUE(isLeft(at(1, 8), {}));
  unreachableFor(kOtherStoreHoldMs);
  uint64_t since = now_;
  while (now_ < since + kOtherStoreHoldMs - 20'000) ASSERT_TRUE(isLeft(at(1, 8), {})) << now_ - since;
}

TEST_F(ThreeStoresTest, AsleepForLongerThanTheHold_TheTimeDoesNotCount) {
  loses();
  EXPECT_TRUE(isLeft(at(1, 8), {}));
  EXPECT_TRUE(isLeft(at(1, 8), {}));
  now_ += 2 * kOtherStoreHoldMs;
  EXPECT_TRUE(isLeft(at(1, 8), {}));
}

// The operator has seen the store of h1, and accepted that.
TEST_F(ThreeStoresTest, AcceptedServerBreaksBeforeItIsListed_AThirdStoreDoesNotCount) {
  loses();
  page(at(12, 8), {record("p/a", "other", 9)});
  follower_.accept(now_);
  EXPECT_EQ(follower_.endpoint(), "h1:1");
  loses();
  EXPECT_EQ(follower_.endpoint(), "h2:1");
  page(at(1, 9), {});
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_THAT(follower_.otherStore(), HasSubstr("found cluster 9, expected 8"));
}

// It has compacted what the watch would go on from, and breaks before all of its pages are there.
TEST_F(ThreeStoresTest, KnownStoreCannotBeListedWhole_NoOtherEverCounts) {
  bool resumes = true;
  follower_.lost(now_, "broken");
  for (uint64_t end = now_ + 4 * kOtherStoreHoldMs; now_ < end;) {
    next();
    if (follower_.endpoint() == "h0:1") {
      if (std::exchange(resumes, false)) cannotResume();
      page(at(20), {record("p/a", "1", 3)}, true);
      advance(1000);
      follower_.lost(now_, "broken");
    } else {
      page(at(1, 8), {});
    }
    ASSERT_THAT(batches(), IsEmpty());
  }
}

TEST_F(ThreeStoresTest, KnownStoreIsBeingListed_ThereIsNothingToAccept) {
  loses();
  page(at(1, 8), {});
  next();
  cannotResume();
  EXPECT_EQ(follower_.endpoint(), "h2:1");
  page(at(20), {record("p/a", "1", 3)}, true);
  EXPECT_EQ(follower_.otherStore(), "");
  follower_.accept(now_);
  EXPECT_EQ(follower_.endpoint(), "h2:1");
}

TEST_F(ThreeStoresTest, OperatorAccepts_TheServerWithTheOtherStoreIsListedAtOnce) {
  follower_.accept(now_);
  EXPECT_EQ(follower_.state(), State::watching) << "there is nothing to accept";
  loses();
  page(at(12, 8), {});
  next();
  commands();
  EXPECT_EQ(follower_.endpoint(), "h2:1");
  follower_.accept(now_);
  EXPECT_THAT(commands(), ElementsAre("connect h1:1", "read p/ at 0 x1000"));
  EXPECT_EQ(follower_.lastError(), "h1:1: this store counts now, as an operator says so");
  page(at(13, 8), {record("p/a", "other", 13)});
  EXPECT_THAT(batches(), ElementsAre("13: p/a=other -p/b"));
  created(at(13, 8));
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.lastError(), "") << "it was none";
}

TEST_F(OtherStoreTest, AnotherClusterOrAnOlderHistory_IsLeft_WhereverItShows) {
  for (Header header : {at(20, 8), at(11), at(20, kCluster, 1)}) {
    std::string expected = header.clusterId == kCluster
                               ? "found another history of cluster 7 than was followed"
                               : "found cluster 8, expected 7";
    auto isNamed = [&] {
      return follower_.state() == State::held && follower_.otherStore().find(expected) != std::string::npos;
    };
    loses();
    page(header, {});
    EXPECT_TRUE(isNamed()) << "at the read before the watch";
    next();
    page(at(12), {record("p/b", "3", 12)});
    created(header);
    EXPECT_TRUE(isNamed()) << "at the watch";
    next();
    page(at(12), {record("p/b", "3", 12)});
    created(at(12));
    advance(Follower::kResumedResyncMs);
    page(header, {});
    EXPECT_TRUE(isNamed()) << "at the resync";
    next();
    cannotResume();
    EXPECT_TRUE(isLeft(header, {})) << "at the listing";
    next();
    page(at(12), {record("p/a", "1", 3), record("p/b", "3", 12)});
    created(at(12));
    EXPECT_EQ(follower_.state(), State::watching);
    EXPECT_THAT(batches(), ElementsAre("12:"));
  }
}

// A copy of the store from before p/b changed, with as many changes since then as there had been: neither
// cluster, term nor revision tells. It was resumed, and the old value stayed until the next resync.
TEST_F(OtherStoreTest, RestoredStoreHasOvertaken_TheKeyThatChangedLastTells) {
  for (const Record& other : {record("p/b", "2", 5), record("p/b", "9", 12), record("p/b", "3", 12, 77)}) {
    loses();
    commands();
    page(at(20), {other});
    EXPECT_THAT(follower_.otherStore(), HasSubstr("found another history of cluster 7 than was followed"));
    next();
    EXPECT_EQ(commands().back(), "read p/b at 12 x1");
  }
}

TEST_F(OtherStoreTest, RestoredStoreHasOvertakenAndIsCompacted_TheListingTells) {
  loses();
  cannotResume();
  EXPECT_TRUE(isLeft(at(20), {record("p/a", "4", 20), record("p/b", "2", 5)}));
}

// The key was deleted without a word of the watch, or the store is another one. The listing shows what is.
TEST_F(OtherStoreTest, KeyThatChangedLastIsGone_AllIsListed) {
  for (const std::vector<Record>& found : {std::vector<Record>(), {record("p/c", "3", 7)}}) {
    int64_t revision = follower_.revision() + 10;
    loses();
    page(at(revision), found);
    next();
    page(at(revision), {record("p/a", "1", 3)});
    EXPECT_THAT(batches(), ElementsAre(fmt::format("{}: -p/b", revision)));
    created(at(revision));
    says(at(revision + 1), {put("p/b", "3", revision + 1)});
    batches();
  }
}

TEST_F(OtherStoreTest, ProxyOpensTheWatchByItself_NoOtherStoreIsSeen) {
  loses();
  page(at(20), {record("p/b", "3", 12)});
  created({});
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.otherStore(), "");
}

// It makes up nothing but the opening.
TEST_F(OtherStoreTest, WatchTellsOfAClusterWithoutAnId_IsNotBelieved) {
  loses();
  page(at(20), {record("p/b", "3", 12)});
  created({});
  says({}, {put("p/a", "5", 21)});
  EXPECT_NE(follower_.state(), State::watching);
  EXPECT_THAT(batches(), IsEmpty());
}

// A watch at a proxy goes on when the store behind it is replaced.
TEST_F(OtherStoreTest, ResyncFindsAnotherPast_AllIsListedAnewAndItIsSaid) {
  untilTheResync();
  commands();
  page(at(30), {record("p/a", "1", 2), record("p/b", "3", 12)});
  EXPECT_THAT(follower_.lastError(), HasSubstr("the resync found another history than was followed"));
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
  page(at(30), {record("p/a", "0", 2), record("p/b", "3", 12)});
  EXPECT_THAT(batches(), ElementsAre("30: p/a=0"));
}

TEST_F(OtherStoreTest, ChangesSinceTheRevisionToResumeAt_AreNoOtherPast) {
  // c was repaired from a page that was newer than the last event.
  untilTheResync();
  page(at(20), {record("p/a", "1", 3), record("p/b", "4", 18), record("p/c", "3", 15)});
  says(at(20), {});
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), ElementsAre("12: p/b=4 p/c=3"));
  loses();
  page(at(20), {record("p/a", "1", 3)});
  created(at(20));
  EXPECT_EQ(follower_.state(), State::watching);
}

// What an exhausted memory takes away is what was read, not which store it was.
TEST_F(OtherStoreTest, SuccessorOfAFollower_StillKnowsTheStore) {
  Follower next({"p/", {"h0:1"}, kOtherStoreHoldMs, 60'000}, [] { return 0.0; });
  next.succeeds(follower_);
  std::swap(follower_, next);
  follower_.start(now_);
  page(at(1, 8), {});
  EXPECT_NE(follower_.otherStore(), "");
  EXPECT_FALSE(follower_.complete());
  EXPECT_THAT(batches(), IsEmpty());
}

}  // namespace
}  // namespace Kelstore::Etcd
