// The follower's every transition, with each answer of the servers written out. Time is a number.
#include "etcd/Follower.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using State = Follower::State;
using Texts = std::vector<std::string>;

constexpr uint64_t kCluster = 7;
constexpr uint64_t kTerm = 2;

std::string textOf(const Connect& command) { return fmt::format("connect {}", command.endpoint); }
std::string textOf(const Disconnect& /*command*/) { return "disconnect"; }
std::string textOf(const ReadPage& command) {
  std::string from = command.from;
  if (from.ends_with('\0')) from.back() = '+';
  return fmt::format("read {} at {} x{}", from, command.revision, command.limit);
}
std::string textOf(const OpenWatch& command) { return fmt::format("watch {}", command.fromRevision); }
std::string textOf(const RequestProgress& /*command*/) { return "progress?"; }

Header at(int64_t revision, uint64_t cluster = kCluster, uint64_t term = kTerm) {
  return {cluster, revision, term};
}
Record record(const std::string& key, const std::string& value, int64_t revision, int64_t lease = 0) {
  return {key, value, revision, lease};
}
Event put(const std::string& key, const std::string& value, int64_t revision) {
  return {record(key, value, revision), false};
}
Event del(const std::string& key, int64_t revision) { return {record(key, "", revision), true}; }

class FollowerTest : public testing::Test {
 protected:
  explicit FollowerTest(size_t endpoints = 1)
      : follower_({"p/", endpoints, 300'000, 60'000}, [this] { return random_; }) {}

  // What the follower wants done, and what it tells, since it was asked last.
  Texts commands() {
    Texts texts;
    for (const Command& command : follower_.takeCommands()) {
      texts.push_back(std::visit([](const auto& one) { return textOf(one); }, command));
    }
    return texts;
  }
  Texts batches() {
    Texts texts;
    for (const Batch& batch : follower_.takeBatches()) {
      std::string text = std::to_string(batch.revision) + ":";
      for (const Change& change : batch.changes) {
        text += change.value ? fmt::format(" {}={}", change.key, *change.value) : " -" + change.key;
      }
      texts.push_back(text);
    }
    return texts;
  }

  void advance(uint64_t ms) {
    uint64_t end = now_ + ms;
    while (follower_.wakeAtMs() <= end) {
      now_ = std::max(now_, follower_.wakeAtMs());
      follower_.elapsed(now_);
    }
    now_ = end;
  }
  void page(Header header, std::vector<Record> records, bool more = false) {
    follower_.pageRead(now_, follower_.pageAsked(), {header, std::move(records), more});
  }
  void says(Header header, std::vector<Event> events, bool fragment = false) {
    WatchResponse response;
    response.header = header;
    response.events = std::move(events);
    response.fragment = fragment;
    follower_.watchSaid(now_, std::move(response));
  }
  void created(Header header) {
    WatchResponse response;
    response.header = header;
    response.created = true;
    follower_.watchSaid(now_, std::move(response));
  }
  void canceled(int64_t compactRevision, const std::string& reason = "") {
    WatchResponse response;
    response.header = at(10);
    response.canceled = true;
    response.compactRevision = compactRevision;
    response.cancelReason = reason;
    follower_.watchSaid(now_, std::move(response));
  }
  // Listed at revision 10 with a=1 (revision 3) and b=2 (revision 5), and watching.
  void watching() {
    follower_.start(now_);
    page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
    created(at(10));
    commands();
    batches();
  }
  // Lost and connected again; the answers to come are the new server's.
  void reconnecting() {
    follower_.lost(now_, "broken");
    advance(Follower::kFirstRetryMs);
  }

  double random_ = 0;
  uint64_t now_ = 1'000'000;
  Follower follower_;
};

class ThreeServersTest : public FollowerTest {
 protected:
  ThreeServersTest() : FollowerTest(3) {}
};

TEST_F(FollowerTest, Start_AllKeysAreReadFromTheFirstServer) {
  follower_.start(now_);
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
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
  follower_.pageFailed(now_, follower_.pageAsked(), true, "compacted");
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
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
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000", "disconnect"));
  EXPECT_EQ(follower_.lastError(), "found no keys, expected a page of them");
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
  EXPECT_EQ(follower_.lastError(), "no answer for 10 s");
  advance(Follower::kFirstRetryMs);
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x125"));
  page(at(10), {record("p/a", "1", 3)}, true);
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 10 x250"));
}

