// Keys of a lease that ended by itself are held for a while; those that a member ended are gone at once.
#include "kelstore/etcd/Grace.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

constexpr int64_t kLease = 77;
constexpr int64_t kOtherLease = 78;

class GraceTest : public testing::Test {
 protected:
  static constexpr uint64_t kMs = 5'000;

  static Change put(const std::string& path, int64_t lease = kLease) { return {"p/" + path, "{}", lease}; }
  static Change gone(const std::string& path, int64_t lease = kLease) {
    return {"p/" + path, std::nullopt, lease};
  }
  static Texts textsOf(const std::vector<Change>& changes) {
    Texts texts;
    for (const Change& change : changes) texts.push_back((change.value ? "" : "-") + change.key.substr(2));
    return texts;
  }
  Texts passes(std::vector<Change> changes, bool whole = false) {
    Batch batch{1, std::move(changes), whole};
    grace_.pass(batch, now_);
    return textsOf(batch.changes);
  }
  Texts over() { return textsOf(grace_.over(now_)); }
  // What is over by then, asked for as often as it wants to be.
  Texts after(uint64_t ms) {
    Texts all;
    for (uint64_t end = now_ + ms; now_ < end;) {
      now_ = std::min(end, grace_.wakeAtMs());
      for (const std::string& text : over()) all.push_back(text);
    }
    return all;
  }

  uint64_t now_ = 1'000'000;
  Grace grace_{KeySpace("p"), kMs};
};

TEST_F(GraceTest, LeaseEndedByItself_ItsKeysAreHeld_AndGoWhenTheTimeIsOver) {
  EXPECT_EQ(grace_.wakeAtMs(), Grace::kNever);
  EXPECT_THAT(passes({put("members/3/system"), put("topology/3/1")}),
              ElementsAre("members/3/system", "topology/3/1"));
  EXPECT_THAT(passes({gone("members/3/system"), gone("topology/3/1")}), IsEmpty());
  EXPECT_TRUE(grace_.holds("3"));
  EXPECT_EQ(grace_.wakeAtMs(), now_ + Grace::kMostAtOnceMs);
  EXPECT_THAT(after(kMs - 1), IsEmpty());
  EXPECT_THAT(after(1), ElementsAre("-members/3/system", "-topology/3/1"));
  EXPECT_FALSE(grace_.holds("3"));
  EXPECT_EQ(grace_.wakeAtMs(), Grace::kNever);
  EXPECT_THAT(over(), IsEmpty());
}

TEST_F(GraceTest, MemberIsBackInTime_OnlyWhatItDidNotPutAgainGoes) {
  passes({gone("members/3/system"), gone("members/3/processors/1")});
  now_ += 1000;
  EXPECT_THAT(passes({put("members/3/system", kOtherLease)}), ElementsAre("members/3/system"));
  EXPECT_THAT(after(kMs), ElementsAre("-members/3/processors/1"));
}

// An old leader that stalled revokes every lease at once.
TEST_F(GraceTest, AllMembersAtOnce_NothingGoesWhenAllAreBack) {
  for (int member = 0; member < 256; ++member)
    EXPECT_THAT(passes({gone(fmt::format("members/{}/system", member), 1000 + member)}), IsEmpty());
  for (int member = 0; member < 256; ++member) EXPECT_TRUE(grace_.holds(std::to_string(member)));
  after(kMs - 1);
  for (int member = 0; member < 256; ++member)
    passes({put(fmt::format("members/{}/system", member), 2000 + member)});
  EXPECT_THAT(after(kMs), IsEmpty());
}

TEST_F(GraceTest, KeysGoneOneAfterTheOther_EachHasItsTime) {
  passes({gone("members/3/system")});
  now_ += 1000;
  passes({gone("members/4/system")});
  EXPECT_THAT(after(kMs - 1000), ElementsAre("-members/3/system"));
  EXPECT_EQ(grace_.wakeAtMs(), now_ + 1000);
  EXPECT_THAT(after(1000), ElementsAre("-members/4/system"));
}

TEST_F(GraceTest, MemberGaveItsLeaseBack_ItsKeysAreGoneAtOnce_AndTheMarkIsNoValue) {
  EXPECT_THAT(passes({put("members/3/leaving")}), IsEmpty());
  EXPECT_THAT(passes({gone("members/4/system", kOtherLease)}), IsEmpty()) << "is not the one that leaves";
  // In the order in which a server tells of them.
  EXPECT_THAT(passes({gone("members/3/leaving"), gone("members/3/system"), gone("topology/3/1")}),
              ElementsAre("-members/3/system", "-topology/3/1"));
  // It is back, and dies.
  passes({put("members/3/system", kOtherLease)});
  EXPECT_THAT(passes({gone("members/3/system", kOtherLease)}), IsEmpty());
}

TEST_F(GraceTest, KeyThatItsOwnerDeleted_IsGoneAtOnce) {
  EXPECT_THAT(passes({gone("members/3/processors/2", 0)}), ElementsAre("-members/3/processors/2"));
}

TEST_F(GraceTest, HeldKeyIsDeletedByItsOwnerMeanwhile_IsGoneAtOnce) {
  passes({gone("members/3/system")});
  EXPECT_THAT(passes({put("members/3/system"), gone("members/3/system", 0)}),
              ElementsAre("members/3/system", "-members/3/system"));
  EXPECT_THAT(after(kMs), IsEmpty());
}

TEST_F(GraceTest, StoreWasAway_TheTimeBeginsAnew) {
  grace_.storeIsBack(now_);
  EXPECT_EQ(grace_.wakeAtMs(), Grace::kNever);
  passes({gone("members/3/system")});
  now_ += 60'000;
  grace_.storeIsBack(now_);
  EXPECT_THAT(after(kMs - 1), IsEmpty());
  EXPECT_THAT(after(1), ElementsAre("-members/3/system"));
}

// Or a store that comes and goes would keep the dead.
TEST_F(GraceTest, StoreIsAwayAgain_TheTimeGoesOnWhenItIsBack) {
  passes({gone("members/3/system")});
  EXPECT_THAT(after(kMs - 1), IsEmpty());
  now_ += 60'000;
  grace_.storeIsBack(now_);
  EXPECT_THAT(after(kMs - 1'500), IsEmpty());
  now_ += 60'000;
  grace_.storeIsBack(now_);
  EXPECT_THAT(after(499), IsEmpty());
  EXPECT_THAT(after(1), ElementsAre("-members/3/system"));
}

// What was put again meanwhile is still to be read.
TEST_F(GraceTest, ProcessWasStopped_TheTimeHardlyCounts) {
  passes({gone("members/3/system")});
  now_ += 60'000;
  EXPECT_THAT(over(), IsEmpty());
  EXPECT_THAT(passes({put("members/3/system", kOtherLease)}), ElementsAre("members/3/system"));
  EXPECT_FALSE(grace_.holds("3"));
  EXPECT_THAT(after(kMs), IsEmpty());
}

TEST_F(GraceTest, EverythingIsReadAnew_NothingIsHeldAnyMore) {
  passes({put("members/3/leaving"), gone("members/4/system", kOtherLease)});
  EXPECT_THAT(passes({put("members/4/system")}, true), ElementsAre("members/4/system"));
  EXPECT_THAT(after(kMs), IsEmpty());
}

TEST_F(GraceTest, NoGrace_EverythingIsGoneAtOnce) {
  grace_ = Grace(KeySpace("p"), 0);
  EXPECT_THAT(passes({gone("members/3/system")}), ElementsAre("-members/3/system"));
}

}  // namespace
}  // namespace Kelstore::Etcd
