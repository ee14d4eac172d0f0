// The served tables for readers without SNMP: `trelctl tables`, and the test of the MIB modules. Made from
// the same TableSpecs as the answers to managers.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "snmp-modules/TableFrame.h"

namespace TrelSnmp {

// A column of the index, or a served one.
struct ServedColumn {
  unsigned number;  // sub-identifier below the table's entry
  const char* name;
  std::string label;  // such as "destId" of "veldaTrelReachabilityDestId"
  u_char type;        // ASN.1
  ValueFormat format;
  ValueName nameOf;  // null when the column is no enumeration
  bool ofIndex;
};

// A value as net-snmp's varbinds hold it; nothing when its conversion failed, or its length is not allowed.
using EncodedValue = std::optional<std::string>;

// Walks the rows in key order. A row that is inserted or deleted meanwhile may or may not be visited; every
// other row is visited once. The MIB state object must outlive the walk.
class RowWalk {
 public:
  virtual ~RowWalk() = default;
  virtual bool atEnd() const = 0;
  // The values of the next row, one for each column. Requires: not atEnd().
  virtual std::vector<EncodedValue> next() = 0;
};

struct ServedTable {
  const char* name;
  TableOid rootOid;
  std::vector<ServedColumn> columns;  // in the order of their OIDs; those of the index come first
  size_t (*size)(const TrelMib& mib);
  uint32_t (*version)(const TrelMib& mib);
  std::unique_ptr<RowWalk> (*walk)(const TrelMib& mib);
  // How the table's module registers it, and the handler that net-snmp calls.
  void (*initialize)(const Zavro::String& context);
  Netsnmp_Node_Handler* handler;
};

// All tables of all modules, in the order of their OIDs.
const std::vector<ServedTable>& servedTables();

// "destId" of "veldaTrelReachabilityDestId" in the "veldaTrelReachabilityTable".
std::string labelOf(std::string_view table, std::string_view column);

template <const auto& kTable>
class TableRowWalk final : public RowWalk {
  using Spec = std::remove_cvref_t<decltype(kTable)>;

 public:
  explicit TableRowWalk(const TrelMib& mib) : at_(kTable.source(mib).begin()) {}
  bool atEnd() const override { return !at_; }
  std::vector<EncodedValue> next() override {
    std::vector<EncodedValue> row;
    for (uint32_t part : partsOf(at_.key())) {
      row.emplace_back(std::string(reinterpret_cast<const char*>(&part), sizeof part));
    }
    for (const auto& column : kTable.columns) row.push_back(encodedValueOf(column));
    at_.next();
    return row;
  }

 private:
  EncodedValue encodedValueOf(const Column<typename Spec::Entry>& column) const {
    unsigned char buffer[kBufferSize];
    int length = column.convert(*at_.entry(), buffer, column.capacity);
    if (length < 0 || (column.lengthFits != nullptr && !column.lengthFits(length))) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(buffer), static_cast<size_t>(length));
  }

  typename Spec::Table::Cursor at_;
};

// Frame: the table's TableFrame.
template <class Frame>
ServedTable servedTable() {
  constexpr const auto& kTable = Frame::kSpec;
  ServedTable table{.name = kTable.name,
                    .rootOid = kTable.rootOid(),
                    .columns = {},
                    .size = [](const TrelMib& mib) { return kTable.source(mib).size(); },
                    .version = [](const TrelMib& mib) { return kTable.source(mib).version(); },
                    .walk = [](const TrelMib& mib) -> std::unique_ptr<RowWalk> {
                      return std::make_unique<TableRowWalk<Frame::kSpec>>(mib);
                    },
                    .initialize = [](const Zavro::String& context) { Frame::initialize(context); },
                    .handler = &Frame::handle};
  for (const IndexColumn& column : kTable.index) {
    std::string label = column.label != nullptr ? column.label : labelOf(kTable.name, column.name);
    auto number = static_cast<unsigned>(table.columns.size() + 1);
    table.columns.push_back({number, column.name, label, column.type, ValueFormat::number, nullptr, true});
  }
  for (const auto& column : kTable.columns) {
    table.columns.push_back({column.number, column.name, labelOf(kTable.name, column.name), column.type,
                             column.format, column.nameOf, false});
  }
  return table;
}

}  // namespace TrelSnmp
