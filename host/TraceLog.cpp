#include "host/TraceLog.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace Host {

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

TraceLog::TraceLog(const std::string& program, const TraceOptions& options)
    : before_(Lumalog::sink()), log_(program, options.to) {
  levelsAre(options.levels);
  Lumalog::sinkIs(this);
}

TraceLog::~TraceLog() { Lumalog::sinkIs(before_); }

void TraceLog::levelsAre(const std::vector<std::string>& levels) {
  Lumalog::levelsReset();
  for (const std::string& text : levels) {
    for (const auto& [handle, level] : parseTraces(text)) Lumalog::levelIs(handle, level);
  }
}

void TraceLog::trace(const Lumalog::Line& line) {
  using Runtime::Severity;
  Severity severity = line.level <= 0   ? Severity::error
                      : line.level == 1 ? Severity::information
                                        : Severity::detail;
  Runtime::LogLine logged{severity, fmt::format("{}/{}", line.handle, line.level), std::string(line.text)};
  if (severity == Severity::detail) {
    log_.write(std::move(logged));
  } else {
    const auto& [source, key] = line.subject;
    // Lines without a key count by themselves, so that many lines with keys do not suppress them.
    std::string kind = fmt::format("{} {} {} {}", line.handle, line.format, source, key.empty());
    log_.write(std::move(logged), {std::move(kind), std::string(key)});
  }
}

}  // namespace Host
