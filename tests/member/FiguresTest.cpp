// Figures computed from what the machine tells.
#include "member/Figures.h"

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

TEST(FiguresTest, MemoryRows_HaveTheIndexesByWhichTheirUseIsComputed) {
  std::string rows;
  for (const auto& [memory, mapping] : memoryMappings()) {
    rows += fmt::format("{}:{} {} {}\n", memory, mapping.index, mapping.type.text(), mapping.description);
  }
  EXPECT_EQ(rows,
            "1:1 1.3.6.1.2.1.25.2.1.2 Physical memory\n"
            "2:2 1.3.6.1.2.1.25.2.1.1 Memory buffers\n"
            "3:3 1.3.6.1.2.1.25.2.1.1 Cached memory\n"
            "100:100 1.3.6.1.2.1.25.2.1.1 Unavailable memory\n");
}

TEST(FiguresTest, Room_IsInTheFileSystemsUnits) {
  EXPECT_EQ(storageOf({4096, 1000, 250}), (Kelstore::Storage{4096, 1000, 250}));
  EXPECT_EQ(storageOf({512, 2147483647, 1}), (Kelstore::Storage{512, 2147483647, 1}));
}

TEST(FiguresTest, RoomOfMoreUnitsThanAnIntegerHolds_IsInLargerUnits) {
  EXPECT_EQ(storageOf({4096, 2147483648, 1000}), (Kelstore::Storage{8192, 1073741824, 500}));
  // A PiB, and more than can be said.
  EXPECT_EQ(storageOf({4096, uint64_t{1} << 38, 512}), (Kelstore::Storage{1 << 20, 1 << 30, 2}));
  EXPECT_EQ(storageOf({4096, uint64_t{1} << 51, 0}), (Kelstore::Storage{1 << 30, 2147483647, 0}));
}

TEST(FiguresTest, NoRoomAtAll_IsNothing) {
  EXPECT_EQ(storageOf({4096, 0, 0}), std::nullopt);
  EXPECT_EQ(storageOf({0, 1000, 0}), std::nullopt);
}

TEST(FiguresTest, MoreIsFreeThanThereIs_AllIsFree) {
  EXPECT_EQ(storageOf({4096, 10, 20}), (Kelstore::Storage{4096, 10, 10}));
}

TEST(FiguresTest, StorageTypes_AreTheRegisteredOnes) {
  std::string types;
  for (MountKind kind : {MountKind::fixedDisk, MountKind::removableDisk, MountKind::compactDisc,
                         MountKind::ramDisk, MountKind::flashMemory, MountKind::networkDisk}) {
    types += storageType(kind).text() + " ";
  }
  EXPECT_EQ(types,
            "1.3.6.1.2.1.25.2.1.4 1.3.6.1.2.1.25.2.1.5 1.3.6.1.2.1.25.2.1.7 1.3.6.1.2.1.25.2.1.8 "
            "1.3.6.1.2.1.25.2.1.9 1.3.6.1.2.1.25.2.1.10 ");
}

}  // namespace
}  // namespace Member
