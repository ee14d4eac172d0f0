#include "platform/zavro/Assert.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

namespace {

bool trelModeIsOff() { return false; }

void checksPlainly() { zavroAssert(trelModeIsOff() && "can not be run"); }
void checksWithOperands(int a, int b) { zavroAssertWith(a == b, "a={} b={}", a, b); }

// The line number is that of the check. Compilers write the namespace differently.
constexpr const char* kPlain =
    "^tests/platform/AssertTest\\.cpp:[0-9]+: void [{(]anonymous( namespace)?[)}]::checksPlainly\\(\\): "
    "Assertion "
    "`trelModeIsOff\\(\\) && \"can not be run\"' failed\\.\n$";

TEST(AssertDeathTest, BrokenCheck_AbortsWithFileLineFunctionAndExpression) {
  EXPECT_EXIT(checksPlainly(), testing::KilledBySignal(SIGABRT), kPlain);
}

TEST(AssertDeathTest, BrokenCheckWithOperands_PrintsThem) {
  EXPECT_EXIT(checksWithOperands(3, 4), testing::KilledBySignal(SIGABRT),
              "checksWithOperands\\(int, int\\): Assertion `a == b' failed\\. \\[a=3 b=4\\]\n$");
}

TEST(AssertDeathTest, ExpressionComposedAtRunTime_IsPrintedToTheLetter) {
  EXPECT_EXIT(
      Zavro::assertFailed("reachabilityDir() && \"null\"", "void Root::start()", "Root.cpp", 12),
      testing::KilledBySignal(SIGABRT),
      "^Root\\.cpp:12: void Root::start\\(\\): Assertion `reachabilityDir\\(\\) && \"null\"' failed\\.\n$");
}

TEST(AssertDeathTest, StandardErrorIsClosed_AbortsAllTheSame) {
  EXPECT_EXIT(
      {
        close(STDERR_FILENO);
        try {
          checksPlainly();
        } catch (...) {
        }
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST(AssertDeathTest, NobodyReadsStandardError_AbortsAllTheSame) {
  EXPECT_EXIT(
      {
        int ends[2];
        if (pipe(ends) != 0) _exit(1);
        dup2(ends[1], STDERR_FILENO);
        fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
        while (write(STDERR_FILENO, "x", 1) == 1) {
        }
        fcntl(STDERR_FILENO, F_SETFL, 0);
        checksPlainly();
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST(AssertTest, CheckThatHolds_EvaluatesOnceAndOperandsNever) {
  int checks = 0;
  int operands = 0;
  auto operand = [&operands] { return ++operands; };
  zavroAssert(++checks == 1);
  zavroAssertWith(++checks == 2, "{}", operand());
  EXPECT_EQ(checks, 2);
  EXPECT_EQ(operands, 0);
}

}  // namespace
