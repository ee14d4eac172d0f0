#include "host/TraceReport.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "platform/lumalog/Levels.h"
#include "platform/lumalog/Lumalog.h"
#include "runtime/Nearest.h"
#include "runtime/Text.h"

namespace Host {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kEvery = "*";

std::string unknown(const std::string& handle, const std::map<std::string, int>& levels) {
  std::vector<std::string> names;
  for (const auto& [name, level] : levels) names.push_back(name);
  std::string meant = Runtime::nearest(handle, names);
  return fmt::format("found {}, expected a handle{}", Runtime::inQuotes(handle),
                     meant.empty() ? "; trelctl trace lists them" : fmt::format(", such as \"{}\"", meant));
}

}  // namespace

std::unique_ptr<Reply> traceReport(const nlohmann::json& request) {
  if (request.contains("handle")) {
    auto level = request.find("level");
    bool good = request["handle"].is_string() && level != request.end() && level->is_number_integer() &&
                *level >= 0 && *level <= Lumalog::kMaxLevel;
    if (!good) {
      return errorReply(
          fmt::format("expected \"handle\": a string, and \"level\": 0 to {}", Lumalog::kMaxLevel));
    }
    std::string handle = request["handle"];
    std::map<std::string, int> levels = Lumalog::levels();
    if (handle != kEvery && !levels.contains(handle)) return errorReply(unknown(handle, levels));
    Lumalog::levelIs(handle, *level);
  }
  Json handles = Json::array();
  for (const auto& [handle, level] : Lumalog::levels())
    handles.push_back({{"handle", handle}, {"level", level}});
  return lineReply(Json{{"ok", true}, {"handles", std::move(handles)}}.dump());
}

}  // namespace Host
