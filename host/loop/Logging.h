// Where traces and log lines go: standard error, syslog or the journal.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lumalog/Lumalog.h"

namespace spdlog {
class logger;
}

namespace Host {

enum class LogTo : uint8_t { standardError, syslog, journal };

struct LogOptions {
  std::vector<std::pair<std::string, int>> traces;  // handle and level
  LogTo to = LogTo::standardError;
};

// "HANDLE/LEVEL[,...]"; throws std::invalid_argument with what was found and expected.
std::vector<std::pair<std::string, int>> parseTraces(const std::string& text);

// The process's trace sink while it lives. Level 0 is logged as error, 1 as information, the rest as
// debugging detail; which levels there are is settled by the handles, at the levels of the options.
class Logging final : public Lumalog::Sink {
 public:
  // `program` is the name under which syslog and the journal know it.
  Logging(const std::string& program, const LogOptions& options);
  ~Logging() override;
  void trace(std::string_view handle, int level, std::string_view text) override;

 private:
  Lumalog::Sink* before_;
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace Host
