// Where a daemon's traces go: its log.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/lumalog/Lumalog.h"
#include "runtime/Log.h"

namespace Host {

struct TraceOptions {
  std::vector<std::pair<std::string, int>> levels;  // by trace handle
  Runtime::LogTo to = Runtime::LogTo::standardError;
};

// "HANDLE/LEVEL[,...]"; throws std::invalid_argument with what was found and expected.
std::vector<std::pair<std::string, int>> parseTraces(const std::string& text);

// The process's trace sink while it lives. Level 0 is logged as error, 1 as information, the rest as
// debugging detail; which levels there are is settled by the handles, at the levels of the options. Of errors
// and information, what is said from one place in the code of one source, and of that of one key, is bounded
// (runtime/Thinning.h); detail was asked for, and is told whole.
class TraceLog final : public Lumalog::Sink {
 public:
  // Throws std::runtime_error, in one line, when the log cannot be written.
  TraceLog(const std::string& program, const TraceOptions& options);
  ~TraceLog() override;
  void trace(const Lumalog::Line& line) override;

  Runtime::Log::State state() const { return log_.state(); }
  // Connects anew to what it logs to, as after SIGHUP.
  void reopen() { log_.reopen(); }

 private:
  Lumalog::Sink* before_;
  Runtime::Log log_;
};

}  // namespace Host
