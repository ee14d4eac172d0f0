// A few seconds of the simulation, always of the same seeds, and what makes it one.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/lumalog/Lumalog.h"
#include "tests/cluster-simulation/Simulation.h"

namespace ClusterSimulation {
namespace {

// Each takes a second with a sanitizer.
#ifdef TREL_SANITIZED
constexpr uint64_t kSmallClusters = 10;
#else
constexpr uint64_t kSmallClusters = 100;
#endif

class SimulationTest : public testing::Test {
 protected:
  SimulationTest() : before_(Lumalog::sink()) { Lumalog::sinkIs(nullptr); }
  ~SimulationTest() override { Lumalog::sinkIs(before_); }

 private:
  Lumalog::Sink* before_;
};

TEST_F(SimulationTest, SmallClusters_NothingIsWrong) {
  for (uint64_t seed = 1; seed <= kSmallClusters; ++seed) {
    Outcome outcome = Simulation(seed).run();
    ASSERT_EQ(outcome.verdict, "") << "cluster-simulate --seed " << seed << " --show\n" << outcome.history;
    ASSERT_GT(outcome.checks, 0U);
  }
}

TEST_F(SimulationTest, SameSeed_SameRun) {
  Outcome first = Simulation(7).run();
  Outcome second = Simulation(7).run();
  EXPECT_EQ(first.history, second.history);
  EXPECT_EQ(first.checks, second.checks);
  EXPECT_EQ(first.revisions, second.revisions);
  EXPECT_NE(first.history, Simulation(8).run().history);
}

}  // namespace
}  // namespace ClusterSimulation
