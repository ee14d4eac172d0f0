// The follower reads all keys again from time to time, and repairs what differs.
#include <gmock/gmock.h>

#include <algorithm>

#include "tests/kelstore-etcd/FollowerFixture.h"

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ResyncTest : public FollowerTest {
 protected:
  ResyncTest() {
    watching();
    advanceHearing(60'000);
  }
  // As answers without values are.
  void keysPage(Header header, std::vector<Record> records) {
    for (Record& one : records) one.keyOnly = true;
    page(header, std::move(records));
  }
  // Time passes; the watch gives signs of life, after so many elections.
  void advanceHearing(uint64_t ms, uint64_t elections = 0) {
    for (uint64_t end = now_ + ms; now_ < end;) {
      says(at(10, kCluster, kTerm + elections), {});
      advance(std::min<uint64_t>(end - now_, 1000));
    }
  }
};

TEST_F(ResyncTest, NothingDiffers_NothingIsToldAndTheNextComesInTime) {
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500 keys"));
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  EXPECT_EQ(follower_.counters().resyncs, 1u);
  EXPECT_EQ(follower_.counters().repairs, 0u);
  EXPECT_THAT(batches(), IsEmpty());
  advanceHearing(59'000);
  EXPECT_THAT(commands(), IsEmpty());
  advanceHearing(1'000);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500 keys"));
}

TEST_F(ResyncTest, ReadsPageByPage_WithPausesInBetween) {
  commands();
  page(at(10), {record("p/a", "1", 3)}, true);
  EXPECT_THAT(commands(), IsEmpty());
  advance(Follower::kResyncPauseMs);
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 0 x500 keys"));
  EXPECT_EQ(follower_.counters().resyncs, 0u);
  page(at(10), {record("p/b", "2", 5)});
  EXPECT_EQ(follower_.counters().resyncs, 1u);
  EXPECT_EQ(follower_.counters().repairs, 0u);
}

TEST_F(ResyncTest, LostEvents_AreRepairedAndCounted) {
  // Of these, neither the change of a, the deletion of b nor the appearance of c was told.
  page(at(15), {record("p/a", "9", 13), record("p/c", "3", 15)});
  EXPECT_THAT(batches(), IsEmpty()) << "they may be on their way";
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), ElementsAre("10: p/a=9 -p/b p/c=3"));
  EXPECT_EQ(follower_.counters().repairs, 3u);
  EXPECT_EQ(follower_.counters().resyncs, 1u);
  EXPECT_EQ(follower_.revision(), 10) << "what else may have happened is still to be asked for";
  // An event that comes after all is nothing new.
  advance(Follower::kFirstRetryMs);
  page(at(15), {});
  created(at(15));
  says(at(15), {put("p/a", "9", 13), del("p/b", 14), put("p/c", "3", 15)});
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().dropped, 3u);
}

// It may be dead, and told of nothing any more, although its server answered requests for progress: every
// change came with the next resync only, for ever.
TEST_F(ResyncTest, WatchMissedWhatWasRepaired_AnotherOneIsOpened) {
  commands();
  page(at(15), {record("p/a", "9", 13)}, true);
  advance(Follower::kGraceMs);
  EXPECT_EQ(follower_.state(), State::watching) << "the resync goes on";
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 0 x500 keys"));
  page(at(15), {record("p/b", "2", 5)});
  EXPECT_THAT(batches(), ElementsAre("10: p/a=9"));
  EXPECT_EQ(follower_.counters().reopenings, 1u);
  EXPECT_EQ(follower_.state(), State::held);
  advance(Follower::kFirstRetryMs);
  EXPECT_THAT(commands(), ElementsAre("disconnect", "connect h0:1", "read p/b at 10 x1"));
  resumes(at(15));
  EXPECT_THAT(commands(), ElementsAre("watch 11"));
  created(at(15));
  says(at(15), {put("p/a", "9", 13)});
  advance(Follower::kResumedResyncMs);
  page(at(15), {record("p/a", "9", 13), record("p/b", "2", 5)});
  EXPECT_EQ(follower_.counters().resyncs, 2u);
  EXPECT_EQ(follower_.counters().reopenings, 1u);
  EXPECT_EQ(follower_.state(), State::watching);
}

