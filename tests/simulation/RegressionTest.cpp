// Scenarios in which something once went wrong, as short as they could be made. A new one is what ./simulate
// prints, under a name that says what used to happen.
#include <gtest/gtest.h>

#include "tests/simulation/Isolated.h"

namespace Simulation {
namespace {

struct Regression {
  const char* name;
  Scenario scenario;
};
void PrintTo(const Regression& regression, std::ostream* out) { *out << regression.name; }

const Regression kRegressions[] = {
    // A link moved to an index where an earlier pipeline had left the same row, and the row that it came from
    // was written by another link right after. The model took the move for overtaken, and the row for stale.
    {"MoveToARowThatStandsAlready_AnotherLinkTakesTheOldIndex_TheRowIsAccountedFor",
     Scenario{.conditions = {.storageToggle = false},
              .steps =
                  {
                      {.kind = Kind::topoJoin, .set = 1, .value = 14501033},
                      {.kind = Kind::agentIs},
                      {.kind = Kind::slice, .item = 4},
                      {.kind = Kind::pipelineIs, .value = 14},
                      {.kind = Kind::slice},
                      {.kind = Kind::ifIndex, .set = 1, .item = 1, .value = 2},
                      {.kind = Kind::slice},
                      {.kind = Kind::slice},
                      {.kind = Kind::slice, .item = 4},
                      {.kind = Kind::slice},
                      {.kind = Kind::slice, .item = 3},
                      {.kind = Kind::slice, .item = 3},
                      {.kind = Kind::slice, .item = 1},
                      {.kind = Kind::agentIs, .value = 8},
                      {.kind = Kind::slice},
                      {.kind = Kind::slice},
                      {.kind = Kind::slice, .item = 4},
                      {.kind = Kind::slice},
                      {.kind = Kind::slice},
                      {.kind = Kind::ifIndex, .item = 1, .value = 8},
                      {.kind = Kind::slice, .item = 7},
                      {.kind = Kind::slice, .item = 1},
                      {.kind = Kind::slice},
                      {.kind = Kind::ifIndex, .item = 1, .value = 2},
                      {.kind = Kind::ifIndex, .item = 2, .value = 8},
                  }}},
    // A change of the future reads as the uptime of now. Within the last ten microseconds of a tick the
    // product had counted that tick, and the model had not.
    {"ChangeInTheFutureReadShortlyBeforeATicksEnd_TheTickCounts",
     Scenario{.conditions = {},
              .steps =
                  {
                      {.kind = Kind::clock, .value = 1},
                      {.kind = Kind::reachJoin, .value = 59},
                      {.kind = Kind::agentIs},
                      {.kind = Kind::status, .value = 1},
                      {.kind = Kind::drain, .key = 4, .item = 25, .value = 2290},
                      {.kind = Kind::walkFirst, .key = 1},
                      {.kind = Kind::walkHold},
                      {.kind = Kind::walkRead, .value = 2},
                      {.kind = Kind::walkRead, .value = 3},
                      {.kind = Kind::walkRead, .value = 4},
                      {.kind = Kind::walkRead, .value = 5},
                  }}},
};

class RegressionTest : public testing::TestWithParam<Regression> {};

TEST_P(RegressionTest, NothingGoesWrong) {
  Outcome outcome = runIsolated(GetParam().scenario);
  EXPECT_EQ(outcome.failure, "");
  EXPECT_GT(outcome.publications, 0U);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, RegressionTest, testing::ValuesIn(kRegressions),
                         [](const auto& regression) { return std::string(regression.param.name); });

}  // namespace
}  // namespace Simulation
