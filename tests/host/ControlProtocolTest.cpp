// What both sides of the control protocol agree on.
#include "host/control/ControlProtocol.h"

#include <gtest/gtest.h>

#include "tests/support/Environment.h"

namespace Control {
namespace {

TEST(LineBufferTest, LinesComeWholeAndWithoutTheirEnd) {
  LineBuffer lines(100);
  EXPECT_EQ(lines.takeLine(), std::nullopt);
  lines.append("a\r\n\nb");
  EXPECT_EQ(lines.takeLine(), "a");
  EXPECT_EQ(lines.takeLine(), "");
  EXPECT_EQ(lines.takeLine(), std::nullopt);
  lines.append("c\n");
  EXPECT_EQ(lines.takeLine(), "bc");
  EXPECT_EQ(lines.size(), 0u);
}

TEST(LineBufferTest, OverflowsWithTheFirstByteTooManyOfAnUnfinishedLine) {
  LineBuffer lines(3);
  lines.append("abc");
  EXPECT_FALSE(lines.overflown());
  lines.append("d");
  EXPECT_TRUE(lines.overflown());
}

TEST(LineBufferTest, ManyShortLines_AreNoOverflow) {
  LineBuffer lines(3);
  lines.append("ab\ncd\nef\n");
  EXPECT_FALSE(lines.overflown());
}

TEST(DefaultSocketPathTest, IsInTheRuntimeDirectory) {
  Support::Environment systemd{{"RUNTIME_DIRECTORY", "/run/one:/run/two"}};
  EXPECT_EQ(defaultSocketPath(), "/run/one/trelsnmpd.sock");
}

}  // namespace
}  // namespace Control
