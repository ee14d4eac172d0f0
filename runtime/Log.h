// The process's log: standard error, syslog or the journal; one at a time.
//
// Whoever writes a line never waits for it: a thread writes them, and what a pipe that is full, a reader that
// stopped or a socket that is full keeps from being written is held up to a bound and counted beyond. Lines
// keep their order. None that could be written is lost when the log goes, or in an abort: both wait as long
// as lines are being written, though no longer than half a second for one, and ten seconds for all.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "runtime/Thinning.h"

namespace Runtime {

enum class LogTo : uint8_t { standardError, syslog, journal };

// "stderr", "syslog" or "journal"; throws std::invalid_argument for anything else, with what was expected.
LogTo logTo(const std::string& name);

class Log final {
 public:
  static constexpr size_t kMaxWaitingBytes = 4 << 20;

  // In lines, since the log was opened.
  struct State {
    uint64_t waiting;  // now, to be written
    uint64_t leftOut;  // like many others
    uint64_t lost;     // too many were waiting, or they could not be written
  };

  // `program` is the name under which syslog and the journal know it. Throws std::runtime_error, in one line,
  // when the system has no thread for it.
  Log(const std::string& program, LogTo to);
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Foreign text may be in it: control characters are escaped.
  void write(LogLine line);
  // The same, unless enough has been said that is like it (Thinning.h).
  void write(LogLine line, const Likeness& likeness);

  State state() const;

  // Connects anew to the system's logger, before the next line. Standard error stays what it is.
  void reopen();

 private:
  class Lines;
  void startThread();

  std::shared_ptr<Lines> lines_;  // of the thread as well, which may be stuck when this goes
  std::thread thread_;
};

}  // namespace Runtime
