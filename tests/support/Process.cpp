#include "tests/support/Process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace Support {
namespace {

// Output goes to memory files: nothing to drain, so that a talkative program cannot block, and nothing left
// on disk.
int memoryFile(const char* name) {
  int fd = memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) throw std::runtime_error("no memory file can be made");
  return fd;
}

// In the child, between fork and exec.
[[noreturn]] void becomeProgram(const Argv& argv, const Env& env, int outFd, int errFd, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  int null = open("/dev/null", O_RDONLY);
  dup2(null, STDIN_FILENO);
  dup2(outFd, STDOUT_FILENO);
  dup2(errFd, STDERR_FILENO);
  for (const std::string& setting : env) putenv(const_cast<char*>(setting.c_str()));
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  execvp(words[0], words.data());
  dprintf(STDERR_FILENO, "%s: %s\n", words[0], strerrordesc_np(errno));
  _exit(127);
}

}  // namespace

Process::Process(const Argv& argv, const Env& env) : outFd_(memoryFile("out")), errFd_(memoryFile("err")) {
  pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) becomeProgram(argv, env, outFd_, errFd_, parent);
  // Not pidfd_open: this glibc declares it without C linkage.
  pidFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
}

Process::~Process() {
  if (!status_) {
    signal(SIGKILL);
    wait();
  }
  for (int fd : {pidFd_, outFd_, errFd_}) close(fd);
}

void Process::signal(int number) const {
  if (!status_) kill(pid_, number);
}

bool Process::holds(int number) const {
  for (const auto& thread : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", pid_))) {
    std::ifstream status(thread.path() / "status");
    std::string word;
    while (status >> word && word != "SigBlk:") continue;
    uint64_t blocked = 0;
    if (!(status >> std::hex >> blocked)) continue;  // it ended meanwhile
    if ((blocked >> (number - 1) & 1) == 0) return false;
  }
  return true;
}

std::optional<int> Process::wait(Millis deadline) {
  if (status_) return status_;
  pollfd ended{pidFd_, POLLIN, 0};
  if (poll(&ended, 1, static_cast<int>(deadline.count())) <= 0) return std::nullopt;
  int raw = 0;
  if (waitpid(pid_, &raw, 0) != pid_) throw std::runtime_error("waitpid failed");
  status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  return status_;
}

std::optional<int> Process::stop(int number, Millis deadline) {
  signal(number);
  return wait(deadline);
}

std::string Process::content(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t count = 0;
  while ((count = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0) {
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

Result run(const Argv& argv, const Env& env, Millis deadline) {
  Process process(argv, env);
  std::optional<int> status = process.wait(deadline);
  if (!status) {
    throw std::runtime_error(fmt::format("not done after {} ms: {}\n{}{}", deadline.count(),
                                         fmt::join(argv, " "), process.out(), process.err()));
  }
  return {*status, process.out(), process.err()};
}

}  // namespace Support
