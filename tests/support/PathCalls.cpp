#include "tests/support/PathCalls.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <stdexcept>

namespace Support {
namespace {

struct Call {
  const char* name;
  size_t path;     // which argument it is
  int flags = -1;  // which argument has AT_EMPTY_PATH, with which nothing is looked up
};

const std::map<uint64_t, Call>& calls() {
  static const std::map<uint64_t, Call> all = {
#ifdef SYS_open
      {SYS_open, {"open", 0}},
      {SYS_stat, {"stat", 0}},
      {SYS_lstat, {"lstat", 0}},
      {SYS_access, {"access", 0}},
      {SYS_unlink, {"unlink", 0}},
      {SYS_rename, {"rename", 0}},
      {SYS_mkdir, {"mkdir", 0}},
      {SYS_rmdir, {"rmdir", 0}},
      {SYS_readlink, {"readlink", 0}},
      {SYS_chmod, {"chmod", 0}},
      {SYS_chown, {"chown", 0}},
      {SYS_creat, {"creat", 0}},
      {SYS_symlink, {"symlink", 1}},
      {SYS_link, {"link", 1}},
      {SYS_lchown, {"lchown", 0}},
      {SYS_mknod, {"mknod", 0}},
      {SYS_utime, {"utime", 0}},
      {SYS_utimes, {"utimes", 0}},
      {SYS_futimesat, {"futimesat", 1}},
      {SYS_renameat, {"renameat", 1}},
#endif
      {SYS_openat, {"openat", 1}},
      {SYS_openat2, {"openat2", 1}},
      {SYS_newfstatat, {"newfstatat", 1, 3}},
      {SYS_statx, {"statx", 1, 2}},
      {SYS_faccessat, {"faccessat", 1}},
      {SYS_faccessat2, {"faccessat2", 1}},
      {SYS_unlinkat, {"unlinkat", 1}},
      {SYS_renameat2, {"renameat2", 1}},
      {SYS_mkdirat, {"mkdirat", 1}},
      {SYS_readlinkat, {"readlinkat", 1}},
      {SYS_fchmodat, {"fchmodat", 1}},
      {SYS_fchownat, {"fchownat", 1}},
      {SYS_statfs, {"statfs", 0}},
      {SYS_chdir, {"chdir", 0}},
      {SYS_truncate, {"truncate", 0}},
      {SYS_inotify_add_watch, {"inotify_add_watch", 1}},
      {SYS_execve, {"execve", 0}},
      {SYS_execveat, {"execveat", 1, 4}},
      {SYS_chroot, {"chroot", 0}},
      {SYS_mount, {"mount", 1}},
      {SYS_umount2, {"umount2", 0}},
      {SYS_mknodat, {"mknodat", 1}},
      {SYS_symlinkat, {"symlinkat", 2}},
      {SYS_linkat, {"linkat", 3}},
      {SYS_utimensat, {"utimensat", 1}},
      {SYS_name_to_handle_at, {"name_to_handle_at", 1, 4}},
      {SYS_fanotify_mark, {"fanotify_mark", 4}},
      {SYS_getxattr, {"getxattr", 0}},
      {SYS_lgetxattr, {"lgetxattr", 0}},
      {SYS_setxattr, {"setxattr", 0}},
      {SYS_lsetxattr, {"lsetxattr", 0}},
      {SYS_listxattr, {"listxattr", 0}},
      {SYS_llistxattr, {"llistxattr", 0}},
      {SYS_removexattr, {"removexattr", 0}},
      {SYS_lremovexattr, {"lremovexattr", 0}},
  };
  return all;
}

template <class Value>
Value valueAt(pid_t process, uint64_t address) {
  Value value{};
  iovec here{&value, sizeof value};
  iovec there{reinterpret_cast<void*>(address), sizeof value};
  process_vm_readv(process, &here, 1, &there, 1, 0);
  return value;
}

std::string textAt(pid_t process, uint64_t address) {
  std::string text;
  while (text.size() < 4096) {
    char next = valueAt<char>(process, address + text.size());
    if (next == '\0') break;
    text += next;
  }
  return text;
}

const char* nameOfSocketCall(uint64_t number) {
  switch (number) {
    case SYS_connect:
      return "connect";
    case SYS_bind:
      return "bind";
    case SYS_sendto:
      return "sendto";
    case SYS_sendmsg:
      return "sendmsg";
    case SYS_sendmmsg:
      return "sendmmsg";
    default:
      return nullptr;
  }
}

// Where a call has the address of the socket that it is to reach; 0 when it has none. Of several messages,
// the first one's.
uint64_t addressOf(pid_t process, const __ptrace_syscall_info& info) {
  uint64_t number = info.entry.nr;
  const auto& arguments = info.entry.args;
  if (number == SYS_connect || number == SYS_bind) return arguments[1];
  if (number == SYS_sendto) return arguments[4];
  return reinterpret_cast<uint64_t>(valueAt<msghdr>(process, arguments[1]).msg_name);
}

}  // namespace

PathCalls::PathCalls(pid_t process) : thread_(process) {
  std::promise<std::string> begun;
  std::future<std::string> problem = begun.get_future();
  tracer_ = std::thread([this, begun = std::move(begun)]() mutable { trace(std::move(begun)); });
  if (std::string text = problem.get(); !text.empty()) {
    tracer_.join();
    throw std::runtime_error("not to be traced: " + text);
  }
}

PathCalls::~PathCalls() { end(); }

std::vector<std::string> PathCalls::end() {
  if (tracer_.joinable()) {
    // Any thread may send it; the tracer leaves at the stop that it causes.
    syscall(SYS_tgkill, thread_, thread_, SIGURG);
    tracer_.join();
  }
  return seen_;
}

void PathCalls::trace(std::promise<std::string> begun) {
  if (ptrace(PTRACE_SEIZE, thread_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT) != 0 ||
      ptrace(PTRACE_INTERRUPT, thread_, nullptr, nullptr) != 0) {
    begun.set_value(std::strerror(errno));
    return;
  }
  begun.set_value("");
  int signal = 0;
  while (next(signal)) ptrace(PTRACE_SYSCALL, thread_, nullptr, signal);
  ptrace(PTRACE_DETACH, thread_, nullptr, 0);
}

// Waits for the next stop, and leaves the end of the process to who has started it. False when there is no
// more to be seen.
bool PathCalls::next(int& signal) {
  constexpr int kCall = SIGTRAP | 0x80;
  siginfo_t stop{};
  if (waitid(P_PID, static_cast<id_t>(thread_), &stop, WSTOPPED | __WALL) != 0) return false;
  int event = stop.si_status >> 8;
  signal = event == 0 && stop.si_status != kCall ? stop.si_status : 0;
  if (stop.si_status == kCall) note();
  return signal != SIGURG && event != PTRACE_EVENT_EXIT;
}

void PathCalls::note() {
  __ptrace_syscall_info info{};
  if (ptrace(PTRACE_GET_SYSCALL_INFO, thread_, sizeof info, &info) <= 0) return;
  if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return;
  ++all_;
  const auto& arguments = info.entry.args;
  if (const char* name = nameOfSocketCall(info.entry.nr)) {
    uint64_t address = addressOf(thread_, info);
    auto socket = valueAt<sockaddr_un>(thread_, address);
    if (address == 0 || socket.sun_family != AF_UNIX || socket.sun_path[0] == '\0') return;
    seen_.push_back(fmt::format("{} {}", name, textAt(thread_, address + offsetof(sockaddr_un, sun_path))));
    return;
  }
  auto call = calls().find(info.entry.nr);
  if (call == calls().end()) return;
  const auto& [name, path, flags] = call->second;
  if (flags >= 0 && (arguments[static_cast<size_t>(flags)] & AT_EMPTY_PATH) != 0) return;
  // Without a path it is about the descriptor.
  if (arguments[path] != 0) seen_.push_back(fmt::format("{} {}", name, textAt(thread_, arguments[path])));
}

}  // namespace Support