TEST_F(FollowerTest, LaterPageDoesNotCome_IsAskedForAgainSmaller_AndWhatWasListedCounts) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  commands();
  advance(Follower::kAnswerMs);
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 10 x125"));
  follower_.pageFailed(now_, follower_.pageAsked(), false, "too large");
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 10 x15"));
  // So large a page as failed is not asked for again.
  page(at(11), {record("p/b", "2", 5)}, true);
  page(at(11), {record("p/c", "2", 5)}, true);
  page(at(11), {record("p/d", "2", 5)}, true);
  EXPECT_THAT(commands(), ElementsAre("read p/b+ at 10 x30", "read p/c+ at 10 x60", "read p/d+ at 10 x62"));
  page(at(11), {});
  EXPECT_THAT(batches(), ElementsAre("10: p/a=1 p/b=2 p/c=2 p/d=2"));
}

TEST_F(FollowerTest, PageOfOneKeyFails_TheServerIsLeft) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  for (int i = 0; i < 4; ++i) follower_.pageFailed(now_, follower_.pageAsked(), false, "too large");
  Texts all = commands();
  EXPECT_EQ(all.back(), "disconnect");
  EXPECT_EQ(all[all.size() - 2], "read p/a+ at 10 x1");
}

TEST_F(FollowerTest, AnswerToAnEarlierPage_DoesNotCount) {
  follower_.start(now_);
  page(at(10), {record("p/a", "1", 3)}, true);
  uint64_t first = follower_.pageAsked();
  advance(Follower::kAnswerMs);
  commands();
  follower_.pageRead(now_, first, {at(10), {record("p/x", "1", 3)}, false});
  follower_.pageFailed(now_, first, true, "late");
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
  EXPECT_EQ(commands().back(), "read p/ at 12 x1");
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
  EXPECT_THAT(commands(), ElementsAre("disconnect", "connect 0", "read p/ at 11 x1"));
  page(at(12), {});
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
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 11 x1"));
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
  follower_.pageFailed(now_, follower_.pageAsked(), true, "compacted");
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
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
  follower_.pageFailed(now_, follower_.pageAsked(), true, "compacted");
  page(at(30), {record("p/b", "2", 5)});
  EXPECT_THAT(batches(), ElementsAre("30: -p/a"));
}

TEST_F(FollowerTest, OnlyTheLeaseOfAKeyChanged_IsTold) {
  watching();
  reconnecting();
  follower_.pageFailed(now_, follower_.pageAsked(), true, "compacted");
  page(at(30), {record("p/a", "1", 3, 77), record("p/b", "2", 5)});
  EXPECT_THAT(batches(), ElementsAre("30: p/a=1"));
}

TEST_F(FollowerTest, WatchIsCompacted_ThereIsANewListing) {
  watching();
  canceled(20);
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
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
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
}

TEST_F(FollowerTest, WatchIsCompactedAgainMuchLater_IsAnsweredAtOnce) {
  watching();
  canceled(20);
  page(at(20), {});
  created(at(20));
  now_ += Follower::kStableMs;
  commands();
  canceled(30);
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
}

TEST_F(FollowerTest, WatchIsRefused_TheReasonIsShown_AndThereIsANewListingLater) {
  watching();
  canceled(0, "permission denied");
  EXPECT_EQ(follower_.lastError(), "the watch was cancelled: permission denied");
  EXPECT_EQ(follower_.state(), State::held);
  EXPECT_THAT(commands(), ElementsAre("disconnect"));
  advance(Follower::kFirstRetryMs);
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
}

// Where the new server tells of another cluster, an older revision or an older term.
TEST_F(FollowerTest, ResumedAtAnotherHistory_ThereIsANewListing) {
  for (Header header : {at(12, 8), at(9), at(12, kCluster, 1)}) {
    now_ += Follower::kStableMs;
    Follower fresh({"p/", 1, 300'000, 60'000}, [] { return 0.0; });
    std::swap(follower_, fresh);
    watching();
    reconnecting();
    commands();
    page(header, {});
    EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
    page(header, {record("p/a", "other", 3)});
    EXPECT_THAT(batches(), ElementsAre(fmt::format("{}: p/a=other -p/b", header.revision)));
    created(header);
    EXPECT_EQ(follower_.state(), State::watching);
    EXPECT_EQ(follower_.revision(), header.revision);
    commands();
  }
}

TEST_F(FollowerTest, WatchIsAnotherCluster_OrAnOlderRevision_ThereIsANewListing) {
  for (Header header : {at(12, 8), at(9), at(12, kCluster, 1)}) {
    Follower fresh({"p/", 1, 300'000, 60'000}, [] { return 0.0; });
    std::swap(follower_, fresh);
    watching();
    reconnecting();
    page(at(10), {});
    commands();
    created(header);
    EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
    EXPECT_EQ(follower_.lastError(), "the server tells of another cluster or of an older history");
  }
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
  EXPECT_EQ(commands().back(), "read p/ at 11 x1");
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
  EXPECT_EQ(follower_.lastError(), "silence for 30 s");
}

