// Answers of work off the loop, and those that come too late.
#include "runtime/OffLoop.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/runtime/ManualIo.h"

namespace Runtime {
namespace {

class AnswerTest : public testing::Test {
 protected:
  void ask(const std::string& question) {
    offLoop_->run([question] { return std::make_unique<std::string>("answer to " + question); },
                  [this](std::unique_ptr<std::string> answer) { taken_.push_back(*answer); });
  }

  Zavro::ManualClock clock_;
  ManualIo io_{clock_};
  std::unique_ptr<OffLoop> offLoop_ = std::make_unique<OffLoop>(io_);
  std::vector<std::string> taken_;
};

TEST_F(AnswerTest, EachIsTakenOnce_WhenTheWorkIsDone) {
  ask("1");
  ask("2");
  EXPECT_THAT(taken_, testing::IsEmpty());
  io_.work();
  EXPECT_THAT(taken_, testing::ElementsAre("answer to 1", "answer to 2"));
  io_.work();
  EXPECT_EQ(taken_.size(), 2u);
}

TEST_F(AnswerTest, NobodyWaitsAnyMore_TheWorkIsDoneInVain) {
  int worked = 0;
  offLoop_->run([&worked] { return ++worked; }, [this](int) { taken_.emplace_back("taken"); });
  offLoop_.reset();
  io_.work();
  EXPECT_EQ(worked, 1);
  EXPECT_THAT(taken_, testing::IsEmpty());
}

TEST_F(AnswerTest, TakingTheFirstEndsIt_TheSecondIsNotTaken) {
  offLoop_->run([] { return 1; },
                [this](int) {
                  offLoop_.reset();
                  taken_.emplace_back("first");
                });
  ask("second");
  io_.work();
  EXPECT_THAT(taken_, testing::ElementsAre("first"));
}

}  // namespace
}  // namespace Runtime
