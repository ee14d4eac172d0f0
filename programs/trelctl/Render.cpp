#include "programs/trelctl/Render.h"

#include <absl/strings/str_split.h>
#include <absl/strings/strip.h>
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "programs/trelctl/Verdict.h"
#include "runtime/Text.h"

namespace TrelCtl {
namespace {

// A number, also with a unit, or a duration.
bool isQuantity(const std::string& text) {
  return text.find_first_of("0123456789") == (text.starts_with('-') ? 1 : 0) &&
         text.find_first_not_of("-0123456789.: d%KMGTiB") == std::string::npos;
}

// In characters of UTF-8, as fmt counts when it pads.
size_t widthOf(const std::string& text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string padded(const std::string& text, size_t width, bool last) {
  if (isQuantity(text)) return fmt::format("{:>{}}", text, width);
  return last ? text : fmt::format("{:<{}}", text, width);
}

std::string section(const char* title, const Json& objects) {
  if (objects.empty()) return fmt::format("\n{}: none\n", title);
  return fmt::format("\n{}:\n{}", title, asTable(objects));
}

// Sentences are too wide for a column: they stand below the table, with what they are. By member. Those that
// were told are not told again.
using Sentences = std::vector<std::pair<const char*, const char*>>;
std::string sectionWithSentences(const char* title, Json objects, const Sentences& sentences,
                                 std::set<Json>& told) {
  std::string below;
  for (Json& object : objects) {
    for (const auto& [member, what] : sentences) {
      const Json& sentence = object.at(member);
      if (!sentence.is_null() && told.insert(sentence).second)
        below += fmt::format("  {}: {}\n", what, cell(sentence));
      object.erase(member);
    }
  }
  return section(title, objects) + below;
}

std::string sectionIfAny(const char* title, const Json& objects) {
  return objects.empty() ? "" : section(title, objects);
}

std::string collectors(const Json& objects, Shown shown) {
  if (shown == Shown::all) return section("collectors", objects);
  Json failing = Json::array();
  for (const Json& collector : objects) {
    if (collector.at("state") != "works") failing.push_back(collector);
  }
  return sectionIfAny("collectors that do not work", failing);
}

std::string renderVerdict(const Judgement& judgement) {
  std::string text = fmt::format("{}{}\n", nameOf(judgement.verdict), judgement.reasons.empty() ? "" : ":");
  for (const Reason& reason : judgement.reasons) text += fmt::format("  - {}\n", reason.text);
  return text + "\n";
}

std::string headLine(const Json& status) {
  bool connected = status.at("connected").get<bool>();
  std::string text = fmt::format(
      "{} {}, member {}, up {}, {} at {}{}, {}\n", cell(status.at("daemon")), cell(status.at("version")),
      cell(status.at("member")), durationText(status.at("uptimeSeconds").get<double>()),
      cell(status.at("mode")), cell(status.at("address")), connected ? "" : " (not connected)",
      status.at("ready").get<bool>() ? "ready" : "not ready");
  const Json& log = status.at("log");
  if (log.at("leftOut") != 0 || log.at("lost") != 0) {
    text += fmt::format("log: {} lines left out, {} lost, {} waiting\n", cell(log.at("leftOut")),
                        cell(log.at("lost")), cell(log.at("waiting")));
  }
  return text;
}

}  // namespace

std::string durationText(double seconds) {
  auto whole = static_cast<uint64_t>(seconds);
  uint64_t days = whole / 86400;
  return fmt::format("{}{}:{:02}:{:02}", days == 0 ? "" : fmt::format("{} d ", days), whole / 3600 % 24,
                     whole / 60 % 60, whole % 60);
}

std::string aligned(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
  }
  std::string text;
  for (const auto& row : rows) {
    text += "  ";
    for (size_t i = 0; i < row.size(); ++i) {
      bool last = i + 1 == row.size();
      text += padded(row[i], widths[i], last) + (last ? "\n" : "  ");
    }
  }
  return text;
}

std::string cell(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return Runtime::escaped(value.is_string() ? value.get<std::string>() : value.dump());
}

std::string asTable(const Json& objects) {
  std::vector<std::vector<std::string>> rows;
  for (const Json& object : objects) {
    if (rows.empty()) {
      rows.emplace_back();
      for (const auto& [name, value] : object.items()) rows.back().push_back(Runtime::escaped(name));
    }
    std::vector<std::string> row;
    for (const Json& value : object) row.push_back(cell(value));
    rows.push_back(std::move(row));
  }
  return aligned(rows);
}

std::string renderStatus(const Json& status, const Judgement& judgement, Shown shown) {
  bool all = shown == Shown::all;
  std::string text = renderVerdict(judgement) + headLine(status);
  // Another store is also the error of its source, and the last error; it is told as what it is. What is a
  // reason is told already.
  std::set<Json> told;
  std::set<Json> others;
  for (const Json& store : status.at("stores")) others.insert(store.at("otherStore"));
  if (!all) {
    for (const Json& source : status.at("sources")) told.insert(source.at("error"));
  }
  told.insert(others.begin(), others.end());
  text += sectionWithSentences("sources", status.at("sources"), {{"error", "error"}}, told);
  if (all) {
    for (const Json& other : others) told.erase(other);
  }
  text += collectors(status.at("collectors"), shown);
  text += sectionIfAny("cluster", status.value("cluster", Json::array()));
  if (!status.at("stores").empty()) {
    text += sectionWithSentences("stores", status.at("stores"),
                                 {{"otherStore", "other store"}, {"lastError", "last error"}}, told);
    if (all) text += section("store counters", status.at("storeCounters"));
    text += sectionIfAny("set aside", status.at("setAside"));
    text += section("members", status.at("members"));
  }
  text += sectionIfAny("unread, with figures as old as this", status.at("unread"));
  if (auto more = status.value("unreadLeftOut", uint64_t{0}); more != 0)
    text += fmt::format("and {} more\n", more);
  if (all) {
    text += section("pipelines", status.at("pipelines"));
    text += sectionIfAny("conflicts", status.at("conflicts"));
    text += section("tasks", status.at("tasks"));
    return text + section("tables", status.at("tables"));
  }
  Json tables = status.at("tables");
  for (Json& table : tables) {
    table.erase("version");
    table.erase("directAnswers");
  }
  return text + section("tables", tables);
}

std::string renderObject(const Json& object) {
  std::vector<std::vector<std::string>> attributes;
  for (const auto& [name, value] : object.at("attributes").items())
    attributes.push_back({Runtime::escaped(name), cell(value)});
  std::string text =
      object.at("type").is_null() ? "objects:\n" : cell(object.at("type")) + "\n" + aligned(attributes);
  Json questions = object.value("questions", Json::array());
  for (const Json& operation : object.at("operations")) {
    bool asks = std::find(questions.begin(), questions.end(), operation) != questions.end();
    text += fmt::format("  {} {}\n", asks ? "question" : "operation", cell(operation));
  }
  for (const Json& entity : object.at("entities")) text += fmt::format("  {}\n", cell(entity));
  return text;
}

std::string renderLines(const std::string& text) {
  std::string lines;
  std::vector<std::string> split = absl::StrSplit(absl::StripSuffix(text, "\n"), '\n');
  for (const std::string& line : split) lines += Runtime::escaped(line) + "\n";
  return text.empty() ? "" : lines;
}

std::string renderTable(const std::string& name, const Json& rows) {
  if (rows.empty()) return fmt::format("{}: empty\n", Runtime::escaped(name));
  return fmt::format("{}:\n{}", Runtime::escaped(name), asTable(rows));
}

}  // namespace TrelCtl