// All values of a large cluster, read by every follower each minute, were most of what its store sent.
TEST_F(ResyncTest, KeysDiffer_OnlyTheValuesFromTheFirstToTheLastOfThemAreRead) {
  says(at(14), {put("p/c", "3", 12), put("p/d", "4", 13), put("p/e", "5", 14)});
  commands();
  batches();
  // The changes of b and d were not told.
  keysPage(at(16), {record("p/a", "", 3), record("p/b", "", 15), record("p/c", "", 12), record("p/d", "", 16),
                    record("p/e", "", 14)});
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty()) << "the values are not known";
  EXPECT_EQ(follower_.counters().resyncs, 0u);
  EXPECT_THAT(commands(), ElementsAre("read p/b at 0 x500"));
  page(at(16), {record("p/b", "7", 15), record("p/c", "3", 12), record("p/d", "8", 16)}, true);
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), ElementsAre("14: p/b=7 p/d=8"));
  EXPECT_EQ(follower_.counters().repairs, 2u);
  EXPECT_EQ(follower_.counters().resyncs, 1u);
}

// No key gets another lease without another revision.
TEST_F(ResyncTest, KeyDiffersByItsLeaseOnly_TheStoreWasRestored_ItIsListedAnew) {
  commands();
  keysPage(at(10), {record("p/a", "", 3), record("p/b", "", 5, 99)});
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
}

TEST_F(ResyncTest, KeyIsGone_NoValueIsRead) {
  commands();
  keysPage(at(11), {record("p/a", "", 3)});
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), ElementsAre("10: -p/b"));
  EXPECT_EQ(follower_.counters().resyncs, 1u);
}

// Keys that exceed a limit were counted twice then.
TEST(LimitedResyncTest, ValuesAreRead_WhatIsRefusedIsCountedOnce) {
  Follower follower({.prefix = "p/", .endpoints = {"h0:1"}, .keys = 1}, [] { return 0.0; });
  const Header header{7, 10, 2};
  follower.start(0);
  follower.pageRead(0, follower.pageAsked(), {header, {record("p/a", "1", 3), record("p/b", "2", 5)}, false});
  follower.watchSaid(0, watchCreated(header));
  uint64_t now = 60'000;
  follower.watchSaid(now, watchEvents(header));
  follower.elapsed(now);
  Page keys{header, {record("p/a", "", 4), record("p/b", "", 5)}, false};
  for (Record& one : keys.records) one.keyOnly = true;
  follower.pageRead(now, follower.pageAsked(), keys);
  follower.elapsed(now);
  ASSERT_NE(follower.pageAsked(), 0u);
  follower.pageRead(now, follower.pageAsked(),
                    {header, {record("p/a", "9", 4), record("p/b", "2", 5)}, false});
  EXPECT_EQ(follower.counters().repairs, 1u);
  EXPECT_EQ(follower.refused().begin()->second.keys, 1u);
}

