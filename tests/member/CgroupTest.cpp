// What is told of memory and processors in a container, out of files that the test made.
#include "member/Cgroup.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/TempDir.h"

namespace Member {
namespace {

class CgroupTest : public testing::Test {
 protected:
  // The machine has 8000 KiB.
  std::string memory() const {
    auto result = limitedTo(dir_.path(), MemoryInUse{8000, 3000, 5000, 500, 1500});
    if (!result.ok()) return std::string(result.status().message());
    return fmt::format("total {} free {} available {} buffers {} cache {}", result->total, result->free,
                       result->available, result->buffers, result->pageCache);
  }
  // The machine has four, and started 100 s ago: "0:10/100 1:10/100", number, busy and total.
  std::string processors() const {
    auto result = limitedTo(dir_.path(), {{0, 1, 2}, {1, 1, 2}, {2, 1, 2}, {3, 1, 2}}, 100.5);
    if (!result.ok()) return std::string(result.status().message());
    std::string text;
    for (const ProcessorTime& time : *result) {
      text += fmt::format("{}{}:{}/{}", text.empty() ? "" : " ", time.number, time.busy, time.total);
    }
    return text;
  }
  void limited(const std::string& maxMemory, const std::string& maxCpu) const {
    dir_.write("memory.max", maxMemory + "\n");
    dir_.write("memory.current", "3145728\n");
    dir_.write(
        "memory.stat",
        "anon 1048576\nfile 1048576\nactive_file 524288\ninactive_file 262144\nslab_reclaimable 262144\n");
    dir_.write("cpu.max", maxCpu + "\n");
    dir_.write("cpu.stat", "usage_usec 30000000\nuser_usec 20000000\n");
  }

  static constexpr const char* kMachinesMemory = "total 8000 free 3000 available 5000 buffers 500 cache 1500";
  static constexpr const char* kMachinesProcessors = "0:1/2 1:1/2 2:1/2 3:1/2";
  Support::TempDir dir_;
};

TEST_F(CgroupTest, NoContainer_TheMachines) {
  EXPECT_EQ(memory(), kMachinesMemory);
  EXPECT_EQ(processors(), kMachinesProcessors);
}

TEST_F(CgroupTest, NoLimit_TheMachines) {
  limited("max", "max 100000");
  EXPECT_EQ(memory(), kMachinesMemory);
  EXPECT_EQ(processors(), kMachinesProcessors);
}

TEST_F(CgroupTest, LimitIsMoreThanThereIs_TheMachines) {
  limited("8192000", "400000 100000");
  EXPECT_EQ(memory(), kMachinesMemory);
  EXPECT_EQ(processors(), kMachinesProcessors);
}

TEST_F(CgroupTest, Limits_AmountsAreThoseOfTheContainer) {
  limited("4194304", "150000 100000");
  EXPECT_EQ(memory(), "total 4096 free 1024 available 2048 buffers 0 cache 1024");
  EXPECT_EQ(processors(), "0:20000000/100500000 1:20000000/100500000")
      << "30 s, of the time of one and a half";
  limited("4194304", "100000 100000");
  EXPECT_EQ(processors(), "0:30000000/100500000");
}

TEST_F(CgroupTest, MoreIsUsedThanTheNewLimit_NothingIsFree) {
  limited("1048576", "max 100000");
  EXPECT_EQ(memory(), "total 1024 free 0 available 1024 buffers 0 cache 1024");
}

TEST_F(CgroupTest, FilesThatCannotBeUsed_AreFailuresWithTheirNames) {
  limited("4k", "1 x");
  EXPECT_EQ(memory(), dir_.file("memory.max") + ": found \"4k\", expected a number or max");
  EXPECT_EQ(processors(), dir_.file("cpu.max") + ": found \"x\", expected a number or max");
  limited("", "0 0");
  EXPECT_EQ(memory(), dir_.file("memory.max") + ": found \"\", expected a number or max");
  EXPECT_EQ(processors(), kMachinesProcessors);
  limited("4194304", "50000 100000");
  dir_.write("memory.stat", "file lots\n");
  dir_.write("cpu.stat", "usage_usec -1\n");
  EXPECT_EQ(memory(), dir_.file("memory.stat") + ": found \"lots\", expected a number or max");
  EXPECT_EQ(processors(), dir_.file("cpu.stat") + ": found \"-1\", expected a number or max");
}

}  // namespace
}  // namespace Member
