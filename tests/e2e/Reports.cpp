#include "tests/e2e/Reports.h"

#include <fmt/format.h>

#include <array>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace E2e {
namespace {

// In the order of their numbers on the wire, which begin with 1.
const std::array<std::string, 6> kStates = {"unknown",  "initializing", "reachable",
                                            "degraded", "unreachable",  "disabled"};

int onTheWire(const std::string& state) {
  for (size_t i = 0; i < kStates.size(); ++i) {
    if (kStates[i] == state) return static_cast<int>(i) + 1;
  }
  throw std::logic_error("no such state: " + state);
}

std::string interfaceOf(uint32_t ifIndex) { return fmt::format("Backplane{}", ifIndex); }

}  // namespace

std::string documentOf(const Reports& reports) {
  nlohmann::ordered_json document = {{"sysname", "e2e"}, {"members", nlohmann::json::object()}};
  for (const auto& [pair, report] : reports) {
    nlohmann::ordered_json value = {{"state", report.state}, {"lastChange", report.lastChangeNs}};
    if (report.ifIndex != 0) {
      value["intf"] = interfaceOf(report.ifIndex);
      document["interfaces"][interfaceOf(report.ifIndex)] = {{"ifIndex", report.ifIndex}};
    }
    document["members"][std::to_string(pair.first)]["reachability"][std::to_string(pair.second)] = value;
  }
  return document.dump(1);
}

std::vector<Varbind> treeOf(const Reports& reports) {
  std::vector<Varbind> tree;
  for (int column : {3, 4, 5}) {
    for (const auto& [pair, report] : reports) {
      std::string value = column == 3   ? fmt::format("INTEGER: {}", static_cast<int32_t>(report.ifIndex))
                          : column == 4 ? fmt::format("INTEGER: {}", onTheWire(report.state))
                                        : std::string("Timeticks: (0) 0:00:00.00");
      tree.push_back({fmt::format("reach.{}.{}.{}", column, pair.first, pair.second), value});
    }
  }
  return tree;
}

std::string walkOf(const std::vector<Varbind>& tree) {
  std::string lines;
  for (const Varbind& varbind : tree) lines += varbind.line();
  return lines;
}

Reports fullMesh(int members) {
  Reports reports;
  size_t next = 0;
  for (int from = 1; from <= members; ++from) {
    for (int to = 1; to <= members; ++to) {
      if (from != to)
        reports[{from, to}] = {kStates[next++ % kStates.size()], static_cast<uint32_t>(from * 1000 + to)};
    }
  }
  return reports;
}

}  // namespace E2e
