#include "programs/trelctl/Units.h"

#include <fmt/format.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>

#include "programs/trelctl/Render.h"

namespace TrelCtl {
namespace {

constexpr double kStep = 1024;

Json ticks(const Json& value, const Json& /*row*/) {
  return value.is_number() ? Json(durationText(value.get<double>() / 100)) : value;
}

Json kibibytes(const Json& value, const Json& /*row*/) {
  return value.is_number() ? Json(sizeText(value.get<double>() * kStep)) : value;
}

Json bytes(const Json& value, const Json& /*row*/) {
  return value.is_number() ? Json(sizeText(value.get<double>())) : value;
}

Json units(const Json& value, const Json& row) {
  auto unit = row.find("allocUnits");
  bool known = value.is_number() && unit != row.end() && unit->is_number();
  return known ? Json(sizeText(value.get<double>() * unit->get<double>())) : value;
}

Json percent(const Json& value, const Json& /*row*/) {
  return value.is_number() ? Json(value.dump() + " %") : value;
}

// "2026-01-01 00:00:01 +00:00" of the form in which DateAndTime is displayed.
Json date(const Json& value, const Json& /*row*/) {
  if (!value.is_string()) return value;
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, tenth = 0;
  unsigned zoneHours = 0, zoneMinutes = 0;
  char zone = '+';
  int read = std::sscanf(value.get_ref<const std::string&>().c_str(), "%u-%u-%u,%u:%u:%u.%u,%c%u:%u", &year,
                         &month, &day, &hour, &minute, &second, &tenth, &zone, &zoneHours, &zoneMinutes);
  if (read != 7 && read != 10) return value;
  std::string text =
      fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", year, month, day, hour, minute, second);
  return read == 7 ? text : text + fmt::format(" {}{:02}:{:02}", zone, zoneHours, zoneMinutes);
}

// HOST-RESOURCES-TYPES, hrStorageTypes.
Json storageType(const Json& value, const Json& /*row*/) {
  constexpr std::string_view kTypes = "1.3.6.1.2.1.25.2.1.";
  constexpr std::array kNames = {"other",          "ram",         "virtual memory", "fixed disk",
                                 "removable disk", "floppy disk", "compact disc",   "RAM disk",
                                 "flash memory",   "network disk"};
  if (!value.is_string() || !value.get_ref<const std::string&>().starts_with(kTypes)) return value;
  std::string number = value.get<std::string>().substr(kTypes.size());
  for (size_t i = 0; i < kNames.size(); ++i) {
    if (number == std::to_string(i + 1)) return kNames[i];
  }
  return value;
}

struct Unit {
  const char* column;
  Json (*shown)(const Json& value, const Json& row);
};
constexpr std::array kUnits = {
    Unit{"upTime", ticks},         Unit{"lastUpdate", ticks}, Unit{"date", date},
    Unit{"memorySize", kibibytes}, Unit{"load", percent},     Unit{"type", storageType},
    Unit{"allocUnits", bytes},     Unit{"size", units},       Unit{"used", units}};

Json shown(const std::string& column, const Json& value, const Json& row) {
  auto name = row.find(column + "Name");
  if (name != row.end() && !name->is_null()) return *name;
  for (const Unit& unit : kUnits) {
    if (column == unit.column) return unit.shown(value, row);
  }
  return value;
}

bool isName(const std::string& column, const Json& row) {
  constexpr std::string_view kName = "Name";
  return column.ends_with(kName) && row.contains(column.substr(0, column.size() - kName.size()));
}

// How full a storage area is.
Json usedPercent(const Json& row) {
  const Json& used = row["used"];
  const Json& size = row["size"];
  if (!used.is_number() || !size.is_number() || size == 0) return nullptr;
  return fmt::format("{:.0f} %", 100 * used.get<double>() / size.get<double>());
}

}  // namespace

std::string sizeText(double bytes) {
  constexpr std::array kNames = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  size_t step = 0;
  for (; bytes >= kStep && step + 1 < kNames.size(); ++step) bytes /= kStep;
  bool whole = bytes == static_cast<double>(static_cast<uint64_t>(bytes));
  return fmt::format("{:.{}f} {}", bytes, whole ? 0 : 1, kNames[step]);
}

Json readable(const Json& row) {
  Json text = Json::object();
  for (const auto& [column, value] : row.items()) {
    if (!isName(column, row)) text[column] = shown(column, value, row);
  }
  if (row.contains("used") && row.contains("size")) text["full"] = usedPercent(row);
  return text;
}

Json readableRows(const Json& rows) {
  Json texts = Json::array();
  for (const Json& row : rows) texts.push_back(readable(row));
  return texts;
}

}  // namespace TrelCtl