// The store may have been restored, and has another value under the same revision then.
TEST_F(ResyncTest, StoreWasLost_AllValuesAreComparedOnce) {
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  reconnecting();
  resumes(at(10));
  created(at(10));
  commands();
  advance(Follower::kResumedResyncMs);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  advanceHearing(60'000);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500 keys"));
}

TEST_F(ResyncTest, StoreWasRestored_OtherValueUnderTheSameRevision_ItIsListedAnew) {
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  reconnecting();
  resumes(at(10));
  created(at(10));
  advance(Follower::kResumedResyncMs);
  commands();
  page(at(10), {record("p/a", "other", 3), record("p/b", "2", 5)});
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/ at 0 x1000"));
}

TEST_F(ResyncTest, ThereWasAnElection_AllValuesAreComparedOnce) {
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  commands();
  says(at(10, kCluster, kTerm + 1), {});
  advanceHearing(60'000);
  EXPECT_THAT(commands(), testing::Contains("read p/ at 0 x500"));
}

TEST_F(ResyncTest, RevisionOfThePageIsApplied_WhatDiffersIsRepairedAtOnce) {
  says(at(16), {put("p/d", "4", 16)});
  page(at(16), {record("p/a", "9", 13), record("p/b", "2", 5), record("p/d", "4", 16)});
  EXPECT_THAT(batches(), ElementsAre("16: p/d=4", "16: p/a=9"));
  EXPECT_EQ(follower_.counters().repairs, 1u);
}

// They showed the key again until the event of its deletion came.
TEST_F(ResyncTest, EventsFromBeforeARepairedDeletion_BringNothingBack) {
  page(at(100), {record("p/a", "1", 3)});
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), ElementsAre("10: -p/b"));
  // Also not when the watch breaks before they come, and when the next resync has ended.
  reconnecting();
  page(at(100), {record("p/a", "1", 3)});
  created(at(100));
  advance(Follower::kResumedResyncMs);
  page(at(100), {record("p/a", "1", 3)});
  EXPECT_EQ(follower_.counters().resyncs, 2u);
  says(at(100), {put("p/b", "3", 93)});
  says(at(100), {del("p/b", 95)});
  says(at(100), {put("p/b", "4", 97), del("p/b", 99)});
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().dropped, 4u);
  EXPECT_EQ(follower_.revision(), 99);
  says(at(101), {put("p/b", "5", 101)});
  EXPECT_THAT(batches(), ElementsAre("101: p/b=5"));
}

TEST_F(ResyncTest, DeletionIsRepaired_InAnotherHistoryTheKeyIsNew) {
  page(at(15), {record("p/a", "1", 3)});
  advance(Follower::kGraceMs);
  batches();
  reconnecting();
  page(at(12, 8), {});
  follower_.accept(now_);
  page(at(12, 8), {record("p/a", "1", 3)});
  created(at(12, 8));
  says(at(13, 8), {put("p/b", "9", 13)});
  EXPECT_THAT(batches(), ElementsAre("12:", "13: p/b=9"));
}

TEST_F(ResyncTest, EventsAreOnTheirWay_NothingIsRepaired) {
  page(at(15), {record("p/a", "9", 13), record("p/c", "3", 15)});
  says(at(15), {put("p/a", "9", 13), del("p/b", 14), put("p/c", "3", 15)});
  EXPECT_THAT(batches(), ElementsAre("15: p/a=9 -p/b p/c=3"));
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().repairs, 0u);
  EXPECT_EQ(follower_.counters().resyncs, 1u);
}

TEST_F(ResyncTest, PageIsOlderThanWhatIsKnown_NothingIsTakenBack) {
  says(at(14), {put("p/a", "9", 12), del("p/b", 13), put("p/c", "3", 14)});
  batches();
  page(at(11), {record("p/a", "1", 3), record("p/b", "2", 5)});
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().repairs, 0u);
  // It was overtaken, that is all.
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.counters().relists, 0u);
  EXPECT_EQ(follower_.counters().resyncs, 1u);
}

