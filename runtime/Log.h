// The process's log: standard error, syslog or the journal. For the event loop's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace spdlog {
class logger;
}

namespace Runtime {

enum class LogTo : uint8_t { standardError, syslog, journal };
enum class Severity : uint8_t { error, information, detail };

// "stderr", "syslog" or "journal"; throws std::invalid_argument for anything else, with what was expected.
LogTo logTo(const std::string& name);

class Log final {
 public:
  // `program` is the name under which syslog and the journal know it.
  Log(const std::string& program, LogTo to);
  // One line.
  void write(Severity severity, std::string_view line);

 private:
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace Runtime
