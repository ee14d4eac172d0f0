#include "bench/Cluster.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace Bench {

std::vector<Row> rowsOf(Table table, uint32_t members) {
  std::vector<Row> rows;
  for (uint32_t member = 1; member <= members; ++member) {
    for (uint32_t second = 1; second <= members; ++second) {
      bool isRow = table == Table::reachability ? second != member : second != members;
      if (isRow) rows.push_back({member, second});
    }
  }
  return rows;
}

std::string mountOf(const Row& row) { return fmt::format("/mnt/{}", row.second); }

std::string documentOf(uint32_t members, const char* reachability) {
  nlohmann::json document = {{"sysname", "bench"}};
  for (const Row& row : rowsOf(Table::reachability, members)) {
    std::string interface = fmt::format("Backplane{}", row.second);
    document["interfaces"][interface] = {{"ifIndex", row.second}};
    document["members"][std::to_string(row.member)]["reachability"][std::to_string(row.second)] = {
        {"state", reachability}, {"lastChange", 0}, {"intf", interface}};
  }
  for (const Row& row : rowsOf(Table::storage, members)) {
    document["storageMappings"]["mounts"][mountOf(row)] = {
        {"index", row.second}, {"type", "1.3.6.1.2.1.25.2.1.4"}, {"description", mountOf(row)}};
    document["members"][std::to_string(row.member)]["storage"][mountOf(row)] = {
        {"allocationUnits", kAllocationUnits}, {"size", storageSizeOf(row)}, {"free", kStorageFree}};
  }
  return document.dump();
}

}  // namespace Bench