// A page that nobody waited for any more was taken for the next resync's first one, and all keys before it
// for deleted.
TEST_F(ResyncTest, PageComesAfterItsResync_DoesNotCount) {
  page(at(10), {record("p/a", "1", 3)}, true);
  advance(Follower::kResyncPauseMs);
  uint64_t late = follower_.pageAsked();
  advanceHearing(Follower::kAnswerMs);
  while (follower_.pageAsked() == 0 || follower_.pageAsked() == late) advanceHearing(1'000);
  follower_.pageRead(now_, late, {at(10), {record("p/b", "2", 5)}, false});
  advanceHearing(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().repairs, 0u);
}

TEST_F(ResyncTest, DifferenceBehindTheLastKeyOfAPage_IsTheNextPagesConcern) {
  page(at(10), {record("p/a", "1", 3)}, true);
  EXPECT_THAT(batches(), IsEmpty());
  advance(Follower::kResyncPauseMs);
  page(at(10), {});
  EXPECT_THAT(batches(), ElementsAre("10: -p/b"));
}

// It was asked for smaller and smaller, and the resyncs to come had no larger pages for hours.
TEST_F(ResyncTest, PageFailsButNotByItsSize_TheWatchGoesOn_ItIsAskedForAgainAsItIs) {
  commands();
  for (int i = 0; i < PageSize::kRepeats; ++i) {
    follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::other, "too many requests");
    EXPECT_EQ(follower_.state(), State::watching);
    EXPECT_EQ(follower_.lastError(), "too many requests");
    EXPECT_THAT(commands(), IsEmpty());
    advance(Follower::kResyncPauseMs);
    EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500 keys"));
  }
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  EXPECT_EQ(follower_.counters().resyncs, 1u);
  EXPECT_EQ(follower_.counters().resyncFailures, 0u);
}

TEST_F(ResyncTest, PageFailsAgainAndAgain_TheNextResyncComes) {
  for (int i = 0; i <= PageSize::kRepeats; ++i) {
    EXPECT_EQ(follower_.counters().resyncFailures, 0u);
    follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::other, "too many requests");
    commands();
    advance(Follower::kResyncPauseMs);
  }
  EXPECT_THAT(commands(), IsEmpty());
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.counters().resyncFailures, 1u);
  advanceHearing(60'000);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500 keys"));
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  EXPECT_EQ(follower_.counters().resyncs, 1u);
  EXPECT_EQ(follower_.counters().resyncFailures, 1u);
}

// Each resync began with the page that had been too large in the one before.
TEST_F(ResyncTest, PageWasTooLarge_TheNextResyncBeginsWithTheSizeThatWorked) {
  commands();
  follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::tooLarge, "too large");
  advance(Follower::kResyncPauseMs);
  Texts asked = commands();
  says(at(11), {put("p/c", "3", 11)});
  for (const Record& record : {record("p/a", "1", 3), record("p/b", "2", 5), record("p/c", "3", 11)}) {
    page(at(11), {record}, true);
    advance(Follower::kResyncPauseMs);
    asked.push_back(commands().back());
  }
  EXPECT_THAT(asked, ElementsAre("read p/ at 0 x62 keys", "read p/a+ at 0 x124 keys",
                                 "read p/b+ at 0 x248 keys", "read p/c+ at 0 x250 keys"));
  page(at(11), {});
  advanceHearing(60'000);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x250 keys"));
}

TEST_F(ResyncTest, PageOfOneKeyIsTooLarge_TheNextResyncComes) {
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(follower_.counters().resyncFailures, 0u);
    follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::tooLarge, "too large");
    commands();
    advance(Follower::kResyncPauseMs);
  }
  EXPECT_EQ(follower_.counters().resyncFailures, 1u);
  advanceHearing(60'000);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500 keys"));
}

