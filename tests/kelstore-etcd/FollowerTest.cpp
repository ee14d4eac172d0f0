// The follower lists what there is and is told of what happens, with each answer of the servers written out.
#include <gmock/gmock.h>

#include "tests/kelstore-etcd/FollowerFixture.h"

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(FollowerTest, Start_AllKeysAreReadFromTheFirstServer) {
  follower_.start(now_);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
  EXPECT_EQ(follower_.state(), State::listing);
  EXPECT_FALSE(follower_.complete());
  EXPECT_FALSE(follower_.connected());
}

TEST_F(FollowerTest, ListingOfSeveralPages_IsReadAtTheRevisionOfTheFirst_AndToldWhole) {
  follower_.start(now_);
  commands();
  page(at(10), {record("p/a", "1", 3)}, true);
  EXPECT_TRUE(follower_.connected());
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 10 x1000"));
  EXPECT_THAT(batches(), IsEmpty());
  page(at(12), {record("p/b", "2", 5)});
  EXPECT_THAT(batches(), ElementsAre("10: p/a=1 p/b=2"));
  EXPECT_THAT(commands(), ElementsAre("watch 11"));
  EXPECT_TRUE(follower_.complete());
  EXPECT_EQ(follower_.state(), State::listing);
  created(at(12));
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.revision(), 10);
  EXPECT_EQ(follower_.counters().relists, 0u);
  EXPECT_EQ(follower_.counters().reconnections, 0u);
}

TEST_F(FollowerTest, NoKeysAtAll_IsCompleteToo) {
  follower_.start(now_);
  page(at(1), {});
  created(at(1));
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_TRUE(follower_.complete());
}

TEST_F(FollowerTest, ListingIsCompactedMeanwhile_ItBeginsAnew) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  commands();
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::noRevision, "compacted");
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
  page(at(20), {record("p/b", "2", 15)});
  EXPECT_THAT(batches(), ElementsAre("20: p/b=2"));
}

TEST_F(FollowerTest, ListingBreaksHalfway_NothingOfItIsTold) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  follower_.lost(now_, "broken");
  advance(Follower::kFirstRetryMs);
  page(at(20), {record("p/b", "2", 15)});
  EXPECT_THAT(batches(), ElementsAre("20: p/b=2"));
}

TEST_F(FollowerTest, PageSaysThereIsMoreButHoldsNoKey_IsNotAskedForEver) {
  follower_.start(now_);
  page(at(10), {}, true);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000", "disconnect"));
  EXPECT_EQ(follower_.lastError(), "h0:1: found no keys, expected a page of them");
}

TEST_F(FollowerTest, PagesOfDifferentClusters_AreNoListing) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  page(at(10, 8), {record("p/b", "1", 3)});
  EXPECT_FALSE(follower_.complete());
  EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(FollowerTest, NoAnswerToAPage_TheNextIsSmaller) {
  follower_.start(now_);
  commands();
  advance(Follower::kAnswerMs - 1);
  EXPECT_THAT(commands(), IsEmpty());
  advance(1);
  EXPECT_THAT(commands(), ElementsAre("disconnect"));
  EXPECT_EQ(follower_.lastError(), "h0:1: no answer for 10 s");
  advance(Follower::kFirstRetryMs);
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x125"));
  page(at(10), {record("p/a", "1", 3)}, true);
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 10 x250"));
}

TEST_F(FollowerTest, LaterPageDoesNotCome_IsAskedForAgainSmaller_AndWhatWasListedCounts) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  commands();
  advance(Follower::kAnswerMs);
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 10 x125"));
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::tooLarge, "too large");
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 10 x15"));
  // So large a page as failed is not asked for again.
  page(at(11), {record("p/b", "2", 5)}, true);
  page(at(11), {record("p/c", "2", 5)}, true);
  page(at(11), {record("p/d", "2", 5)}, true);
  EXPECT_THAT(commands(), ElementsAre("read p/b+ at 10 x30", "read p/c+ at 10 x60", "read p/d+ at 10 x62"));
  page(at(11), {});
  EXPECT_THAT(batches(), ElementsAre("10: p/a=1 p/b=2 p/c=2 p/d=2"));
}

// It counted as a server that was tried in vain.
TEST_F(FollowerTest, FirstPageIsTooLarge_IsAskedForAgainSmallerAtOnce) {
  follower_.start(now_);
  commands();
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::tooLarge, "too large");
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x125"));
  EXPECT_FALSE(follower_.unreached());
  for (int i = 0; i < 2; ++i) {
    follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::tooLarge, "too large");
  }
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x15", "read p/ at 0 x1"));
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::tooLarge, "too large");
  EXPECT_THAT(commands(), ElementsAre("disconnect"));
  EXPECT_TRUE(follower_.unreached());
}

TEST_F(FollowerTest, PageOfOneKeyFails_TheServerIsLeft) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  for (int i = 0; i < 4; ++i)
    follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::tooLarge, "too large");
  Texts all = commands();
  EXPECT_EQ(all.back(), "disconnect");
  EXPECT_EQ(all[all.size() - 2], "read p/a+ at 10 x1");
}

