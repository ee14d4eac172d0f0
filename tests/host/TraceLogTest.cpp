// Lines on standard error.
#include "host/TraceLog.h"

#include <gmock/gmock.h>

#include <sstream>

namespace Host {
namespace {

TEST(TraceLogTest, StandardError_TimeInUtcHandleLevelAndText) {
  testing::internal::CaptureStderr();
  Lumalog::Sink* before = Lumalog::sink();
  {
    TraceLog log("program", {});
    EXPECT_EQ(Lumalog::sink(), &log);
    log.trace({"Kelstore", 0, "a {} of its own", "{}", {}});
    log.trace({"Kelstore", 9, "b", "b", {}});
  }
  EXPECT_EQ(Lumalog::sink(), before);
  const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z ";
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::MatchesRegex(time + "Kelstore/0 a \\{\\} of its own\n" + time + "Kelstore/9 b\n"));
}

// What standard error has of so many lines about each of these keys.
std::vector<std::string> logged(int level, int lines, const std::vector<Lumalog::Subject>& subjects) {
  testing::internal::CaptureStderr();
  {
    TraceLog log("program", {});
    for (const Lumalog::Subject& subject : subjects) {
      for (int i = 0; i < lines; ++i) {
        log.trace(
            {"Kelstore", level, fmt::format("{} {} {}", subject.source, subject.key, i), "{}", subject});
      }
    }
  }
  std::istringstream text(testing::internal::GetCapturedStderr());
  std::vector<std::string> found;
  for (std::string time, line; text >> time && std::getline(text, line);) found.push_back(line.substr(1));
  return found;
}

TEST(TraceLogTest, ManyErrorsOfOneKey_AFewAreLogged_AndHowManyWereNot) {
  std::vector<std::string> lines = logged(0, 1000, {{"s", "k"}});
  ASSERT_EQ(lines.size(), Runtime::Thinning::kOfSubject + 1);
  EXPECT_EQ(lines.back(), "Kelstore/0 995 more like this in the last 0 s left out, the last: s k 999");
}

TEST(TraceLogTest, ManyErrorsOfOneKey_LeaveRoomForOtherKeysSourcesAndWhatIsOfNone) {
  std::vector<Lumalog::Subject> subjects;
  std::vector<std::string> keys;
  for (int i = 0; i < 100; ++i) keys.push_back(fmt::format("k{}", i));
  for (const std::string& key : keys) subjects.push_back({"s", key});
  subjects.push_back({"s", ""});
  subjects.push_back({"t", "k0"});
  std::vector<std::string> lines = logged(1, 10, subjects);
  auto count = [&](std::string_view begin) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.starts_with("Kelstore/1 " + std::string(begin));
    });
  };
  EXPECT_EQ(count("s k"), Runtime::Thinning::kOfKind);
  EXPECT_EQ(count("s k1 "), Runtime::Thinning::kOfSubject);
  EXPECT_EQ(count("s  "), 10);
  EXPECT_EQ(count("t k0 "), Runtime::Thinning::kOfSubject);
}

TEST(TraceLogTest, WhatWasAskedFor_IsLoggedWhole) { EXPECT_EQ(logged(2, 1000, {{"s", "k"}}).size(), 1000u); }

}  // namespace
}  // namespace Host
