#include "snmp-modules/ServedTable.h"

#include <cctype>

#include "platform/zavro/Assert.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"

namespace TrelSnmp {

const std::vector<ServedTable>& servedTables() {
  static const auto all = [] {
    std::vector<ServedTable> tables;
    describe_veldaTrelMIB(tables);
    describe_veldaTrelHostResourcesMIB(tables);
    return tables;
  }();
  return all;
}

std::string labelOf(std::string_view table, std::string_view column) {
  constexpr std::string_view kSuffix = "Table";
  zavroAssert(table.ends_with(kSuffix));
  table.remove_suffix(kSuffix.size());
  zavroAssert(column.starts_with(table) && column.size() > table.size());
  std::string label(column.substr(table.size()));
  label.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(label.front())));
  return label;
}

}  // namespace TrelSnmp