TEST_F(FollowerTest, ResumedWatchNeverTellsWhatThereIs_ThereIsAListingInstead) {
  watching();
  reconnecting();
  page(at(5000), {});
  created(at(5000));
  commands();
  advance(Follower::kSilenceMs);
  EXPECT_EQ(follower_.lastError(), "silence for 30 s");
  advance(Follower::kLastRetryMs);
  EXPECT_EQ(commands().back(), "read p/ at 0 x1000");
}

TEST_F(FollowerTest, WatchGoesSilentAfterItTold_ItIsResumed) {
  watching();
  reconnecting();
  page(at(5000), {});
  created(at(5000));
  says(at(5000), {put("p/a", "7", 4000)});
  commands();
  advance(Follower::kSilenceMs);
  EXPECT_EQ(follower_.lastError(), "silence for 30 s");
  advance(Follower::kFirstRetryMs);
  EXPECT_EQ(commands().back(), "read p/ at 4000 x1");
}

TEST_F(FollowerTest, PagesOfAnAudit_DoNotHideTheSilenceOfTheWatch) {
  watching();
  reconnecting();
  page(at(10), {});
  created(at(10));
  advance(Follower::kResumedAuditMs);
  while (follower_.state() == State::watching && now_ < 2'000'000) {
    page(at(10), {record("p/a", "1", 3)}, true);
    advance(1000);
  }
  EXPECT_EQ(follower_.lastError(), "silence for 30 s");
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
  page(at(10), {record("p/a", "1", 3)});
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
  follower_.pageFailed(now_, follower_.pageAsked(), true, "compacted");
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
  page(at(10), {});
  created(at(10));
  commands();
  follower_.lost(now_, "broken");
  EXPECT_GT(follower_.wakeAtMs() - now_, Follower::kFirstRetryMs);
  advance(Follower::kLastRetryMs);
  page(at(10), {});
  created(at(10));
  now_ += Follower::kStableMs;
  follower_.lost(now_, "broken");
  EXPECT_EQ(follower_.wakeAtMs() - now_, Follower::kFirstRetryMs / 2);
}

TEST_F(ThreeServersTest, LostServer_TheOthersAreTriedAtOnce_ThenTimePasses) {
  watching();
  Texts tried;
  std::vector<uint64_t> delays;
  for (int i = 0; i < 6; ++i) {
    follower_.lost(now_, "refused");
    delays.push_back(follower_.wakeAtMs() - now_);
    advance(delays.back());
    EXPECT_EQ(commands().at(1), fmt::format("connect {}", (i + 1) % 3));
  }
  EXPECT_THAT(delays, ElementsAre(25, 25, 125, 25, 25, 250));
}

TEST_F(ThreeServersTest, ListingGoesOnAtTheNextServer) {
  follower_.start(now_);
  follower_.lost(now_, "refused");
  advance(Follower::kFailoverMs);
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000", "disconnect", "connect 1",
                                      "read p/ at 0 x1000"));
  EXPECT_EQ(follower_.endpoint(), 1u);
}

class AuditTest : public FollowerTest {
 protected:
  AuditTest() {
    watching();
    advanceHearing(60'000);
  }
  // Time passes; the watch gives signs of life.
  void advanceHearing(uint64_t ms) {
    for (uint64_t end = now_ + ms; now_ < end;) {
      says(at(10), {});
      advance(std::min<uint64_t>(end - now_, 1000));
    }
  }
};

TEST_F(AuditTest, NothingDiffers_NothingIsToldAndTheNextComesInTime) {
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
  page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
  EXPECT_EQ(follower_.counters().audits, 1u);
  EXPECT_EQ(follower_.counters().repairs, 0u);
  EXPECT_THAT(batches(), IsEmpty());
  advanceHearing(59'000);
  EXPECT_THAT(commands(), IsEmpty());
  advanceHearing(1'000);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
}

TEST_F(AuditTest, ReadsPageByPage_WithPausesInBetween) {
  commands();
  page(at(10), {record("p/a", "1", 3)}, true);
  EXPECT_THAT(commands(), IsEmpty());
  advance(Follower::kAuditPauseMs);
  EXPECT_THAT(commands(), ElementsAre("read p/a+ at 0 x500"));
  EXPECT_EQ(follower_.counters().audits, 0u);
  page(at(10), {record("p/b", "2", 5)});
  EXPECT_EQ(follower_.counters().audits, 1u);
  EXPECT_EQ(follower_.counters().repairs, 0u);
}

TEST_F(AuditTest, LostEvents_AreRepairedAndCounted) {
  // Of these, neither the change of a, the deletion of b nor the appearance of c was told.
  page(at(15), {record("p/a", "9", 13), record("p/c", "3", 15)});
  EXPECT_THAT(batches(), IsEmpty()) << "they may be on their way";
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), ElementsAre("10: p/a=9 -p/b p/c=3"));
  EXPECT_EQ(follower_.counters().repairs, 3u);
  EXPECT_EQ(follower_.counters().audits, 1u);
  EXPECT_EQ(follower_.revision(), 10) << "what else may have happened is still to be asked for";
  // An event that comes after all is nothing new.
  says(at(15), {put("p/a", "9", 13), del("p/b", 14), put("p/c", "3", 15)});
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().dropped, 3u);
}