// With pages of three keys for all of it, a resync took half an hour.
TEST_F(FollowerTest, PagesOfALongResyncWereLate_ItIsShortAllTheSame) {
  std::vector<Record> all;
  for (int i = 0; i < 100'000; ++i) all.push_back(record(fmt::format("p/{:05}", i), "1", 3));
  follower_.start(now_);
  page(at(10), all);
  created(at(10));
  commands();
  uint64_t began = 0;
  int late = 0;
  auto hearing = [this](uint64_t ms) {
    for (uint64_t end = now_ + ms; now_ < end; says(at(10), {})) {
      advance(std::min<uint64_t>(end - now_, 1'000));
    }
  };
  while (follower_.counters().resyncs == 0) {
    for (const Command& command : follower_.takeCommands()) {
      const auto* asked = std::get_if<ReadPage>(&command);
      if (asked == nullptr) continue;
      if (began == 0) began = now_;
      if (late < 3) {
        ++late;
        continue;
      }
      auto first = std::lower_bound(all.begin(), all.end(), asked->from,
                                    [](const Record& one, const std::string& key) { return one.key < key; });
      auto end = first + std::min<int64_t>(asked->limit, all.end() - first);
      page(at(10), {first, end}, end != all.end());
    }
    hearing(Follower::kResyncPauseMs);
  }
  EXPECT_EQ(late, 3);
  EXPECT_EQ(follower_.counters().repairs, 0u);
  EXPECT_LE(now_ - began, 3 * Follower::kAnswerMs + 20'000);
}

TEST_F(ResyncTest, PageIsNotAnswered_TheWatchGoesOn) {
  commands();
  advanceHearing(Follower::kAnswerMs);
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.lastError(), "h0:1: no answer for 10 s");
}

TEST_F(ResyncTest, StoreIsLostMeanwhile_TheResyncBeginsAnewSoonAfter) {
  page(at(15), {record("p/a", "9", 13)}, true);
  reconnecting();
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty());
  resumes(at(15));
  created(at(15));
  commands();
  advance(Follower::kResumedResyncMs);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
}

// What was compared before the second one may have been lost in it.
TEST_F(ResyncTest, ElectionWhileValuesAreRead_AllValuesAreComparedOnceMore) {
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  commands();
  advanceHearing(60'000, 1);
  ASSERT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
  page(at(10, kCluster, kTerm + 1), {record("p/a", "1", 3)}, true);
  advanceHearing(Follower::kResyncPauseMs, 2);
  ASSERT_THAT(commands(), ElementsAre("read p/a+ at 0 x500"));
  page(at(10, kCluster, kTerm + 2), {record("p/b", "2", 5)});
  EXPECT_EQ(follower_.counters().resyncs, 2u);
  advanceHearing(60'000, 2);
  ASSERT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
  page(at(10, kCluster, kTerm + 2), {record("p/a", "1", 3), record("p/b", "2", 5)});
  advanceHearing(60'000, 2);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500 keys"));
}

TEST_F(ResyncTest, AuditOfValuesFails_TheNextOneReadsThemToo) {
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  commands();
  advanceHearing(60'000, 1);
  ASSERT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
  while (follower_.counters().resyncFailures == 0) {
    follower_.pageFailed(now_, follower_.pageAsked(), PageFailure::other, "no");
    advanceHearing(Follower::kResyncPauseMs, 1);
  }
  commands();
  advanceHearing(60'000 - Follower::kResyncPauseMs, 1);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
}

// Every event comes, 4 s late: as over a link that is as fast as the changes, behind a full queue.
TEST_F(FollowerTest, WatchIsLateButWhole_ItIsNotOpenedAnew) {
  watching();
  constexpr int64_t kLate = 40;  // revisions; there are ten a second
  constexpr int64_t kNames = 5;
  // Revision 10 + n changes the key n % kNames.
  auto keyOf = [](int64_t revision) { return fmt::format("p/{}", revision % kNames); };
  int64_t store = 10;
  auto content = [&](int64_t revision) {
    std::vector<Record> records{record("p/a", "1", 3), record("p/b", "2", 5)};
    for (int64_t changed = revision; changed > std::max<int64_t>(10, revision - kNames); --changed)
      records.push_back(record(keyOf(changed), std::to_string(changed), changed));
    std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
    return records;
  };
  for (int tenth = 0; tenth < 3000; ++tenth) {
    advance(100);
    ++store;
    if (follower_.pageAsked() != 0) page(at(store), content(store));
    for (int64_t told = follower_.revision() + 1; told + kLate <= store; ++told)
      says(at(store), {put(keyOf(told), std::to_string(told), told)});
    ASSERT_EQ(follower_.state(), State::watching);
  }
  EXPECT_GT(follower_.counters().resyncs, 0u);
  EXPECT_EQ(follower_.counters().reopenings, 0u);
}

}  // namespace
}  // namespace Kelstore::Etcd
