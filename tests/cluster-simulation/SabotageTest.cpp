// That the simulation finds what it is for: followers, publishers and the network between them are tampered
// with, and within a few seeds something is found to be wrong.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/lumalog/Lumalog.h"
#include "tests/cluster-simulation/Simulation.h"

namespace ClusterSimulation {
namespace {

struct Tampered {
  const char* name;
  Sabotage sabotage;
  uint64_t from;      // seed, a few before one that finds it
  const char* finds;  // a part of what it has to find
};
void PrintTo(const Tampered& one, std::ostream* out) { *out << one.name; }

const Tampered kAll[] = {
    {"noGrace", Sabotage::noGrace, 1, "the row goes without a cause"},
    {"noHold", Sabotage::noHold, 195, "the row goes without a cause"},
    {"noResync", Sabotage::noResync, 1, ""},
    {"watchStaysDead", Sabotage::watchStaysDead, 1, ""},
    {"fragmentsAreWhole", Sabotage::fragmentsAreWhole, 1, ""},
    {"noMark", Sabotage::noMark, 1, "after it was withdrawn"},
    {"noRenewal", Sabotage::noRenewal, 1, "which was served"},
    {"renewsForEver", Sabotage::renewsForEver, 40, "stands still"},
    {"noStandby", Sabotage::noStandby, 1, ""},
};

class SabotageTest : public testing::TestWithParam<Tampered> {
 protected:
  SabotageTest() : before_(Lumalog::sink()) { Lumalog::sinkIs(nullptr); }
  ~SabotageTest() override { Lumalog::sinkIs(before_); }

 private:
  Lumalog::Sink* before_;
};

TEST_P(SabotageTest, IsFound) {
  constexpr uint64_t kSeeds = 300;
  for (uint64_t seed = GetParam().from; seed < GetParam().from + kSeeds; ++seed) {
    Outcome outcome = Simulation(seed, GetParam().sabotage).run();
    if (outcome.verdict.empty()) continue;
    fmt::print("seed {}: {}\n", seed, outcome.verdict);
    EXPECT_NE(outcome.verdict.find(GetParam().finds), std::string::npos) << outcome.verdict;
    return;
  }
  FAIL() << "not within " << kSeeds << " seeds from " << GetParam().from << " on";
}

INSTANTIATE_TEST_SUITE_P(All, SabotageTest, testing::ValuesIn(kAll),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace ClusterSimulation
