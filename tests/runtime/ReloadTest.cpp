// SIGHUP, once, often, and while a reading hangs.
#include "runtime/Reload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/runtime/ManualIo.h"
#include "tests/runtime/Turning.h"

namespace Runtime {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ReloadTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { holdSignal(SIGHUP); }

  // Until the loop has taken the signal.
  void hangup() {
    size_t before = log_.size();
    kill(getpid(), SIGHUP);
    ASSERT_TRUE(turnUntil(loop_, [&] { return log_.size() > before; }));
  }
  std::string read() {
    if (++reads_ == hangsAt_) throw ManualIo::Hangs();
    return file_;
  }
  // What happened since this was asked last.
  std::vector<std::string> happened() { return std::exchange(log_, {}); }

  static constexpr uint64_t kPatienceMs = Reload<std::string>::kPatienceMs;

  std::vector<std::string> log_;
  std::string file_ = "first";
  int reads_ = 0;
  int hangsAt_ = 0;  // the reading that hangs
  EventLoop loop_;
  Zavro::ManualClock clock_;
  ManualIo io_{clock_};
  Reload<std::string> reload_{loop_,
                              io_,
                              {[this] { log_.emplace_back("asked"); }, [this] { return read(); },
                               [this] { log_.emplace_back("waits"); },
                               [this](const std::string& config) { log_.push_back("is " + config); }}};
};

TEST_F(ReloadTest, Asked_IsTakenNoteOfAtOnce_AndReadOnce) {
  hangup();
  EXPECT_THAT(happened(), ElementsAre("asked"));
  io_.work();
  EXPECT_THAT(happened(), ElementsAre("is first"));
  io_.advance(kPatienceMs);
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(ReloadTest, AskedWhileAReadingHangs_EachIsTakenNoteOfAtOnce_AndOneReadingFollows) {
  hangup();
  io_.hangFirst();
  hangup();
  hangup();
  EXPECT_THAT(happened(), ElementsAre("asked", "asked", "asked"));
  EXPECT_EQ(io_.jobs(), 0u) << "no second thread hangs as well";
  io_.hungReturn();
  EXPECT_THAT(happened(), ElementsAre("is first", "is first"));
  io_.work();
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(ReloadTest, ReadingHangs_IsSaidOnce_AndOnceMoreWhenAskedMeanwhile) {
  hangup();
  io_.hangFirst();
  hangup();
  happened();
  io_.advance(kPatienceMs - 1);
  EXPECT_THAT(happened(), IsEmpty());
  io_.advance(1);
  EXPECT_THAT(happened(), ElementsAre("waits"));
  io_.advance(10 * kPatienceMs);
  EXPECT_THAT(happened(), IsEmpty());
  hangup();
  io_.advance(kPatienceMs / 2);
  hangup();
  EXPECT_THAT(happened(), ElementsAre("asked", "asked"));
  io_.advance(kPatienceMs / 2);
  EXPECT_THAT(happened(), ElementsAre("waits")) << "however often it is asked";
  io_.advance(10 * kPatienceMs);
  EXPECT_THAT(happened(), IsEmpty());
}

// Who is asked without pause gets somewhere all the same.
TEST_F(ReloadTest, ReadingThatFollowsHangs_WhatWasReadBeforeCounts_AndIsSaid) {
  hangup();
  io_.hangFirst();
  hangup();
  happened();
  hangsAt_ = 2;
  io_.hungReturn();
  EXPECT_THAT(happened(), ElementsAre("is first"));
  io_.advance(kPatienceMs);
  EXPECT_THAT(happened(), ElementsAre("waits"));
  file_ = "second";
  io_.hungReturn();
  EXPECT_THAT(happened(), ElementsAre("is second"));
}

}  // namespace
}  // namespace Runtime