TEST_F(AuditTest, RevisionOfThePageIsApplied_WhatDiffersIsRepairedAtOnce) {
  says(at(16), {put("p/d", "4", 16)});
  page(at(16), {record("p/a", "9", 13), record("p/b", "2", 5), record("p/d", "4", 16)});
  EXPECT_THAT(batches(), ElementsAre("16: p/d=4", "16: p/a=9"));
  EXPECT_EQ(follower_.counters().repairs, 1u);
}

TEST_F(AuditTest, EventsAreOnTheirWay_NothingIsRepaired) {
  page(at(15), {record("p/a", "9", 13), record("p/c", "3", 15)});
  says(at(15), {put("p/a", "9", 13), del("p/b", 14), put("p/c", "3", 15)});
  EXPECT_THAT(batches(), ElementsAre("15: p/a=9 -p/b p/c=3"));
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().repairs, 0u);
  EXPECT_EQ(follower_.counters().audits, 1u);
}

TEST_F(AuditTest, PageIsOlderThanWhatIsKnown_NothingIsTakenBack) {
  says(at(14), {put("p/a", "9", 12), del("p/b", 13), put("p/c", "3", 14)});
  batches();
  page(at(11), {record("p/a", "1", 3), record("p/b", "2", 5)});
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().repairs, 0u);
  // It was overtaken, that is all.
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.counters().relists, 0u);
  EXPECT_EQ(follower_.counters().audits, 1u);
}

// A page that nobody waited for any more was taken for the next audit's first one, and all keys before it for
// deleted.
TEST_F(AuditTest, PageComesAfterItsAudit_DoesNotCount) {
  page(at(10), {record("p/a", "1", 3)}, true);
  advance(Follower::kAuditPauseMs);
  uint64_t late = follower_.pageAsked();
  advanceHearing(Follower::kAnswerMs);
  while (follower_.pageAsked() == 0 || follower_.pageAsked() == late) advanceHearing(1'000);
  follower_.pageRead(now_, late, {at(10), {record("p/b", "2", 5)}, false});
  advanceHearing(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().repairs, 0u);
}

TEST_F(AuditTest, PageHasTheRevisionButAnotherValue_IsRepaired) {
  page(at(10), {record("p/a", "other", 3), record("p/b", "2", 5)});
  EXPECT_THAT(batches(), ElementsAre("10: p/a=other"));
}

TEST_F(AuditTest, DifferenceBehindTheLastKeyOfAPage_IsTheNextPagesConcern) {
  page(at(10), {record("p/a", "1", 3)}, true);
  EXPECT_THAT(batches(), IsEmpty());
  advance(Follower::kAuditPauseMs);
  page(at(10), {});
  EXPECT_THAT(batches(), ElementsAre("10: -p/b"));
}

TEST_F(AuditTest, AnotherHistory_ThereIsANewListing) {
  commands();
  page(at(9), {record("p/a", "1", 3)});
  EXPECT_THAT(commands(), ElementsAre("connect 0", "read p/ at 0 x1000"));
  EXPECT_EQ(follower_.counters().repairs, 0u);
  EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(AuditTest, PageFails_TheWatchGoesOn_ItIsAskedForAgainSmaller) {
  commands();
  follower_.pageFailed(now_, follower_.pageAsked(), false, "too many requests");
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.lastError(), "too many requests");
  advance(Follower::kAuditPauseMs);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x62"));
}

TEST_F(AuditTest, PageOfOneKeyFails_TheNextAuditComes) {
  for (int i = 0; i < 4; ++i) {
    follower_.pageFailed(now_, follower_.pageAsked(), false, "too many requests");
    commands();
    advance(Follower::kAuditPauseMs);
  }
  EXPECT_THAT(commands(), IsEmpty());
  EXPECT_EQ(follower_.state(), State::watching);
  advanceHearing(60'000);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
}

TEST_F(AuditTest, PageIsNotAnswered_TheWatchGoesOn) {
  commands();
  advanceHearing(Follower::kAnswerMs);
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.lastError(), "no answer for 10 s");
}

TEST_F(AuditTest, StoreIsLostMeanwhile_TheAuditBeginsAnewSoonAfter) {
  page(at(15), {record("p/a", "9", 13)}, true);
  reconnecting();
  advance(Follower::kGraceMs);
  EXPECT_THAT(batches(), IsEmpty());
  page(at(15), {});
  created(at(15));
  commands();
  advance(Follower::kResumedAuditMs);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500"));
}

}  // namespace
}  // namespace Kelstore::Etcd
