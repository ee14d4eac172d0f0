#include "runtime/Log.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/sinks/systemd_sink.h>
#include <spdlog/spdlog.h>

#include "runtime/CommandLine.h"

namespace Runtime {
namespace {

spdlog::sink_ptr sinkFor(LogTo where, const std::string& program) {
  switch (where) {
    case LogTo::syslog:
      return std::make_shared<spdlog::sinks::syslog_sink_st>(program, LOG_PID, LOG_DAEMON,
                                                             /*enable_formatting=*/true);
    case LogTo::journal:
      return std::make_shared<spdlog::sinks::systemd_sink_st>(program, /*enable_formatting=*/true);
    case LogTo::standardError:
      break;
  }
  return std::make_shared<spdlog::sinks::stderr_sink_st>();
}

spdlog::level::level_enum levelOf(Severity severity) {
  if (severity == Severity::error) return spdlog::level::err;
  return severity == Severity::information ? spdlog::level::info : spdlog::level::debug;
}

}  // namespace

LogTo logTo(const std::string& name) {
  oneOf(name, {"stderr", "syslog", "journal"});
  if (name == "syslog") return LogTo::syslog;
  return name == "journal" ? LogTo::journal : LogTo::standardError;
}

Log::Log(const std::string& program, LogTo to)
    : logger_(std::make_shared<spdlog::logger>(program, sinkFor(to, program))) {
  logger_->set_level(spdlog::level::trace);
  // syslog and the journal have times of their own.
  logger_->set_pattern(to == LogTo::standardError ? "%Y-%m-%dT%H:%M:%S.%eZ %v" : "%v",
                       spdlog::pattern_time_type::utc);
  logger_->flush_on(spdlog::level::trace);
}

void Log::write(Severity severity, std::string_view line) { logger_->log(levelOf(severity), "{}", line); }

}  // namespace Runtime
