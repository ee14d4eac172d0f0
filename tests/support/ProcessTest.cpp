#include "tests/support/Process.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/Network.h"
#include "tests/support/TempDir.h"

namespace Support {
namespace {

TEST(Process, ProgramEnds_StatusAndBothOutputsAreThere) {
  Result result = run({"sh", "-c", "echo $GREETING; echo no >&2; exit 3"}, {"GREETING=hello"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "hello\n");
  EXPECT_EQ(result.err, "no\n");
}

TEST(Process, ProgramDoesNotExist_StatusIs127AndTheReasonIsSaid) {
  Result result = run({"trel-no-such-program"});
  EXPECT_EQ(result.status, 127);
  EXPECT_EQ(result.err, "trel-no-such-program: No such file or directory\n");
}

TEST(Process, StillRunningAtTheDeadline_NoStatus) {
  Process process({"sleep", "1000"});
  EXPECT_TRUE(process.running());
  EXPECT_EQ(process.wait(Millis(1)), std::nullopt);
  EXPECT_EQ(process.stop(), 128 + SIGTERM);
  EXPECT_FALSE(process.running());
}

TEST(Process, ObjectGoes_ProcessIsGone) {
  pid_t pid = 0;
  {
    Process process({"sh", "-c", "trap '' TERM; sleep 1000"});
    pid = process.pid();
  }
  EXPECT_EQ(kill(pid, 0), -1);
}

TEST(Process, CommandTakesTooLong_ThrowsWithTheCommand) {
  try {
    run({"sleep", "1000"}, {}, Millis(20));
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "not done after 20 ms: sleep 1000\n");
  }
}

TEST(Process, MuchOutput_NothingBlocksAndAllIsThere) {
  EXPECT_EQ(run({"sh", "-c", "yes | head -c 3000000"}).out.size(), 3000000u);
}

TEST(TempDir, ObjectGoes_DirectoryAndContentAreGone) {
  std::filesystem::path path;
  {
    TempDir dir;
    path = dir.path();
    dir.replace("a", "first");
    EXPECT_EQ(readFile(dir.replace("a", "second")), "second");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path), {}), 1);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Network, PortsOfOneProcess_AllDiffer) { EXPECT_NE(freeUdpPort(), freeUdpPort()); }

TEST(WaitUntil, ConditionNeverHolds_FalseAtTheDeadline) {
  EXPECT_FALSE(waitUntil([] { return false; }, Millis(10)));
}

}  // namespace
}  // namespace Support
