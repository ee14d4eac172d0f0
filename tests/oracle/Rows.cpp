#include "tests/oracle/Rows.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace Oracle {
namespace {

// INTEGER is signed, whatever the number means.
Column integer(uint32_t number) { return {Column::integer, static_cast<int32_t>(number), ""}; }
Column gauge(uint32_t number) { return {Column::gauge, number, ""}; }

Column ticks(double seconds) {
  auto hundredths = static_cast<int64_t>(std::floor(seconds * 100 + 1e-3));
  return {Column::ticks, static_cast<uint32_t>(hundredths), ""};
}

// Of RFC 2579, in UTC.
Column dateAndTime(double utcSeconds) {
  auto tenths = static_cast<int64_t>(std::floor(utcSeconds * 10 + 1e-4));
  time_t seconds = tenths / 10;
  tm date{};
  gmtime_r(&seconds, &date);
  int year = date.tm_year + 1900;
  std::string octets;
  for (int number : {year >> 8, year & 0xff, date.tm_mon + 1, date.tm_mday, date.tm_hour, date.tm_min,
                     date.tm_sec, static_cast<int>(tenths % 10)}) {
    octets += static_cast<char>(number);
  }
  return {Column::octets, 0, octets + "+" + std::string(2, '\0')};
}

// The row's index says what counts as unused.
uint32_t usedMemory(const Memory& memory, uint32_t index) {
  if (memory.total == 0) return 0;
  switch (index) {
    case 1:
      return memory.total - memory.free;
    case 2:
      return memory.total - memory.nonBuffer;
    case 3:
      return memory.total - memory.nonCache;
    case 100:
      return memory.total - memory.available;
    default:
      return 0;
  }
}

}  // namespace

Columns linkColumns(const Pair& members) { return {integer(members.first), integer(members.second)}; }

Columns reportColumns(uint32_t ifIndex, const Report& report) {
  constexpr uint32_t kStates = 6;
  // The MIB counts from 1; 0 is a state that has no name.
  return {integer(ifIndex),
          integer(report.state < kStates ? report.state + 1 : 0),
          {Column::instant, static_cast<int64_t>(report.lastChangeNs), ""}};
}

Columns systemColumns(const System& system) {
  return {ticks(system.uptime), dateAndTime(system.currentTimeUtc), gauge(system.users),
          gauge(system.processes), integer(system.memorySize)};
}

Columns processorColumns(int32_t load) { return {{Column::integer, load, ""}}; }

Columns storageColumns(const Mapping& mapping, uint32_t allocationUnits, uint32_t size, uint32_t used) {
  return {{Column::oid, 0, mapping.type},
          {Column::octets, 0, mapping.description},
          integer(allocationUnits),
          integer(size),
          integer(used)};
}

Rows interfaceRows(const State& state) {
  Rows rows;
  for (const auto& [members, interface] : state.links) {
    auto index = state.indexes.find(interface);
    if (!isBackplane(interface) || index == state.indexes.end()) continue;
    rows.insert({{index->second, 0}, linkColumns(members)});
  }
  return rows;
}

Rows reachabilityRows(const State& state) {
  Rows rows;
  for (const auto& [members, report] : state.reports) {
    auto index = state.indexes.find(report.interface);
    rows.insert({members, reportColumns(index != state.indexes.end() ? index->second : 0, report)});
  }
  return rows;
}

Rows systemRows(const State& state) {
  Rows rows;
  for (const auto& [member, host] : state.hosts) rows.insert({{member, 0}, systemColumns(host.system)});
  return rows;
}

Rows processorRows(const State& state) {
  Rows rows;
  for (const auto& [member, host] : state.hosts) {
    for (const auto& [processor, load] : host.loads) {
      rows.insert({{member, processor}, processorColumns(load)});
    }
  }
  return rows;
}

Rows storageRows(const State& state) {
  Rows rows;
  for (const auto& [member, host] : state.hosts) {
    for (const auto& [mount, storage] : host.storage) {
      auto mapping = state.mounts.find(mount);
      if (mapping == state.mounts.end()) continue;
      auto size = static_cast<uint32_t>(storage.size);
      auto used = static_cast<uint32_t>(storage.size - storage.free);
      rows.insert({{member, mapping->second.index},
                   storageColumns(mapping->second, storage.allocationUnits, size, used)});
    }
    if (!host.memory) continue;
    for (const Mapping& mapping : state.memoryKinds) {
      constexpr uint32_t kKiB = 1024;
      uint32_t used = usedMemory(*host.memory, mapping.index);
      rows.insert({{member, mapping.index}, storageColumns(mapping, kKiB, host.memory->total, used)});
    }
  }
  return rows;
}

std::string textOf(const Rows& rows) {
  std::string text;
  for (const auto& [key, columns] : rows) {
    text += fmt::format("({},{})=", key.first, key.second);
    for (const Column& column : columns) {
      bool isText = column.type == Column::octets || column.type == Column::oid;
      text += isText ? column.text + " " : fmt::format("{} ", column.number);
    }
  }
  return text;
}

std::map<std::vector<uint32_t>, Column> walkOf(const State& state) {
  std::map<std::vector<uint32_t>, Column> walk;
  auto add = [&walk](uint32_t module, uint32_t table, size_t indexes, const Rows& rows) {
    for (const auto& [key, columns] : rows) {
      auto number = static_cast<uint32_t>(indexes + 1);  // the columns of the index come first
      for (const Column& column : columns) {
        std::vector<uint32_t> name = {module, 1, table, 1, number++, key.first};
        if (indexes == 2) name.push_back(key.second);
        walk[name] = column;
      }
    }
  };
  add(40, 1, 1, interfaceRows(state));
  add(40, 2, 2, reachabilityRows(state));
  add(41, 1, 1, systemRows(state));
  add(41, 2, 2, processorRows(state));
  add(41, 3, 2, storageRows(state));
  return walk;
}

uint32_t memberOf(std::string_view directoryKey) {
  uint32_t member = 0;
  for (char digit : directoryKey) {
    if (digit < '0' || digit > '9') return 0;
    member = member * 10 + static_cast<uint32_t>(digit - '0');
    if (member > 255) return 0;
  }
  return member;
}

bool isBackplane(std::string_view interface) {
  constexpr std::string_view kKind = "Backplane";
  if (!interface.starts_with(kKind) || interface.size() == kKind.size()) return false;
  char next = interface[kKind.size()];
  return next >= '0' && next <= '9';
}

}  // namespace Oracle
