#include "Logging.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/sinks/systemd_sink.h>
#include <spdlog/spdlog.h>

namespace Host {
namespace {

constexpr const char* kIdent = "trelsnmpd";

spdlog::sink_ptr sinkFor(LogTo where) {
  switch (where) {
    case LogTo::syslog:
      return std::make_shared<spdlog::sinks::syslog_sink_st>(kIdent, LOG_PID, LOG_DAEMON,
                                                             /*enable_formatting=*/true);
    case LogTo::journal:
      return std::make_shared<spdlog::sinks::systemd_sink_st>(kIdent, /*enable_formatting=*/true);
    case LogTo::standardError:
      break;
  }
  return std::make_shared<spdlog::sinks::stderr_sink_st>();
}

}  // namespace

Logging::Logging(LogTo where) : before_(Lumalog::sink()) {
  logger_ = std::make_shared<spdlog::logger>(kIdent, sinkFor(where));
  logger_->set_level(spdlog::level::trace);
  // syslog and the journal have times of their own.
  logger_->set_pattern(where == LogTo::standardError ? "%Y-%m-%dT%H:%M:%S.%eZ %v" : "%v",
                       spdlog::pattern_time_type::utc);
  logger_->flush_on(spdlog::level::trace);
  Lumalog::sinkIs(this);
}

Logging::~Logging() { Lumalog::sinkIs(before_); }

void Logging::trace(std::string_view handle, int level, std::string_view text) {
  auto severity = level <= 0 ? spdlog::level::err : level == 1 ? spdlog::level::info : spdlog::level::debug;
  logger_->log(severity, "{}/{} {}", handle, level, text);
}

}  // namespace Host
