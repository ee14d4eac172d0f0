#include "programs/trelctl/TableChanges.h"

#include <absl/strings/ascii.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "programs/trelctl/Render.h"
#include "runtime/Text.h"

namespace TrelCtl {
namespace {

using RowsByIndex = std::map<std::string, const Json*>;

std::string indexOf(const ShownTable& table, const Json& row) {
  std::string index;
  size_t column = 0;
  for (const Json& value : row) {
    if (column++ == table.indexColumns) break;
    index += (index.empty() ? "" : ".") + cell(value);
  }
  return index;
}

RowsByIndex rowsOf(const ShownTable& table) {
  RowsByIndex rows;
  for (const Json& row : table.rows) rows.emplace(indexOf(table, row), &row);
  return rows;
}

void compare(const ShownTable& before, const ShownTable& now, std::vector<RowChange>& changes) {
  RowsByIndex old = rowsOf(before);
  for (const Json& row : now.rows) {
    std::string index = indexOf(now, row);
    auto was = old.find(index);
    if (was == old.end()) {
      changes.push_back({now.name, index, nullptr, row});
    } else {
      if (*was->second != row) changes.push_back({now.name, index, *was->second, row});
      old.erase(was);
    }
  }
  for (const auto& [index, row] : old) changes.push_back({now.name, index, *row, nullptr});
}

std::string shortName(std::string name) {
  name = absl::AsciiStrToLower(name);
  constexpr std::string_view kBegin = "veldatrel";
  constexpr std::string_view kEnd = "table";
  if (name.starts_with(kBegin)) name.erase(0, kBegin.size());
  if (name.ends_with(kEnd)) name.erase(name.size() - kEnd.size());
  return name;
}

std::string allValues(const Json& row) {
  std::vector<std::string> texts;
  for (const auto& [name, value] : row.items()) texts.push_back(fmt::format("{} {}", name, cell(value)));
  return fmt::format("{}", fmt::join(texts, ", "));
}

std::string differences(const Json& was, const Json& is) {
  std::vector<std::string> texts;
  for (const auto& [name, value] : is.items()) {
    auto old = was.find(name);
    if (old == was.end() || *old == value) continue;
    texts.push_back(fmt::format("{} {} -> {}", Runtime::escaped(name), cell(*old), cell(value)));
  }
  return fmt::format("{}", fmt::join(texts, ", "));
}

}  // namespace

void append(const Json& line, ShownTables& tables) {
  auto name = line.at("table").get<std::string>();
  if (tables.empty() || tables.back().name != name) {
    tables.push_back({name,
                      line.value("indexColumns", size_t{1}),
                      {},
                      line.value("oid", ""),
                      line.value("columns", Json::object())});
  }
  for (const Json& row : line.at("rows")) tables.back().rows.push_back(row);
}

std::string tableNamed(const std::string& name, const std::vector<std::string>& names) {
  std::string wanted = shortName(name);
  std::vector<std::string> found;
  for (const std::string& table : names) {
    if (shortName(table) == wanted) return table;
    if (shortName(table).find(wanted) != std::string::npos) found.push_back(table);
  }
  if (found.size() == 1) return found.front();
  throw std::invalid_argument(fmt::format("found {}, expected {} {}", Runtime::inQuotes(name),
                                          found.empty() ? "one of" : "one alone of",
                                          fmt::join(found.empty() ? names : found, ", ")));
}

std::vector<RowChange> changesOf(const ShownTables& before, const ShownTables& now) {
  std::vector<RowChange> changes;
  for (const ShownTable& table : now) {
    auto old = std::find_if(before.begin(), before.end(),
                            [&](const ShownTable& other) { return other.name == table.name; });
    if (old != before.end()) compare(*old, table, changes);
  }
  return changes;
}

std::string textOf(const RowChange& change) {
  std::string place = fmt::format("{} {}: ", Runtime::escaped(change.table), change.index);
  if (change.is.is_null()) return place + "gone";
  return place + (change.was.is_null() ? "new: " + allValues(change.is) : differences(change.was, change.is));
}

}  // namespace TrelCtl
