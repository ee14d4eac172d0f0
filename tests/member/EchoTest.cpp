// When an echo counts as answered, as lost, or as neither.
#include "member/Echo.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace Member {
namespace {

using namespace std::chrono_literals;

// Time passes while it waits: all that was asked for, or what the test says.
class ManualSocket final : public EchoSocket {
 public:
  explicit ManualSocket(Zavro::ManualClock& clock) : clock_(clock) {}

  void wait(std::chrono::milliseconds atMost) override {
    waits.push_back(atMost.count());
    auto passes = nextWakeUp_.value_or(atMost);
    nextWakeUp_.reset();
    clock_.advanceNs(static_cast<uint64_t>(std::chrono::nanoseconds(passes).count()));
  }
  bool answered() override { return answerAfter_ && clock_.monotonicNs() >= *answerAfter_; }

  void nextWakeUpIs(std::chrono::nanoseconds after) { nextWakeUp_ = after; }
  void answerIsAfter(std::chrono::nanoseconds after) { answerAfter_ = static_cast<uint64_t>(after.count()); }

  std::vector<int64_t> waits;

 private:
  Zavro::ManualClock& clock_;
  std::optional<std::chrono::nanoseconds> nextWakeUp_;
  std::optional<uint64_t> answerAfter_;
};

class EchoWaitTest : public testing::Test {
 protected:
  std::string result() {
    absl::StatusOr<bool> answer = awaitAnswer(socket_, {"10.1.0.2", "bp", 400ms}, clock_);
    if (!answer.ok()) return std::string(answer.status().message());
    return *answer ? "answered" : "lost";
  }

  Zavro::ManualClock clock_;
  ManualSocket socket_{clock_};
};

TEST_F(EchoWaitTest, AnswerInTime_Answered) {
  socket_.nextWakeUpIs(2ms);
  socket_.answerIsAfter(2ms);
  EXPECT_EQ(result(), "answered");
  EXPECT_EQ(socket_.waits, (std::vector<int64_t>{400}));
}

TEST_F(EchoWaitTest, NoAnswer_LostAfterTheTimeout) {
  EXPECT_EQ(result(), "lost");
  EXPECT_EQ(clock_.monotonicNs(), 400'000'000u);
}

TEST_F(EchoWaitTest, SomethingElseArrives_TheRestOfTheTimeoutIsWaited) {
  socket_.nextWakeUpIs(100500us);
  socket_.answerIsAfter(300ms);
  EXPECT_EQ(result(), "answered");
  EXPECT_EQ(socket_.waits, (std::vector<int64_t>{400, 300}));
}

// This used to count as lost, so that a machine that was busy for a second lost all its neighbours.
TEST_F(EchoWaitTest, ThisThreadWakesUpLate_TheAnswerThatIsThereCounts) {
  for (auto late : {401ms, 799ms, 60000ms}) {
    socket_.nextWakeUpIs(late);
    socket_.answerIsAfter(2ms);
    EXPECT_EQ(result(), "answered") << late.count();
  }
}

TEST_F(EchoWaitTest, ThisThreadWakesUpALittleLate_AndThereIsNoAnswer_Lost) {
  socket_.nextWakeUpIs(799ms);
  EXPECT_EQ(result(), "lost");
}

// The answer may have been lost by what stopped this machine.
TEST_F(EchoWaitTest, ThisThreadWakesUpFarTooLate_AndThereIsNoAnswer_NeitherAnsweredNorLost) {
  socket_.nextWakeUpIs(800ms);
  EXPECT_EQ(
      result(),
      "echo to 10.1.0.2 on bp: looked for the answer after 800 ms, expected 400 ms: this machine was stopped "
      "or is overloaded");
}

}  // namespace
}  // namespace Member