// Pages of one key were asked for then, which made a listing of many keys last for minutes.
TEST_F(FollowerTest, LaterPageFailsButNotByItsSize_IsAskedForAgainAsItIs_AFewTimes) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  commands();
  auto fails = [this] {
    follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::other, "too many requests");
  };
  for (int i = 0; i < 3; ++i) fails();
  EXPECT_THAT(commands(),
              ElementsAre("read p/a+ at 10 x1000", "read p/a+ at 10 x1000", "read p/a+ at 10 x1000"));
  page(at(10), {record("p/b", "2", 5)}, true);
  for (int i = 0; i < 3; ++i) fails();
  EXPECT_EQ(commands().back(), "read p/b+ at 10 x1000");
  fails();
  EXPECT_THAT(commands(), ElementsAre("disconnect"));
}

TEST_F(FollowerTest, AnswerToAnEarlierPage_DoesNotCount) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  uint64_t first = follower_.pageAsked();
  advance(Follower::kAnswerMs);
  commands();
  follower_.pageRead(now_, first, {at(10), {record("p/x", "1", 3)}, false});
  follower_.pageFailed(now_, first, PageFailure::noRevision, "late");
  EXPECT_THAT(commands(), IsEmpty());
  EXPECT_THAT(batches(), IsEmpty());
  page(at(10), {});
  EXPECT_THAT(batches(), ElementsAre("10: p/a=1"));
}

TEST_F(FollowerTest, EventsOfARevision_AreToldTogether) {
  watching();
  says(at(11), {put("p/a", "7", 11), del("p/b", 11), put("p/c", "3", 11)});
  EXPECT_THAT(batches(), ElementsAre("11: p/a=7 -p/b p/c=3"));
  EXPECT_EQ(follower_.revision(), 11);
  EXPECT_EQ(follower_.counters().revisions, 1u);
  EXPECT_EQ(follower_.counters().events, 3u);
  EXPECT_EQ(follower_.counters().dropped, 0u);
}

TEST_F(FollowerTest, SeveralRevisionsInOneAnswer_AreCountedEach) {
  watching();
  says(at(14), {put("p/a", "7", 11), put("p/b", "7", 13), put("p/c", "7", 13), put("p/a", "8", 14)});
  EXPECT_THAT(batches(), ElementsAre("14: p/a=7 p/b=7 p/c=7 p/a=8"));
  EXPECT_EQ(follower_.counters().revisions, 3u);
}

TEST_F(FollowerTest, FragmentedRevision_IsToldAfterItsLastFragment) {
  watching();
  says(at(11), {put("p/a", "7", 11)}, true);
  says(at(11), {put("p/b", "7", 11)}, true);
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.revision(), 10);
  says(at(11), {put("p/c", "7", 11)});
  EXPECT_THAT(batches(), ElementsAre("11: p/a=7 p/b=7 p/c=7"));
}

TEST_F(FollowerTest, FragmentsOfManyRevisions_EachIsToldOnceItIsWhole) {
  watching();
  says(at(13), {put("p/a", "7", 11), put("p/b", "7", 12)}, true);
  EXPECT_THAT(batches(), ElementsAre("11: p/a=7"));
  says(at(13), {put("p/c", "7", 12), put("p/a", "8", 13)}, true);
  EXPECT_THAT(batches(), ElementsAre("12: p/b=7 p/c=7"));
  EXPECT_EQ(follower_.revision(), 12);
  reconnecting();
  EXPECT_EQ(commands().back(), "read p/b at 12 x1");
  EXPECT_EQ(follower_.counters().revisions, 2u);
}

TEST_F(FollowerTest, AnswerToAProgressRequestBetweenFragments_TheRevisionStaysWhole) {
  watching();
  says(at(11), {put("p/a", "7", 11)}, true);
  says(at(11), {});
  EXPECT_THAT(batches(), IsEmpty());
  says(at(11), {put("p/b", "7", 11)});
  EXPECT_THAT(batches(), ElementsAre("11: p/a=7 p/b=7"));
}

TEST_F(FollowerTest, LostBetweenFragments_TheRevisionIsAskedForAgain) {
  watching();
  says(at(12), {put("p/a", "7", 11)});
  says(at(12), {put("p/a", "8", 12)}, true);
  reconnecting();
  EXPECT_THAT(commands(), ElementsAre("disconnect", "connect h0:1", "read p/a at 11 x1"));
  page(at(12), {record("p/a", "7", 11)});
  EXPECT_THAT(commands(), ElementsAre("watch 12"));
  created(at(12));
  says(at(12), {put("p/a", "8", 12), put("p/b", "8", 12)});
  EXPECT_THAT(batches(), ElementsAre("11: p/a=7", "12: p/a=8 p/b=8"));
}

