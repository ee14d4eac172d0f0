// Figures computed from what the machine tells.
#include "Figures.h"

#include <gtest/gtest.h>

namespace Member {
namespace {

int load(ProcessorTime before, ProcessorTime after) { return loadBetween(before, after); }

TEST(FiguresTest, LoadIsTheBusyShareOfTheTimeBetween_Rounded) {
  EXPECT_EQ(load({0, 100, 1000}, {0, 100, 1200}), 0);
  EXPECT_EQ(load({0, 100, 1000}, {0, 150, 1200}), 25);
  EXPECT_EQ(load({0, 100, 1000}, {0, 300, 1200}), 100);
  EXPECT_EQ(load({0, 0, 0}, {0, 1, 3}), 33);
  EXPECT_EQ(load({0, 0, 0}, {0, 2, 3}), 67);
  EXPECT_EQ(load({0, 0, 0}, {0, 1, 200}), 1);
}

TEST(FiguresTest, NoTimeBetween_LoadIsNotKnown) {
  EXPECT_EQ(load({0, 100, 1000}, {0, 100, 1000}), kUnknownLoad);
  EXPECT_EQ(load({0, 100, 1000}, {0, 10, 20}), kUnknownLoad);
}

TEST(FiguresTest, CountsStepBack_LoadStaysWithin0And100) {
  EXPECT_EQ(load({0, 100, 1000}, {0, 90, 1100}), 0);
  EXPECT_EQ(load({0, 100, 1000}, {0, 300, 1100}), 100);
}

TEST(FiguresTest, MemoryWithoutBuffersAndWithoutCache_LeavesThemAsTheDifferenceToTheTotal) {
  Kelstore::Memory memory = memoryOf({8000, 3000, 5000, 500, 1500});
  EXPECT_EQ(memory, (Kelstore::Memory{8000, 3000, 5000, 7500, 6500}));
}

TEST(FiguresTest, MoreMemoryThanTheNumbersHold_IsTheLargestNumber) {
  Kelstore::Memory memory = memoryOf({uint64_t{1} << 33, 1, 1, 1, (uint64_t{1} << 33) + 1});
  EXPECT_EQ(memory.total, 4294967295u);
  EXPECT_EQ(memory.nonBuffer, 4294967295u);
  EXPECT_EQ(memory.nonCache, 0u);
}

}  // namespace
}  // namespace Member
