// Writes a daemon's traces to its log.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/lumalog/Lumalog.h"
#include "runtime/Log.h"

namespace Host {

struct TraceOptions {
  std::vector<std::string> levels;  // each as parseTraces() takes it
  Runtime::LogTo to = Runtime::LogTo::standardError;
};

// Parses "HANDLE/LEVEL[,...]". Throws std::invalid_argument with what was found and expected.
std::vector<std::pair<std::string, int>> parseTraces(const std::string& text);

// The process's trace sink as long as it lives; sets the handles to the levels of the options. Logs level 0
// as error, 1 as information, others as debugging detail. The number of errors and informations is limited
// for each message of a source, and for each of its keys (runtime/Thinning.h). Detail, which somebody asked
// for, is not.
class TraceLog final : public Lumalog::Sink {
 public:
  // Throws std::runtime_error, in one line, when the system has no thread for the log.
  TraceLog(const std::string& program, const TraceOptions& options);
  ~TraceLog() override;
  void trace(const Lumalog::Line& line) override;

  // In place of the former levels. Requires: parseTraces() takes each.
  static void levelsAre(const std::vector<std::string>& levels);

  Runtime::Log::State state() const { return log_.state(); }
  // As Runtime::Log::reopen(); for SIGHUP.
  void reopen() { log_.reopen(); }

 private:
  Lumalog::Sink* before_;
  Runtime::Log log_;
};

}  // namespace Host
