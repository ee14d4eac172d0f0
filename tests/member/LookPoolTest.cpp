// How many looks at file systems are under way at a time, and what those that hang do to the others.
#include "member/LookPool.h"

#include <gtest/gtest.h>

#include <optional>

#include "tests/runtime/ManualIo.h"

namespace Member {
namespace {

class LookPoolTest : public testing::Test {
 protected:
  void look(size_t count, bool hangs = false) {
    for (size_t i = 0; i < count; ++i) {
      pool_->offLoop(
          [this, hangs] {
            ++begun_;
            if (hangs && hanging_) throw Runtime::ManualIo::Hangs();
          },
          [this] { ++done_; });
    }
  }

  void hungReturn() {
    hanging_ = false;
    io_.hungReturn();
  }

  Zavro::ManualClock clock_;
  Runtime::ManualIo io_{clock_};
  bool hanging_ = true;  // those that hang do
  size_t begun_ = 0;
  size_t done_ = 0;
  std::optional<LookPool> pool_{std::in_place, io_};
};

TEST_F(LookPoolTest, MoreLooksThanThreads_SomeAtATime_AllAreDone) {
  look(100);
  EXPECT_EQ(io_.jobs(), LookPool::kQuick);
  io_.work();
  EXPECT_EQ(done_, 100u);
}

TEST_F(LookPoolTest, SomeHang_TheOthersGoOnAfterAMoment) {
  look(20, /*hangs=*/true);
  look(100);
  io_.advance(LookPool::kSlowMs - 1);
  EXPECT_EQ(done_, 0u);
  io_.advance(1);
  EXPECT_EQ(begun_, 16u);
  io_.advance(LookPool::kSlowMs);
  EXPECT_EQ(done_, 100u);
  hungReturn();
  EXPECT_EQ(done_, 120u) << "late results count";
}

TEST_F(LookPoolTest, VeryManyHang_ThreadsAreBounded_TheOthersWaitUntilSomeReturn) {
  look(1000, /*hangs=*/true);
  look(1);
  io_.advance(60'000);
  EXPECT_EQ(begun_, LookPool::kMost);
  EXPECT_EQ(done_, 0u);
  hungReturn();
  EXPECT_EQ(done_, 1001u);
}

TEST_F(LookPoolTest, GoneWhileSomeHangAndSomeWait_TheyAreDropped) {
  look(100, /*hangs=*/true);
  io_.work();
  pool_.reset();
  size_t before = begun_;
  io_.advance(1000);
  EXPECT_EQ(begun_, before);
  hungReturn();
  EXPECT_EQ(done_, 0u);
}

}  // namespace
}  // namespace Member
