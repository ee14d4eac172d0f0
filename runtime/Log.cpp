#include "runtime/Log.h"

#include <fmt/chrono.h>
#include <poll.h>
#include <syslog.h>
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "runtime/CommandLine.h"
#include "runtime/Text.h"

namespace Runtime {
namespace {

using SystemTime = std::chrono::system_clock::time_point;
using SteadyTime = std::chrono::steady_clock::time_point;
// The end waits in rounds, until one in which no line was written.
constexpr std::chrono::milliseconds kEndingRound(500);
constexpr int kEndingRounds = 20;

struct Dated {
  SystemTime time;
  LogLine line;
};

uint64_t nowMs() {
  auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

int priorityOf(Severity severity) {
  if (severity == Severity::error) return LOG_ERR;
  return severity == Severity::information ? LOG_INFO : LOG_DEBUG;
}

std::string textOf(const LogLine& line) { return line.label + ' ' + escaped(line.text); }

// For standard error: syslog and the journal add the time themselves.
std::string timeText(SystemTime time) {
  auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(time)),
                     sinceEpoch % 1000);
}

// Without stdio, whose lock would block the end of the process while this hangs.
bool writeToStandardError(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t count = ::write(STDERR_FILENO, bytes.data(), bytes.size());
    if (count > 0) {
      bytes.remove_prefix(static_cast<size_t>(count));
    } else if (errno == EAGAIN) {
      pollfd writable{STDERR_FILENO, POLLOUT, 0};
      ::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

// The number of lines that are not written yet, for the handler of SIGABRT.
std::atomic<const std::atomic<size_t>*> unwrittenAtAbort;

void onAbort(int number) {
  if (const std::atomic<size_t>* unwritten = unwrittenAtAbort) {
    constexpr timespec kStep{0, 5'000'000};
    size_t before = 0;
    for (int round = 0; round < kEndingRounds && *unwritten != before; ++round) {
      before = *unwritten;
      auto steps = kEndingRound / std::chrono::nanoseconds(kStep.tv_nsec);
      for (; steps != 0 && *unwritten != 0; --steps) nanosleep(&kStep, nullptr);
    }
  }
  // SA_RESETHAND has removed the handler, so that this ends the process.
  std::raise(number);
}

void abortHandlerIs(void (*handler)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigaction(SIGABRT, &action, nullptr);
}

}  // namespace

class Log::Lines final {
 public:
  Lines(std::string program, LogTo to) : program_(std::move(program)), to_(to) { open(); }
  ~Lines() { close(); }
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  void add(LogLine line, const Likeness* likeness) {
    std::lock_guard lock(mutex_);
    if (likeness == nullptr || thinning_.admits(nowMs(), *likeness, line)) queue(std::move(line));
  }

  // What the thread runs. Returns when all is written after endIs().
  void run() {
    std::unique_lock lock(mutex_);
    while (!finished_) {
      sleep(lock);
      writeOut(lock);
    }
  }

  void endIs() {
    std::lock_guard lock(mutex_);
    ending_ = true;
    arrived_.notify_one();
  }
  void reopen() { reopening_ = true; }
  // Waits for run() to end. False when it gave up.
  bool finishes() {
    std::unique_lock lock(mutex_);
    for (int round = 0; round < kEndingRounds; ++round) {
      size_t before = unwritten_;
      if (ended_.wait_for(lock, kEndingRound, [this] { return finished_; })) return true;
      if (unwritten_ == before) return false;
    }
    return false;
  }

  State state() const {
    std::lock_guard lock(mutex_);
    return {unwritten_, thinning_.leftOut(), lost_};
  }
  const std::atomic<size_t>& unwritten() const { return unwritten_; }

 private:
  void queue(LogLine line) {
    size_t bytes = sizeof(Dated) + line.label.size() + line.text.size();
    if (waitingBytes_ + bytes > kMaxWaitingBytes) {
      ++lost_;
      ++untoldLost_;
      return;
    }
    waitingBytes_ += bytes;
    ++unwritten_;
    waiting_.push_back({std::chrono::system_clock::now(), std::move(line)});
    arrived_.notify_one();
  }

  // Until there is a line to write, or the count of those left out is due.
  void sleep(std::unique_lock<std::mutex>& lock) {
    auto awake = [this] { return !waiting_.empty() || ending_; };
    uint64_t next = thinning_.nextMs();
    if (next == Thinning::kNever) {
      arrived_.wait(lock, awake);
    } else {
      arrived_.wait_until(lock, SteadyTime(std::chrono::milliseconds(next)), awake);
    }
  }

  void writeOut(std::unique_lock<std::mutex>& lock) {
    bool last = ending_;
    for (LogLine& line : last ? thinning_.all(nowMs()) : thinning_.over(nowMs())) queue(std::move(line));
    auto taken = std::exchange(waiting_, {});
    waitingBytes_ = 0;
    uint64_t gap = std::exchange(untoldLost_, 0);
    lock.unlock();
    connectAnew();
    for (const Dated& line : taken) {
      bool good = write(line);
      lock.lock();
      --unwritten_;
      if (!good) {
        ++lost_;
        ++untoldLost_;
      }
      lock.unlock();
    }
    bool told = gap == 0 || write(lostHere(gap));
    lock.lock();
    if (!told) untoldLost_ += gap;
    finished_ = last;
    if (finished_) ended_.notify_all();
  }

  // syslog() itself connects, with the first line.
  void open() {
    if (to_ == LogTo::syslog) openlog(program_.c_str(), LOG_PID, LOG_DAEMON);
  }
  void close() {
    if (to_ == LogTo::syslog) closelog();
  }

  void connectAnew() {
    if (!reopening_.exchange(false)) return;
    close();
    open();
  }

  static Dated lostHere(uint64_t count) {
    std::string text =
        fmt::format("{} lines are lost here: nobody read the log, or it could not be written", count);
    return {std::chrono::system_clock::now(), {Severity::error, "Log/0", std::move(text)}};
  }

  // Whether it could be written.
  bool write(const Dated& dated) {
    const auto& [time, line] = dated;
    switch (to_) {
      case LogTo::standardError:
        return writeToStandardError(timeText(time) + ' ' + textOf(line) + '\n');
      case LogTo::syslog:
        ::syslog(priorityOf(line.severity), "%s", textOf(line).c_str());
        return true;
      case LogTo::journal:
        return sd_journal_send("MESSAGE=%s", textOf(line).c_str(), "PRIORITY=%d", priorityOf(line.severity),
                               "SYSLOG_IDENTIFIER=%s", program_.c_str(), nullptr) == 0;
    }
    return false;
  }

  const std::string program_;
  const LogTo to_;
  std::atomic<bool> reopening_ = false;
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::condition_variable ended_;
  std::vector<Dated> waiting_;
  size_t waitingBytes_ = 0;
  std::atomic<size_t> unwritten_ = 0;  // waiting, or being written
  Thinning thinning_;
  uint64_t lost_ = 0;
  uint64_t untoldLost_ = 0;
  bool ending_ = false;
  bool finished_ = false;
};

LogTo logTo(const std::string& name) {
  oneOf(name, {"stderr", "syslog", "journal"});
  if (name == "syslog") return LogTo::syslog;
  return name == "journal" ? LogTo::journal : LogTo::standardError;
}

Log::Log(const std::string& program, LogTo to) : lines_(std::make_shared<Lines>(program, to)) {
  startThread();
  unwrittenAtAbort = &lines_->unwritten();
  abortHandlerIs(&onAbort, static_cast<int>(SA_RESETHAND));
}

void Log::startThread() {
  // The new thread inherits the mask: signals go to other threads.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::string problem;
  try {
    thread_ = std::thread([lines = lines_] { lines->run(); });
  } catch (const std::system_error& error) {
    problem = error.code().message();
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (!problem.empty()) throw std::runtime_error("no thread to write the log: " + problem);
}

Log::~Log() {
  abortHandlerIs(SIG_DFL, 0);
  unwrittenAtAbort = nullptr;
  lines_->endIs();
  if (lines_->finishes()) {
    thread_.join();
  } else {
    thread_.detach();
  }
}

void Log::write(LogLine line) { lines_->add(std::move(line), nullptr); }
void Log::write(LogLine line, const Likeness& likeness) { lines_->add(std::move(line), &likeness); }

Log::State Log::state() const { return lines_->state(); }
void Log::reopen() { lines_->reopen(); }

}  // namespace Runtime
