// Delays before what failed is tried again.
#include "runtime/Backoff.h"

#include <gmock/gmock.h>

#include <set>
#include <vector>

namespace Runtime {
namespace {

std::vector<uint64_t> delays(Backoff& backoff, int count) {
  std::vector<uint64_t> all;
  while (count-- > 0) all.push_back(backoff.nextMs());
  return all;
}

TEST(BackoffTest, DelaysDoubleUpToTheBound) {
  double random = 0;
  Backoff backoff(200, 1000, [&] { return random; });
  EXPECT_THAT(delays(backoff, 5), testing::ElementsAre(100, 200, 400, 500, 500));
  backoff.reset();
  random = 0.5;
  EXPECT_THAT(delays(backoff, 5), testing::ElementsAre(150, 300, 600, 750, 750));
}

TEST(BackoffTest, DelaysVaryBetweenHalfAndAll) {
  Backoff backoff(1000, 1000, unforeseenRandom());
  std::set<uint64_t> seen;
  for (uint64_t delay : delays(backoff, 100)) {
    EXPECT_GE(delay, 500u);
    EXPECT_LE(delay, 1000u);
    seen.insert(delay);
  }
  EXPECT_GT(seen.size(), 30u);
}

TEST(BackoffTest, TwoWhoFailAtOnce_WaitForDifferentTimes) {
  Backoff one(1'000'000, 1'000'000, unforeseenRandom());
  Backoff other(1'000'000, 1'000'000, unforeseenRandom());
  EXPECT_NE(delays(one, 10), delays(other, 10));
}

TEST(BackoffTest, VariedDelay_LeavesTheNextOneAsItIs) {
  Backoff backoff(200, 1000, [] { return 0.0; });
  EXPECT_EQ(backoff.variedMs(50), 25u);
  EXPECT_EQ(backoff.nextMs(), 100u);
}

}  // namespace
}  // namespace Runtime
