#include "tests/simulation/Isolated.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace Simulation {
namespace {

[[noreturn]] void fails(const char* what) {
  throw std::runtime_error(fmt::format("{}: {}", what, strerror(errno)));
}

std::string contentOf(int file) {
  std::string text(4096, '\0');
  ssize_t size = pread(file, text.data(), text.size(), 0);
  text.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
  return text;
}

}  // namespace

void Report::failureIs(const std::string& text) {
  size_t size = std::min(text.size(), sizeof failure - 1);
  std::memcpy(failure, text.data(), size);
  failure[size] = '\0';
}

Isolated::Isolated(const std::function<void(Report&)>& work) {
  void* shared = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) fails("mmap");
  report_ = new (shared) Report{};
  errors_ = memfd_create("errors", MFD_CLOEXEC);
  if (errors_ < 0) fails("memfd_create");
  fflush(nullptr);
  int parent = getpid();
  pid_ = fork();
  if (pid_ < 0) fails("fork");
  if (pid_ > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  signal(SIGINT, SIG_IGN);  // it is the parent's to end
  signal(SIGTERM, SIG_DFL);
  dup2(errors_, STDERR_FILENO);
  work(*report_);
  fflush(nullptr);
  // Leaks are looked for at the end of a process that was started on its own; this one shares its past.
  _exit(report_->failure[0] == '\0' ? 0 : 1);
}

Isolated::~Isolated() {
  if (!ended()) {
    kill(pid_, SIGKILL);
    wait();
  }
  close(errors_);
  munmap(report_, sizeof(Report));
}

bool Isolated::ended() {
  if (!ended_) ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
  return ended_;
}

void Isolated::wait() {
  while (!ended_) ended_ = waitpid(pid_, &status_, 0) == pid_ || errno == ECHILD;
}

std::string Isolated::failure() {
  wait();
  if (report_->failure[0] != '\0') return report_->failure;
  if (WIFEXITED(status_) && WEXITSTATUS(status_) == 0) return {};
  std::string end = WIFSIGNALED(status_) ? fmt::format("killed by signal {} ({})", WTERMSIG(status_),
                                                       strsignal(WTERMSIG(status_)))
                                         : fmt::format("exited with {}", WEXITSTATUS(status_));
  return end + ": " + contentOf(errors_);
}

Outcome runIsolated(const Scenario& scenario) {
  Isolated process([&scenario](Report& report) {
    prepareProcess(scenario.conditions);
    Outcome outcome = run(scenario);
    report.events = outcome.events;
    report.publications = outcome.publications;
    report.digest = outcome.digest;
    report.failedAt = outcome.failedAt;
    report.failureIs(outcome.failure);
  });
  Outcome outcome;
  outcome.failure = process.failure();
  outcome.failedAt = process.report().failedAt;
  outcome.events = process.report().events;
  outcome.publications = process.report().publications;
  outcome.digest = process.report().digest;
  return outcome;
}

}  // namespace Simulation
