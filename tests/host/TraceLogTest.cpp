// Lines on standard error.
#include "host/TraceLog.h"

#include <gmock/gmock.h>

namespace Host {
namespace {

TEST(TraceLogTest, StandardError_TimeInUtcHandleLevelAndText) {
  testing::internal::CaptureStderr();
  Lumalog::Sink* before = Lumalog::sink();
  {
    TraceLog log("program", {});
    EXPECT_EQ(Lumalog::sink(), &log);
    log.trace("Kelstore", 0, "a {} that is no placeholder");
    log.trace("Kelstore", 9, "b");
  }
  EXPECT_EQ(Lumalog::sink(), before);
  const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z ";
  EXPECT_THAT(
      testing::internal::GetCapturedStderr(),
      testing::MatchesRegex(time + "Kelstore/0 a \\{\\} that is no placeholder\n" + time + "Kelstore/9 b\n"));
}

}  // namespace
}  // namespace Host
