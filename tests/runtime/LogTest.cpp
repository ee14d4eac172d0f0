// The log on standard error: who reads it, or does not.
#include "runtime/Log.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <pthread.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <stdexcept>

#include "tests/support/Thrown.h"
#include "tests/support/WaitUntil.h"

namespace Runtime {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

// Standard error while it lives: a pipe.
class ErrorPipe {
 public:
  explicit ErrorPipe(int flags = 0) : before_(dup(STDERR_FILENO)) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | flags), 0);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    reading_ = ends[0];
    fcntl(reading_, F_SETFL, O_NONBLOCK);
  }
  ~ErrorPipe() {
    closeReading();
    dup2(before_, STDERR_FILENO);
    close(before_);
  }
  ErrorPipe(const ErrorPipe&) = delete;
  ErrorPipe& operator=(const ErrorPipe&) = delete;

  void closeReading() {
    if (reading_ >= 0) close(reading_);
    reading_ = -1;
  }
  // What has arrived until now.
  const std::string& text() {
    std::array<char, 65536> bytes{};
    ssize_t count = 0;
    while ((count = read(reading_, bytes.data(), bytes.size())) > 0) {
      text_.append(bytes.data(), static_cast<size_t>(count));
    }
    return text_;
  }
  bool awaits(const std::string& part) {
    auto end = std::chrono::steady_clock::now() + 60s;
    size_t searched = 0;
    while (text().find(part, searched) == std::string::npos) {
      if (std::chrono::steady_clock::now() >= end) return false;
      searched = text_.size() - std::min(text_.size(), part.size());
      pollfd readable{reading_, POLLIN, 0};
      poll(&readable, 1, 1000);
    }
    return true;
  }

 private:
  int before_;
  int reading_ = -1;
  std::string text_;
};

LogLine line(std::string text) { return {Severity::information, "Source/1", std::move(text)}; }

// The lines' texts, without their times.
std::vector<std::string> texts(const std::string& written) {
  std::vector<std::string> all;
  for (size_t at = 0; at < written.size();) {
    size_t end = written.find('\n', at);
    size_t blank = written.find(' ', at);
    all.push_back(written.substr(blank + 1, end - blank - 1));
    at = end + 1;
  }
  return all;
}

TEST(LogTest, Lines_WithTheirTimeInTheirOrder_ControlCharactersEscaped) {
  ErrorPipe reader;
  {
    Log log("program", LogTo::standardError);
    log.write(line("first"));
    log.write(line("two\nlines \x1b[2J \xe2\x80\xae \xff{}"));
  }
  const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z ";
  EXPECT_THAT(reader.text(),
              testing::MatchesRegex(time + "Source/1 first\n" + time +
                                    "Source/1 two\\\\x0alines \\\\x1b\\[2J \\\\u202e \\\\xff\\{\\}\n"));
}

TEST(LogTest, NobodyReads_WritersGoOn_WhatCannotWaitIsCounted) {
  ErrorPipe reader;
  Log log("program", LogTo::standardError);
  // About three times what may wait.
  constexpr size_t kLines = 12'000;
  for (size_t i = 0; i < kLines; ++i) log.write(line(fmt::format("{:>1000}", i)));
  Log::State state = log.state();
  EXPECT_GT(state.waiting, 1000u);
  EXPECT_GT(state.lost, kLines / 3);

  ASSERT_TRUE(reader.awaits(" lines are lost here")) << "once somebody reads";
  // It is read until the end.
  ASSERT_TRUE(Support::waitUntil([&] {
    reader.text();
    return log.state().waiting == 0;
  }));
  std::vector<std::string> read = texts(reader.text());
  uint64_t lost = log.state().lost;
  ASSERT_EQ(read.size(), kLines - lost + 1);
  for (size_t i = 0; i + 1 < read.size(); ++i) ASSERT_EQ(read[i], fmt::format("Source/1 {:>1000}", i));
  EXPECT_EQ(
      read.back(),
      fmt::format("Log/0 {} lines are lost here: nobody read the log, or it could not be written", lost));
}

TEST(LogTest, ReaderIsGone_WritersGoOn) {
  ErrorPipe reader;
  Log log("program", LogTo::standardError);
  reader.closeReading();
  log.write(line("unheard"));
  EXPECT_TRUE(Support::waitUntil([&] { return log.state().lost == 1; }));
  EXPECT_EQ(log.state().waiting, 0u);
}

TEST(LogTest, PipeThatDoesNotWait_IsWaitedFor) {
  ErrorPipe reader(O_NONBLOCK);
  Log log("program", LogTo::standardError);
  log.write(line(std::string(200'000, 'x') + " end"));
  EXPECT_TRUE(reader.awaits(" end\n"));
  EXPECT_EQ(log.state().lost, 0u);
}

TEST(LogTest, LikeLines_AreThinned_AndCountedWhenTheLogGoes) {
  ErrorPipe reader;
  {
    Log log("program", LogTo::standardError);
    for (int i = 0; i < 12; ++i) log.write(line(fmt::format("bad {}", i)), {"kind", "key"});
    log.write(line("other"), {"kind", ""});
    EXPECT_EQ(log.state().leftOut, 7u);
  }
  EXPECT_THAT(texts(reader.text()),
              testing::ElementsAre("Source/1 bad 0", "Source/1 bad 1", "Source/1 bad 2", "Source/1 bad 3",
                                   "Source/1 bad 4", "Source/1 other",
                                   "Source/1 7 more like this in the last 0 s left out, the last: bad 11"));
}

// Whoever writes a line would have to write it out.
TEST(LogTest, NoThreadForIt_ThereIsNoLog) {
  pthread_attr_t before;
  ASSERT_EQ(pthread_getattr_default_np(&before), 0);
  pthread_attr_t tooLarge;
  ASSERT_EQ(pthread_attr_init(&tooLarge), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&tooLarge, size_t{1} << 48), 0);
  ASSERT_EQ(pthread_setattr_default_np(&tooLarge), 0);
  EXPECT_EQ(thrown<std::runtime_error>([] { Log("program", LogTo::standardError); }),
            "no thread to write the log: Resource temporarily unavailable");
  ASSERT_EQ(pthread_setattr_default_np(&before), 0);
}

TEST(LogDeathTest, Abort_LosesNoLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Log log("program", LogTo::standardError);
        for (int i = 0; i < 20'000; ++i) log.write(line(fmt::format("{:>100}", i)));
        std::abort();
      },
      testing::KilledBySignal(SIGABRT), "Source/1  *19999\n");
}

// In a process of its own: what is stuck there goes with it.
TEST(LogDeathTest, NobodyReads_TheLogGoesAllTheSame) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ErrorPipe reader;
        { Log("program", LogTo::standardError).write(line(std::string(100'000, 'x'))); }
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(LogDeathTest, AbortWhileNobodyReads_Ends) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ErrorPipe reader;
        Log log("program", LogTo::standardError);
        log.write(line(std::string(200'000, 'x')));
        std::abort();
      },
      testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace Runtime
