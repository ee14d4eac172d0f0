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
    // A member's links were exchanged while the child machine for the links before was being scanned, and
    // again
    // while the unused machine for those in between ended: the middle links were followed by nobody.
    {"LinksExchangedTwiceWithinTheScanOfTheFirst_TheMiddleOnesAreWithdrawn",
     Scenario{.conditions = {},
              .steps =
                  {
                      {.kind = Kind::agentIs, .value = 1},
                      {.kind = Kind::ifIndex},
                      {.kind = Kind::pipelineIs, .item = 1},
                      {.kind = Kind::topoJoin, .key = 3, .value = 1806822, .within = 1},
                      {.kind = Kind::topoJoin, .key = 3, .within = 3},
                      {.kind = Kind::topoJoin, .key = 3},
                  }}},
    // The child machine that was made for a new host stayed active in a pipeline that was paused meanwhile.
    {"HostReplacedWhileThePipelineIsPaused_ChangesWaitForItsReturn",
     Scenario{.conditions = {},
              .steps =
                  {
                      {.kind = Kind::hostJoin, .key = 3},
                      {.kind = Kind::agentIs},
                      {.kind = Kind::drain, .item = 50},
                      {.kind = Kind::hostJoin, .key = 3, .value = 3, .within = 1},
                      {.kind = Kind::pause, .key = 2, .within = 2},
                      {.kind = Kind::load, .key = 3, .item = 1},
                      {.kind = Kind::load, .key = 3, .item = 2},
                  }}},
    // Being resumed led to a pause that was not carried out.
    {"PausedWhileItIsResumed_StaysPaused", Scenario{.conditions = {},
                                                    .steps =
                                                        {
                                                            {.kind = Kind::reachJoin, .key = 4},
                                                            {.kind = Kind::agentIs},
                                                            {.kind = Kind::drain, .item = 50},
                                                            {.kind = Kind::pause, .key = 1},
                                                            {.kind = Kind::report, .key = 4, .item = 2},
                                                            {.kind = Kind::pause, .key = 1, .within = 1},
                                                            {.kind = Kind::resume, .key = 1},
                                                            {.kind = Kind::report, .key = 4, .item = 1},
                                                        }}},
    // A host that left while its noted changes were being handled was written into the table all the same.
    {"HostLeavesWhileItsNotedChangesAreHandled_TheRestIsNotWritten",
     Scenario{
         .conditions = {},
         .steps =
             {
                 {.kind = Kind::agentIs},
                 {.kind = Kind::drain, .item = 50},
                 {.kind = Kind::mapMount},
                 {.kind = Kind::mapMount, .item = 4, .value = 1},
                 {.kind = Kind::hostJoin, .key = 3},
                 {.kind = Kind::pause, .key = 3},
                 {.kind = Kind::mount, .key = 3, .item = 4},
                 {.kind = Kind::mount, .key = 3},
                 {.kind = Kind::hostWrong, .key = 3, .within = 1},
                 {.kind = Kind::resume, .key = 3},
             }}},
    // A pause and a return within a deletion started a second deletion scan; what the first one then found
    // had
    // been written meanwhile, and it deleted it.
    {"PausedAndResumedWithinAReconciliation_NoLiveRowGoes",
     Scenario{
         .conditions = {},
         .steps =
             {
                 {.kind = Kind::stale, .key = 2, .value = 1},
                 {.kind = Kind::pause, .key = 2, .within = 1},
                 {.kind = Kind::agentIs},
                 {.kind = Kind::resume, .key = 2, .within = 1},
                 {.kind = Kind::hostJoin, .key = 2, .within = 1},
             }}},
    // A link's move to an index was overtaken while its old row went, so that nothing was written there. The
    // model took the row under that index, which an earlier pipeline had left, for accounted for.
    {"MoveToAnIndexIsOvertaken_TheRowLeftOverThereGoes",
     Scenario{
         .conditions = {},
         .steps =
             {
                 {.kind = Kind::ifIndex, .set = 1, .value = 4},
                 {.kind = Kind::topoJoin, .key = 5, .value = 15655931},
                 {.kind = Kind::wire, .key = 5, .item = 1},
                 {.kind = Kind::ifIndex, .value = 1},
                 {.kind = Kind::agentIs, .value = 6},
                 {.kind = Kind::drain, .item = 27},
                 {.kind = Kind::ifIndex, .value = 4, .within = 3},
                 {.kind = Kind::ifIndex, .item = 1},
                 {.kind = Kind::reachJoin, .value = 3094834},
                 {.kind = Kind::ifIndex, .within = 2},
                 {.kind = Kind::wire, .key = 5},
                 {.kind = Kind::pipelineIs, .item = 1},
             }}},
    // A link moved to an index where an earlier pipeline had left the same row, and the row that it came from
    // was written by another link right after. The model took the move for overtaken, and the row for stale.
    {"MoveToARowThatStandsAlready_AnotherLinkTakesTheOldIndex_TheRowIsAccountedFor",
     Scenario{
         .conditions = {.storageToggle = false},
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
};

class RegressionTest : public testing::TestWithParam<Regression> {};

TEST_P(RegressionTest, NothingGoesWrong) {
  Outcome outcome = runIsolated(GetParam().scenario);
  EXPECT_EQ(outcome.failure, "");
  EXPECT_GT(outcome.events, 0U);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, RegressionTest, testing::ValuesIn(kRegressions),
                         [](const auto& regression) { return std::string(regression.param.name); });

}  // namespace
}  // namespace Simulation
