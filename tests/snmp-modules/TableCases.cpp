#include "tests/snmp-modules/TableCases.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>

#include "platform/zavro/Assert.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"

namespace SnmpTest {
namespace {

using TrelSnmp::TrelMib;

constexpr const char* kNumber = "U32ToAsnUnsigned";

TableCase baIfTable() {
  return {
      .name = "veldaTrelBaIfTable",
      .at = "1",
      .arc = "3.40.1.1",
      .modes = HANDLER_CAN_GETANDGETNEXT,
      .index = {{"veldaTrelBaIfIndex", "baIfIndex", "", ASN_INTEGER}},
      .columns = {{2, "veldaTrelBaIfLocalMemberId", "i:11", kNumber, "localMemberId"},
                  {3, "veldaTrelBaIfRemoteMemberId", "i:12", kNumber, "remoteMemberId"}},
      .add = [](TrelMib& mib, const RowParts& row) { mib.trelIfTableIs(row[0], 11, 12); },
      .removeAll = [](TrelMib& mib) { mib.trelIfTableDelAll(); },
  };
}

TableCase reachabilityTable() {
  return {
      .name = "veldaTrelReachabilityTable",
      .at = "2",
      .arc = "3.40.1.2",
      .modes = HANDLER_CAN_GETANDGETNEXT,
      .index = {{"veldaTrelReachabilitySrcId", "srcId", "firstId", ASN_INTEGER},
                {"veldaTrelReachabilityDestId", "dstId", "secondId", ASN_INTEGER}},
      .columns = {{3, "veldaTrelReachabilityBaIfIndex", "i:0", kNumber, "baIfIndex"},
                  {4, "veldaTrelReachabilityState", "i:4", "ReachabilityStateToAsnUnsigned",
                   "reachabilityState"},
                  {5, "veldaTrelReachabilityLastUpdate", "t:0", "UtcSecondsToUptimeTimeTicks",
                   "lastUpdated"}},
      .add =
          [](TrelMib& mib, const RowParts& row) {
            auto state = Zavro::makePtr<const Trel::ReachabilityState>(Trel::ReachabilityState::degraded,
                                                                       std::nullopt, 0);
            mib.trelReachabilityTableIs({row[0], row[1]}, state, nullptr);
          },
      .removeAll = [](TrelMib& mib) { mib.trelReachabilityTableDelAll(); },
  };
}

TableCase hrSystemTable() {
  return {
      .name = "veldaTrelHrSystemTable",
      .at = "hr.1",
      .arc = "3.41.1.1",
      .modes = HANDLER_CAN_RWRITE,
      .index = {{"veldaTrelHrSystemMemberId", "trelMemberId", "", ASN_INTEGER}},
      .columns = {{2, "veldaTrelHrSystemUpTime", "t:1234", "SecondsToTimeTicks", "systemUptime"},
                  {3, "veldaTrelHrSystemDate", "x:07e80b0c0d0e0f052b0000", "SecondsToAsnDateAndTime",
                   "currentTimeUtc", 11,
                   "veldaTrelHrSystemTable_handler: SET is not configured for column veldaTrelHrSystemDate"},
                  {4, "veldaTrelHrSystemNumUsers", "u:3", kNumber, "systemNumUsers"},
                  {5, "veldaTrelHrSystemProcesses", "u:4", kNumber, "systemProcesses"},
                  {6, "veldaTrelHrSystemMemorySize", "i:5", kNumber, "memorySize"}},
      .add =
          [](TrelMib& mib, const RowParts& row) {
            // The date is 2024-11-12 13:14:15.5 UTC.
            mib.trelHrSystemTableIs(row[0], hostOf({.systemUptime = 12.34,
                                                    .currentTimeUtc = 1731417255.5,
                                                    .systemNumUsers = 3,
                                                    .systemProcesses = 4,
                                                    .memorySize = 5}));
          },
      .removeAll = [](TrelMib& mib) { mib.trelHrSystemTableDelAll(); },
  };
}

TableCase processorTable() {
  return {
      .name = "veldaTrelProcessorTable",
      .at = "hr.2",
      .arc = "3.41.1.2",
      .modes = HANDLER_CAN_GETANDGETNEXT,
      .index = {{"veldaTrelProcessorMemberId", "trelMemberId", "trelMemberId", ASN_INTEGER},
                {"veldaTrelProcessorIndex", "processorIndex", "processorIndex", ASN_UNSIGNED}},
      .columns = {{3, "veldaTrelProcessorLoad", "i:-1", "S32ToAsnInteger", "load"}},
      .add =
          [](TrelMib& mib, const RowParts& row) {
            mib.trelProcessorTableIs({row[0], row[1]},
                                     Zavro::makePtr<const HostResources::Processor>(int16_t{-1}));
          },
      .removeAll = [](TrelMib& mib) { mib.trelProcessorTableDelAll(); },
  };
}

TableCase storageTable() {
  return {
      .name = "veldaTrelStorageTable",
      .at = "hr.3",
      .arc = "3.41.1.3",
      .modes = HANDLER_CAN_GETANDGETNEXT,
      .index = {{"veldaTrelStorageMemberId", "trelMemberId", "trelMemberId", ASN_INTEGER},
                {"veldaTrelStorageIndex", "hrStorageIndex", "hrStorageIndex", ASN_INTEGER}},
      .columns = {{3, "veldaTrelStorageType", "o:1.3.6.1.2.1.25.2.1.4", "SnmpObjectIdentifierToAsnOid",
                   "type"},
                  {4, "veldaTrelStorageDescr", "s:/", "StringToAsnOctetString", "descr", 255},
                  {5, "veldaTrelStorageAllocUnits", "i:4096", kNumber, "allocationUnits"},
                  {6, "veldaTrelStorageSize", "i:1000", kNumber, "size"},
                  {7, "veldaTrelStorageUsed", "i:750", kNumber, "used"}},
      .add =
          [](TrelMib& mib, const RowParts& row) {
            auto info = Zavro::makePtr<const HostResources::StorageInfo>(4096u, 1000u, 250u);
            mib.trelHrStorageTableIs(TrelSnmp::trelHrStorageEntryMountFactory(
                {row[0], row[1]}, Snmp::ObjectIdentifier("1.3.6.1.2.1.25.2.1.4"), "/", info));
          },
      .removeAll = [](TrelMib& mib) { mib.trelHrStorageTableDelAll(); },
  };
}

}  // namespace

const TrelSnmp::ServedTable& TableCase::served() const {
  const auto& all = TrelSnmp::servedTables();
  auto found = std::find_if(all.begin(), all.end(), [this](const TrelSnmp::ServedTable& one) {
    return one.name == std::string_view(name);
  });
  zavroAssertWith(found != all.end(), "table={}", name);
  return *found;
}

std::string TableCase::indexText(const RowParts& row) const {
  return index.size() == 1 ? fmt::format("{}", row[0]) : fmt::format("{}.{}", row[0], row[1]);
}

std::string TableCase::keyText(const RowParts& row) const {
  return index.size() == 1
             ? fmt::format("{}", row[0])
             : fmt::format("({}={}, {}={})", index[0].keyPart, row[0], index[1].keyPart, row[1]);
}

std::string TableCase::instance(unsigned column, const RowParts& row) const {
  return fmt::format("{}.1.{}.{}", at, column, indexText(row));
}

std::vector<std::string> TableCase::tree(const std::vector<RowParts>& rows) const {
  std::vector<std::string> varbinds;
  for (const ColumnCase& column : columns) {
    for (const RowParts& row : rows) varbinds.push_back(instance(column.number, row) + '=' + column.value);
  }
  return varbinds;
}

std::ostream& operator<<(std::ostream& out, const TableCase& table) { return out << table.name; }
std::ostream& operator<<(std::ostream& out, const ModuleCase& module) { return out << module.name; }
std::ostream& operator<<(std::ostream& out, const TableOfModule& table) { return out << table.table; }

const std::vector<ModuleCase>& allModules() {
  static const std::vector<ModuleCase> modules = {
      {"veldaTrelMIB", &init_veldaTrelMIB, &unregister_veldaTrelMIB, {baIfTable(), reachabilityTable()}},
      {"veldaTrelHostResourcesMIB",
       &init_veldaTrelHostResourcesMIB,
       &unregister_veldaTrelHostResourcesMIB,
       {hrSystemTable(), processorTable(), storageTable()}}};
  return modules;
}

std::vector<TableOfModule> allTables() {
  std::vector<TableOfModule> tables;
  for (const ModuleCase& module : allModules()) {
    for (const TableCase& table : module.tables) tables.push_back({module.name, table});
  }
  return tables;
}

Zavro::Ptr<const HostResources::HostResources> hostOf(const HostResources::HostResources::System& figures) {
  auto host = Zavro::makePtr<HostResources::HostResources>("1");
  host->systemIs(figures);
  return host;
}

}  // namespace SnmpTest
