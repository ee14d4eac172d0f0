#include "runtime/BoundedIo.h"

#include <gtest/gtest.h>

#include "tests/runtime/ManualIo.h"

namespace Runtime {
namespace {

class BoundedIoTest : public testing::Test {
 protected:
  Zavro::ManualClock clock_;
  ManualIo io_{clock_};
  BoundedIo bounded_{io_, 5 * kSecond};
};

TEST_F(BoundedIoTest, WorkTakesTooLong_ItHangsUntilItIsDone_OthersAreDoneMeanwhile) {
  int done = 0;
  bounded_.offLoop([] {}, [&] { ++done; });
  bounded_.offLoop([] {}, [&] { ++done; });
  io_.hangFirst();
  io_.work();
  EXPECT_EQ(done, 1);
  io_.advance(5 * kSecond - 1);
  EXPECT_FALSE(bounded_.hangs());
  io_.advance(1);
  EXPECT_TRUE(bounded_.hangs());
  bounded_.offLoop([] {}, [&] { ++done; });
  io_.work();
  EXPECT_EQ(done, 2);
  EXPECT_TRUE(bounded_.hangs());
  io_.hungReturn();
  EXPECT_EQ(done, 3);
  EXPECT_FALSE(bounded_.hangs());
}

}  // namespace
}  // namespace Runtime
