// What this machine tells, held against other ways to ask it, and against files that the test made.
#include "member/LinuxMachine.h"

#include <gmock/gmock.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstring>
#include <filesystem>

#include "tests/support/TempDir.h"

namespace Member {
namespace {

using testing::HasSubstr;

template <class Answer>
Answer answered(absl::StatusOr<Answer> result) {
  if (!result.ok()) {
    ADD_FAILURE() << result.status();
    return {};
  }
  return *std::move(result);
}

template <class Answer>
std::string failureOf(const absl::StatusOr<Answer>& result) {
  return result.ok() ? "none" : std::string(result.status().message());
}

struct sysinfo machineInfo() {
  struct sysinfo info {};
  EXPECT_EQ(sysinfo(&info), 0);
  return info;
}

TEST(LinuxMachineTest, Uptime_IsTheKernels) {
  EXPECT_NEAR(answered(LinuxMachine().uptime()), static_cast<double>(machineInfo().uptime), 3);
}

TEST(LinuxMachineTest, Memory_AmountsAreKibAndPartsOfTheTotal) {
  MemoryInUse memory = answered(LinuxMachine().memory());
  struct sysinfo info = machineInfo();
  EXPECT_EQ(memory.total, info.totalram * info.mem_unit / 1024);
  for (uint64_t part : {memory.free, memory.available, memory.buffers, memory.pageCache}) {
    EXPECT_LE(part, memory.total);
  }
  EXPECT_GT(memory.available, 0u);
}

TEST(LinuxMachineTest, Processors_ThoseOnlineInOrder_AndTheirTimeGoesOn) {
  LinuxMachine machine;
  auto before = answered(machine.processors());
  ASSERT_EQ(before.size(), static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN)));
  for (size_t i = 1; i < before.size(); ++i) EXPECT_LT(before[i - 1].number, before[i].number);
  for (const ProcessorTime& time : before) {
    EXPECT_GT(time.total, 0u);
    EXPECT_LE(time.busy, time.total);
  }
  auto after = answered(machine.processors());
  ASSERT_EQ(after.size(), before.size());
  EXPECT_GE(after[0].total, before[0].total);
}

TEST(LinuxMachineTest, Processes_AreTheDirectoriesNamedByNumber) {
  Support::TempDir proc;
  for (const char* name : {"1", "42", "4194304", "self", "cpuinfo", "1x", "-1"}) {
    std::filesystem::create_directory(proc.file(name));
  }
  EXPECT_EQ(answered(LinuxMachine({proc.path(), ""}).processes()), 3u);
  EXPECT_GE(answered(LinuxMachine().processes()), 2u);
}

TEST(LinuxMachineTest, NoProc_IsAFailureWithItsName) {
  EXPECT_EQ(failureOf(LinuxMachine({"/nonexistent/proc", ""}).processes()),
            "/nonexistent/proc: No such file or directory");
}

// A user accounting database.
class Utmp {
 public:
  std::string path() const { return dir_.file("utmp"); }
  Utmp& has(short type, const char* user, pid_t pid) {
    utmpx entry{};
    entry.ut_type = type;
    entry.ut_pid = pid;
    std::strncpy(entry.ut_user, user, sizeof entry.ut_user);
    std::strncpy(entry.ut_line, "tty", sizeof entry.ut_line);
    content_.append(reinterpret_cast<const char*>(&entry), sizeof entry);
    dir_.write("utmp", content_);
    return *this;
  }
  uint32_t users() const { return answered(LinuxMachine({"", path()}).users()); }

 private:
  Support::TempDir dir_;
  std::string content_;
};

// The id of a process that there was.
pid_t endedProcess() {
  pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

TEST(LinuxMachineTest, Users_SessionsAreCounted_OtherEntriesAndStaleOnesAreNot) {
  Utmp utmp;
  utmp.has(BOOT_TIME, "reboot", 0).has(LOGIN_PROCESS, "LOGIN", getpid());
  EXPECT_EQ(utmp.users(), 0u);
  utmp.has(USER_PROCESS, "alice", getpid()).has(USER_PROCESS, "alice", getpid());
  utmp.has(USER_PROCESS, "bob", 1).has(USER_PROCESS, "", getpid());
  EXPECT_EQ(utmp.users(), 3u);
  utmp.has(USER_PROCESS, "gone", endedProcess()).has(DEAD_PROCESS, "out", getpid());
  EXPECT_EQ(utmp.users(), 3u);
}

TEST(LinuxMachineTest, Users_DatabaseCutOffInTheMiddle_WholeEntriesCount) {
  Support::TempDir dir;
  Utmp utmp;
  utmp.has(USER_PROCESS, "alice", getpid()).has(USER_PROCESS, "bob", getpid());
  std::string content = Support::readFile(utmp.path());
  std::string cut = dir.write("utmp", content.substr(0, content.size() - 10));
  EXPECT_EQ(answered(LinuxMachine({"", cut}).users()), 1u);
}

// It used to be told as nobody.
TEST(LinuxMachineTest, Users_NoDatabase_IsNotKnown) {
  EXPECT_EQ(failureOf(LinuxMachine({"", "/nonexistent/utmp"}).users()),
            "/nonexistent/utmp: No such file or directory");
}

TEST(LinuxMachineTest, ContainerWithLimits_ItsMemoryAndProcessors) {
  Support::TempDir cgroup;
  LinuxMachine machine({"", "", "", "", cgroup.path()});
  cgroup.write("memory.max", "1048576\n");
  cgroup.write("memory.current", "262144\n");
  cgroup.write("memory.stat", "file 4096\n");
  cgroup.write("cpu.max", "50000 100000\n");
  cgroup.write("cpu.stat", "usage_usec 1000\n");
  EXPECT_EQ(answered(machine.memory()).total, 1024u);
  auto processors = answered(machine.processors());
  ASSERT_EQ(processors.size(), 1u);
  EXPECT_EQ(processors[0].busy, 2000u);
  EXPECT_NEAR(static_cast<double>(processors[0].total) / 1e6, answered(machine.uptime()), 3);
}

TEST(LinuxMachineTest, Users_DatabaseThatCannotBeOpened_IsAFailureWithItsName) {
  Support::TempDir dir;
  std::string file = dir.write("file", "");
  EXPECT_EQ(failureOf(LinuxMachine({"", file + "/utmp"}).users()), file + "/utmp: Not a directory");
}

}  // namespace
}  // namespace Member
