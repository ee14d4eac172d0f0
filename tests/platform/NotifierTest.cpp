#include "platform/kor/Notifier.h"

#include <gmock/gmock.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "platform/zavro/Ptr.h"
#include "tests/support/Thrown.h"

namespace {

struct Held final : Zavro::Counted {};

// Subscribers a, b, c write "<name><change>" into one log; what they do besides is set per test.
class NotifierTest : public testing::Test {
 protected:
  using Changes = Kor::Notifier<int>;

  Kor::Subscription logging(const std::string& name, std::function<void(int)> also = {}) {
    return changes_->subscribe([this, name, also](int change) {
      log_ += name + std::to_string(change) + " ";
      if (also) also(change);
    });
  }

  std::optional<Changes> changes_{std::in_place};
  std::string log_;
};

TEST_F(NotifierTest, Change_ReachesEverySubscriberOnce_InOrderOfSubscription) {
  Kor::Subscription a = logging("a");
  Kor::Subscription b = logging("b");
  changes_->notify(1);
  changes_->notify(2);
  EXPECT_EQ(log_, "a1 b1 a2 b2 ");
}

TEST_F(NotifierTest, NobodySubscribed_NothingHappens) {
  changes_->notify(1);
  EXPECT_EQ(changes_->subscribers(), 0u);
}

TEST_F(NotifierTest, SubscriptionEnds_ByResetByDestructionByAssignment) {
  Kor::Subscription a = logging("a");
  Kor::Subscription b = logging("b");
  {
    Kor::Subscription c = logging("c");
    EXPECT_EQ(changes_->subscribers(), 3u);
  }
  a.reset();
  EXPECT_FALSE(a);
  b = logging("d");
  EXPECT_TRUE(b);
  EXPECT_EQ(changes_->subscribers(), 1u);
  changes_->notify(1);
  EXPECT_EQ(log_, "d1 ");
}

TEST_F(NotifierTest, SubscriptionMoves_AndStaysOne) {
  Kor::Subscription a = logging("a");
  Kor::Subscription moved = std::move(a);
  EXPECT_FALSE(a);
  Kor::Subscription& same = moved;
  moved = std::move(same);
  changes_->notify(1);
  EXPECT_EQ(log_, "a1 ");
}

TEST_F(NotifierTest, SubscriptionOutlivesTheNotifier) {
  Kor::Subscription a = logging("a");
  changes_.reset();
  a.reset();
  EXPECT_FALSE(a);
}

TEST_F(NotifierTest, SubscribersWithin_HearOnlyOfLaterChanges) {
  Kor::Subscription late;
  Kor::Subscription a = logging("a", [&](int) {
    if (!late) late = logging("late");
  });
  changes_->notify(1);
  changes_->notify(2);
  EXPECT_EQ(log_, "a1 a2 late2 ");
}

TEST_F(NotifierTest, LeavingWithin_SilencesAtOnce) {
  Kor::Subscription b;
  Kor::Subscription a = logging("a", [&](int) { b.reset(); });
  b = logging("b");
  Kor::Subscription c = logging("c");
  changes_->notify(1);
  EXPECT_EQ(log_, "a1 c1 ");
  EXPECT_EQ(changes_->subscribers(), 2u);
}

TEST_F(NotifierTest, LeavingItselfWithin_FinishesTheCallAndHearsNoMore) {
  Kor::Subscription a;
  Zavro::Ptr<Held> held = Zavro::makePtr<Held>();
  a = changes_->subscribe([&, held](int) {
    a.reset();
    log_ += "still holds " + std::to_string(held->useCount()) + " ";
  });
  changes_->notify(1);
  changes_->notify(2);
  EXPECT_EQ(log_, "still holds 2 ");
  EXPECT_EQ(held->useCount(), 1u);
}

TEST_F(NotifierTest, OneLeavesAndAnotherSubscribesWithin_NobodyIsPassedOver) {
  Kor::Subscription x = logging("x");
  Kor::Subscription late;
  Kor::Subscription a = logging("a", [&](int) {
    x.reset();
    late = logging("late");
  });
  Kor::Subscription b = logging("b");
  Kor::Subscription c = logging("c");
  changes_->notify(1);
  EXPECT_EQ(log_, "x1 a1 b1 c1 ");
}

TEST_F(NotifierTest, WhatACallbackHolds_IsReleasedWhenItLeaves) {
  Zavro::Ptr<Held> held = Zavro::makePtr<Held>();
  Kor::Subscription a = changes_->subscribe([held](int) {});
  EXPECT_EQ(held->useCount(), 2u);
  a.reset();
  EXPECT_EQ(held->useCount(), 1u);
}

TEST_F(NotifierTest, WhatACallbackHolds_IsReleasedWithTheNotifier) {
  Zavro::Ptr<Held> held = Zavro::makePtr<Held>();
  Kor::Subscription a = changes_->subscribe([held](int) {});
  changes_.reset();
  EXPECT_EQ(held->useCount(), 1u);
}

TEST_F(NotifierTest, CallbackHoldsAnotherSubscription_BothEndTogether) {
  auto b = std::make_shared<Kor::Subscription>(logging("b"));
  Kor::Subscription a = changes_->subscribe([b](int) {});
  b.reset();
  EXPECT_EQ(changes_->subscribers(), 2u);
  a.reset();
  EXPECT_EQ(changes_->subscribers(), 0u);
}

TEST_F(NotifierTest, SubscriberThrows_OthersHearAllTheSame_FirstExceptionReachesTheChanger) {
  Kor::Subscription a = logging("a", [](int) { throw std::runtime_error("a is ill"); });
  Kor::Subscription b = logging("b", [](int) { throw std::runtime_error("b is ill"); });
  Kor::Subscription c = logging("c");
  EXPECT_EQ(thrown<std::runtime_error>([&] { changes_->notify(1); }), "a is ill");
  EXPECT_EQ(thrown<std::runtime_error>([&] { changes_->notify(2); }), "a is ill");
  EXPECT_EQ(log_, "a1 b1 c1 a2 b2 c2 ");
  a.reset();
  b.reset();
  changes_->notify(3);
  EXPECT_EQ(log_, "a1 b1 c1 a2 b2 c2 c3 ");
}

using NotifierDeathTest = NotifierTest;

TEST_F(NotifierDeathTest, ChangeWithin_EndsTheProcess) {
  Kor::Subscription a = logging("a", [&](int) { changes_->notify(2); });
  EXPECT_DEATH(changes_->notify(1), "changed during publication");
}

TEST_F(NotifierDeathTest, NotifierDestroyedWithin_EndsTheProcess) {
  Kor::Subscription a = logging("a", [&](int) { changes_.reset(); });
  EXPECT_DEATH(changes_->notify(1), "destroyed during publication");
}

TEST(NotifierArgumentsTest, NoneOrSeveral_ReachTheCallback) {
  Kor::Notifier<> bell;
  Kor::Notifier<int, std::string> letters;
  std::string log;
  Kor::Subscription a = bell.subscribe([&] { log += "rings "; });
  Kor::Subscription b =
      letters.subscribe([&](int number, const std::string& text) { log += std::to_string(number) + text; });
  bell.notify();
  letters.notify(3, "rd");
  EXPECT_EQ(log, "rings 3rd");
}

}  // namespace
