#include "member/LinuxMachine.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <libproc2/meminfo.h>
#include <libproc2/misc.h>
#include <libproc2/stat.h>
#include <unistd.h>
#include <utmpx.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <string_view>

#include "member/Cgroup.h"
#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Hostname.h"

namespace Member {
namespace {

using Runtime::errorOf;

// libproc2 returns an error as a negative errno.
absl::Status failedIn(std::string_view what, int result) {
  return errorOf(what, result < 0 ? -result : errno);
}

struct Close {
  void operator()(DIR* directory) const { closedir(directory); }
  void operator()(meminfo_info* info) const { procps_meminfo_unref(&info); }
  void operator()(stat_info* info) const { procps_stat_unref(&info); }
};

bool isNumber(std::string_view name) {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string_view::npos;
}

// Without entries whose process is gone, like who(1): nobody recorded their logout.
bool isSession(const utmpx& entry) {
  if (entry.ut_type != USER_PROCESS || entry.ut_user[0] == '\0') return false;
  return entry.ut_pid <= 0 || kill(entry.ut_pid, 0) == 0 || errno != ESRCH;
}

}  // namespace

std::string LinuxMachine::name() { return Runtime::hostname(); }

absl::StatusOr<double> LinuxMachine::uptime() {
  double seconds = 0;
  double idle = 0;
  int result = procps_uptime(&seconds, &idle);
  if (result < 0) return failedIn("/proc/uptime", result);
  return seconds;
}

absl::StatusOr<uint32_t> LinuxMachine::users() {
  // getutxent() reports no errors, so the file is opened here first.
  Runtime::Descriptor file(open(files_.utmp.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.opened()) return errorOf(files_.utmp, errno);
  utmpxname(files_.utmp.c_str());
  setutxent();
  uint32_t sessions = 0;
  while (const utmpx* entry = getutxent()) sessions += isSession(*entry) ? 1 : 0;
  endutxent();
  return sessions;
}

// Not with libproc2, which keeps 256 KiB for every thread on which it lists processes.
absl::StatusOr<uint32_t> LinuxMachine::processes() {
  std::unique_ptr<DIR, Close> directory(opendir(files_.proc.c_str()));
  if (!directory) return errorOf(files_.proc, errno);
  uint32_t processes = 0;
  while (true) {
    errno = 0;
    const dirent* entry = readdir(directory.get());
    if (entry == nullptr && errno != 0) return errorOf(files_.proc, errno);
    if (entry == nullptr) return processes;
    processes += isNumber(entry->d_name) ? 1 : 0;
  }
}

absl::StatusOr<MemoryInUse> LinuxMachine::memory() {
  meminfo_info* opened = nullptr;
  int result = procps_meminfo_new(&opened);
  if (result < 0) return failedIn("/proc/meminfo", result);
  std::unique_ptr<meminfo_info, Close> info(opened);
  std::array items = {MEMINFO_MEM_TOTAL, MEMINFO_MEM_FREE, MEMINFO_MEM_AVAILABLE, MEMINFO_MEM_BUFFERS,
                      MEMINFO_MEM_CACHED};
  const meminfo_stack* stack = procps_meminfo_select(info.get(), items.data(), items.size());
  if (stack == nullptr) return errorOf("/proc/meminfo", errno);
  auto kib = [stack](size_t item) { return stack->head[item].result.ul_int; };
  return limitedTo(files_.cgroup, MemoryInUse{kib(0), kib(1), kib(2), kib(3), kib(4)});
}

absl::StatusOr<std::vector<ProcessorTime>> LinuxMachine::processors() {
  stat_info* opened = nullptr;
  int result = procps_stat_new(&opened);
  if (result < 0) return failedIn("/proc/stat", result);
  std::unique_ptr<stat_info, Close> info(opened);
  // The user's time includes that of guests.
  std::array items = {STAT_TIC_ID,      STAT_TIC_USER,   STAT_TIC_NICE, STAT_TIC_SYSTEM, STAT_TIC_IRQ,
                      STAT_TIC_SOFTIRQ, STAT_TIC_STOLEN, STAT_TIC_IDLE, STAT_TIC_IOWAIT};
  constexpr size_t kFirstIdle = 7;
  const stat_reaped* all = procps_stat_reap(info.get(), STAT_REAP_CPUS_ONLY, items.data(), items.size());
  if (all == nullptr) return errorOf("/proc/stat", errno);
  std::vector<ProcessorTime> processors;
  for (int i = 0; i < all->cpus->total; ++i) {
    const stat_result* head = all->cpus->stacks[i]->head;
    ProcessorTime time{static_cast<uint32_t>(head[0].result.s_int), 0, 0};
    for (size_t item = 1; item < items.size(); ++item) {
      time.total += head[item].result.ull_int;
      if (item < kFirstIdle) time.busy += head[item].result.ull_int;
    }
    processors.push_back(time);
  }
  absl::StatusOr<double> seconds = uptime();
  if (!seconds.ok()) return seconds.status();
  return limitedTo(files_.cgroup, processors, *seconds);
}

}  // namespace Member
