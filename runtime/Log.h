// The process's log: to standard error, syslog or the journal. A process has one at a time.
//
// write() never blocks: a thread of the log's own writes the lines, in their order. While nobody reads the
// pipe or socket, lines wait up to a bound; those beyond it are counted as lost. The destructor, and an
// abort, wait until all lines are written, but end when none was written for half a second, and after ten
// seconds.
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

  // Numbers of lines; the latter two since the log was opened.
  struct State {
    uint64_t waiting;  // not written yet
    uint64_t leftOut;  // too many were alike (Thinning.h)
    uint64_t lost;     // too many were waiting, or they could not be written
  };

  // `program` is the name under which syslog and the journal know it. Throws std::runtime_error, in one line,
  // when the system has no thread for it.
  Log(const std::string& program, LogTo to);
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // For any thread. The text may be foreign: control characters are escaped.
  void write(LogLine line);
  // The same, but leaves the line out when there were too many like it (Thinning.h).
  void write(LogLine line, const Likeness& likeness);

  State state() const;

  // Reconnects to syslog before the next line. Nothing happens with the others, which have no connection.
  void reopen();

 private:
  class Lines;
  void startThread();

  std::shared_ptr<Lines> lines_;  // shared with the thread, which may hang when this is destroyed
  std::thread thread_;
};

}  // namespace Runtime
