// A follower that had to leave its own server goes back to it later: when it asks, what it believes, and that
// nothing is read again.
#include <gmock/gmock.h>

#include "tests/kelstore-etcd/FollowerFixture.h"

namespace Kelstore::Etcd {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class FollowerHomeTest : public FollowerTest {
 protected:
  explicit FollowerHomeTest(uint64_t place = 0) : FollowerTest({"h0:1", "h1:1"}, place) {}

  // Watching at the second server.
  void away() {
    watching();
    follower_.lost(now_, "broken");
    advance(Follower::kFailoverMs);
    resumes(at(10));
    created(at(10));
    commands();
  }
  // The server says something in time, and audits find nothing, so that nothing else happens.
  void quiet(uint64_t ms) {
    for (uint64_t end = now_ + ms; now_ < end;) {
      advance(std::min<uint64_t>(1'000, end - now_));
      says(at(10), {});
      if (follower_.pageAsked() != 0) page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
    }
  }
  Page homePage(Header header) { return {header, {record("p/b", "2", 5)}, false}; }
};

TEST_F(FollowerHomeTest, HomeIsBack_TheWatchIsResumedThereAfterWhatWasApplied) {
  away();
  quiet(kGoHomeMs - 1);
  EXPECT_THAT(commands(), Not(Contains(testing::StartsWith("ask"))));
  says(at(12), {put("p/b", "3", 12)});
  quiet(1);
  EXPECT_THAT(commands(), Contains("ask h0:1 for p/b at 12"));
  batches();
  EXPECT_EQ(follower_.state(), State::watching) << "until home has answered";
  follower_.homeSaid(now_, {at(12), {record("p/b", "3", 12)}, false});
  EXPECT_TRUE(follower_.goesHome());
  EXPECT_THAT(commands(), ElementsAre("connect h0:1", "read p/b at 12 x1"));
  page(at(14), {record("p/b", "3", 12)});
  EXPECT_THAT(commands(), ElementsAre("watch 13"));
  created(at(14));
  EXPECT_EQ(follower_.state(), State::watching);
  EXPECT_EQ(follower_.endpoint(), "h0:1");
  EXPECT_FALSE(follower_.goesHome());
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(follower_.counters().relists, 0u);
  advance(Follower::kResumedResyncMs);
  EXPECT_THAT(commands(), ElementsAre("read p/ at 0 x500 keys")) << "no store was lost";
  page(at(12), {record("p/a", "1", 3), record("p/b", "3", 12)});
  quiet(kGoHomeMs + kGoHomeSpreadMs);
  EXPECT_THAT(commands(), Not(Contains(testing::StartsWith("ask"))));
}

TEST_F(FollowerHomeTest, HomeIsNotBack_TheWatchGoesOn_AndItIsAskedAgainLater) {
  away();
  quiet(kGoHomeMs);
  EXPECT_THAT(commands(), Contains(testing::StartsWith("ask h0:1")));
  follower_.homeFailed(now_);
  EXPECT_EQ(follower_.state(), State::watching);
  quiet(kGoHomeMs - 1);
  EXPECT_THAT(commands(), Not(Contains(testing::StartsWith("ask"))));
  quiet(1);
  EXPECT_THAT(commands(), Contains(testing::StartsWith("ask h0:1")));
}

TEST_F(FollowerHomeTest, HomeIsAnotherStore_OrBehind_ItStays) {
  away();
  for (Header header : {at(10, kCluster + 1), at(9), at(10, kCluster, kTerm - 1)}) {
    quiet(kGoHomeMs);
    EXPECT_THAT(commands(), Contains(testing::StartsWith("ask h0:1")));
    follower_.homeSaid(now_, homePage(header));
    EXPECT_EQ(follower_.state(), State::watching);
    EXPECT_EQ(follower_.endpoint(), "h1:1");
  }
  quiet(kGoHomeMs);
  commands();
  follower_.homeSaid(now_, {at(10), {record("p/b", "other", 5)}, false});
  EXPECT_EQ(follower_.endpoint(), "h1:1");
  EXPECT_THAT(commands(), IsEmpty());
}

// The answer may be older than what the watch has said meanwhile.
TEST_F(FollowerHomeTest, ChangesComeWhileHomeIsAsked_ItGoesThereAllTheSame) {
  away();
  quiet(kGoHomeMs);
  says(at(11), {put("p/b", "3", 11)});
  follower_.homeSaid(now_, homePage(at(10)));
  EXPECT_EQ(follower_.endpoint(), "h0:1");
  EXPECT_THAT(commands(), Contains("read p/b at 11 x1"));
}

TEST_F(FollowerHomeTest, AnswerOfHomeComesWhenTheStoreIsLost_ItIsIgnored) {
  away();
  quiet(kGoHomeMs);
  follower_.lost(now_, "broken");
  commands();
  follower_.homeSaid(now_, homePage(at(10)));
  follower_.homeFailed(now_);
  EXPECT_EQ(follower_.state(), State::held);
  EXPECT_THAT(commands(), IsEmpty());
}

class FollowerHomeOfMember3Test : public FollowerHomeTest {
 protected:
  FollowerHomeOfMember3Test() : FollowerHomeTest(3) {}
};

TEST_F(FollowerHomeOfMember3Test, WhenItAsksDependsOnTheMember) {
  away();
  uint64_t more = shareOf(3, kGoHomeSpreadMs);
  ASSERT_GT(more, 0u);
  quiet(kGoHomeMs + more - 1);
  EXPECT_THAT(commands(), Not(Contains(testing::StartsWith("ask"))));
  quiet(1);
  EXPECT_THAT(commands(), Contains(testing::StartsWith("ask h0:1")));
}

// All that had lost the same server read all keys 2 s later.
TEST_F(FollowerHomeOfMember3Test, WhenItReadsAllKeysAgainDependsOnTheMember) {
  auto untilAsked = [this] {
    uint64_t begin = now_;
    for (; follower_.pageAsked() == 0; advance(1)) says(at(10), {});
    return now_ - begin;
  };
  watching();
  EXPECT_EQ(untilAsked(), 60'000 - shareOf(3, 60'000));
  follower_.lost(now_, "broken");
  advance(Follower::kFailoverMs);
  resumes(at(10));
  created(at(10));
  uint64_t soon = Follower::kResumedResyncMs;
  EXPECT_EQ(untilAsked(), soon + shareOf(3, 60'000 - soon));
}

}  // namespace
}  // namespace Kelstore::Etcd
