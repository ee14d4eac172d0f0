#include "Logging.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/sinks/systemd_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace Host {
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

}  // namespace

std::vector<std::pair<std::string, int>> parseTraces(const std::string& text) {
  std::vector<std::pair<std::string, int>> traces;
  size_t at = 0;
  while (at <= text.size()) {
    size_t comma = std::min(text.find(',', at), text.size());
    std::string item = text.substr(at, comma - at);
    at = comma + 1;
    size_t slash = item.rfind('/');
    int level = -1;
    const char* end = item.data() + item.size();
    const char* digits = slash == std::string::npos ? end : item.data() + slash + 1;
    auto [after, error] = std::from_chars(digits, end, level);
    bool good =
        slash != 0 && error == std::errc() && after == end && level >= 0 && level <= Lumalog::kMaxLevel;
    if (!good) {
      throw std::invalid_argument(fmt::format("found \"{}\", expected HANDLE/LEVEL with a level of 0 to {}",
                                              item, Lumalog::kMaxLevel));
    }
    traces.emplace_back(item.substr(0, slash), level);
  }
  return traces;
}

Logging::Logging(const std::string& program, const LogOptions& options) : before_(Lumalog::sink()) {
  for (const auto& [handle, level] : options.traces) Lumalog::levelIs(handle, level);
  logger_ = std::make_shared<spdlog::logger>(program, sinkFor(options.to, program));
  logger_->set_level(spdlog::level::trace);
  // syslog and the journal have times of their own.
  logger_->set_pattern(options.to == LogTo::standardError ? "%Y-%m-%dT%H:%M:%S.%eZ %v" : "%v",
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