TEST_F(FollowerTest, EventsToldTwiceOrLate_AreDroppedAndCounted) {
  watching();
  says(at(12), {put("p/a", "7", 11), put("p/a", "8", 12)});
  batches();
  says(at(12), {put("p/a", "7", 11), put("p/a", "8", 12), put("p/b", "old", 9)});
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().dropped, 3u);
  EXPECT_EQ(follower_.revision(), 12);
  says(at(13), {put("p/a", "9", 13), put("p/a", "9", 13)});
  EXPECT_THAT(batches(), ElementsAre("13: p/a=9"));
  EXPECT_EQ(follower_.counters().dropped, 4u);
}

// A lease that ends deletes its keys in one revision, which does nothing else.
class LeaseTest : public FollowerTest {
 protected:
  // Keys that are gone, each with the lease that may have ended.
  Texts leases() {
    Texts texts;
    for (const Batch& batch : follower_.takeBatches()) {
      for (const Change& change : batch.changes) {
        if (!change.value) texts.push_back(fmt::format("{}@{}", change.key, change.lease));
      }
    }
    return texts;
  }
};

TEST_F(LeaseTest, KeysGo_TheLeaseIsToldIfItMayHaveEnded) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3, 70), record("p/b", "1", 3, 70), record("p/c", "1", 3, 70),
                record("p/d", "1", 4), record("p/e", "1", 5, 80), record("p/f", "1", 5, 80)});
  created(at(10));
  says(at(11), {del("p/a", 11), del("p/d", 11), {record("p/e", "1", 11, 80), false}});
  EXPECT_THAT(leases(), ElementsAre("p/a@0", "p/d@0"));
  says(at(12), {del("p/b", 12), del("p/c", 12)});
  EXPECT_THAT(leases(), ElementsAre("p/b@70", "p/c@70"));
  // The same, where only a listing shows it.
  says(at(13), {put("p/a", "1", 13)});
  reconnecting();
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::noRevision, "compacted");
  page(at(20), {record("p/a", "1", 13), record("p/f", "1", 5, 80)});
  EXPECT_THAT(leases(), ElementsAre("p/e@0"));
  created(at(20));
  advance(Follower::kResumedResyncMs);
  page(at(20), {record("p/a", "1", 13)});
  advance(Follower::kGraceMs);
  EXPECT_THAT(leases(), ElementsAre("p/f@80")) << "also where only a resync shows it";
}

TEST_F(LeaseTest, OnlyAResyncShowsThatTheOwnerDeletedAKey_TheLeaseHasNotEnded) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3, 70), record("p/b", "1", 3, 70)});
  created(at(10));
  for (int second = 0; second < 60; ++second) {
    says(at(10), {});
    advance(1000);
  }
  page(at(15), {record("p/a", "1", 3, 70)});
  advance(Follower::kGraceMs);
  EXPECT_THAT(leases(), ElementsAre("p/b@0"));
}

// The watch has lost that p/a was deleted.
TEST_F(LeaseTest, KeyThatIsStaleStaysBehind_TheLeaseHasEnded) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3, 70), record("p/b", "1", 3, 70), record("p/c", "1", 3, 70)});
  created(at(10));
  says(at(12), {del("p/b", 12), del("p/c", 12)});
  EXPECT_THAT(leases(), ElementsAre("p/b@70", "p/c@70"));
}

TEST_F(LeaseTest, DeletedByAWriter_AndTheLeaseEndsInTheSameAnswer) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3, 70), record("p/b", "1", 3, 70)});
  created(at(10));
  says(at(12), {{record("p/b", "2", 11, 70), false}, del("p/a", 11), del("p/b", 12)});
  EXPECT_THAT(leases(), ElementsAre("p/a@0", "p/b@70"));
}

// In one transaction, whichever of the events comes first.
TEST_F(LeaseTest, SuccessorTakesKeysOver_WhatItDeletesIsNotOfALeaseThatEnded) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3, 70), record("p/b", "1", 3, 70), record("p/c", "1", 3, 70)});
  created(at(10));
  Event taken{record("p/a", "1", 11, 71), false};
  says(at(11), {del("p/b", 11), taken});
  EXPECT_THAT(leases(), ElementsAre("p/b@0"));
  says(at(12), {del("p/c", 12)});
  EXPECT_THAT(leases(), ElementsAre("p/c@70")) << "what it had not taken over went by itself";
  says(at(13), {{record("p/a", "1", 13, 72), false}, del("p/x", 13)});
  EXPECT_THAT(leases(), IsEmpty());
}

TEST_F(FollowerTest, AnswerToAProgressRequest_MovesNothing) {
  watching();
  says(at(50), {});
  EXPECT_EQ(follower_.revision(), 10);
  EXPECT_EQ(follower_.storeRevision(), 50);
  // It may have overtaken events, or been overtaken.
  says(at(11), {put("p/a", "7", 11)});
  says(at(10), {});
  EXPECT_THAT(batches(), ElementsAre("11: p/a=7"));
  EXPECT_EQ(follower_.state(), State::watching);
  reconnecting();
  EXPECT_EQ(commands().back(), "read p/a at 11 x1");
}

}  // namespace
}  // namespace Kelstore::Etcd
