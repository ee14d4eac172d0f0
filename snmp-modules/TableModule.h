// A MIB module: a group of tables that are registered with the SNMP agent, and withdrawn, together, for one
// SNMP context. One object of static storage in each module's file; it does what its tables share and does
// not depend on a row's type. All calls come on the agent's thread.
#pragma once

#include <array>
#include <map>
#include <span>
#include <vector>

#include "platform/lumalog/Lumalog.h"
#include "platform/zavro/String.h"
#include "snmp-modules/TableSpec.h"

namespace TrelSnmp {

// What net-snmp is told of a table. What it points at lives as long as the program.
struct TableRegistration {
  const char* name;
  TableOid rootOid;
  int modes;
  std::span<const IndexColumn> index;
  std::span<unsigned> columns;  // ascending
  Netsnmp_Node_Handler* handler;
  netsnmp_iterator_info callbacks;  // only the callbacks are set
};

class TableModule {
 public:
  explicit TableModule(Zavro::String name) : trace_(std::move(name)) {}

  const Zavro::String& name() const { return trace_.name(); }
  const Lumalog::Handle& trace() const { return trace_; }

  // Registers a table for the default context and binds it to the MIB state object; for any other context it
  // only says that it does not. Ends the process when the object is not where it should be or net-snmp
  // refuses the table.
  void initializeTable(const TableRegistration& table, const Zavro::String& context);
  // Withdraws all tables of a context, of which there may be none, and frees what was registered for them.
  void unregister(const Zavro::String& context);

  // Converts the components of a request's index, in order, into parts, and returns how many were found
  // before the first that was out of range. A component that is missing or of another type is not counted.
  size_t readHint(const char* table, std::span<const IndexColumn> index,
                  const netsnmp_variable_list* varbinds, std::span<uint32_t> parts) const;
  // Writes the components of a row's index into varbinds.
  void writeIndex(const char* table, std::span<const IndexColumn> index, std::span<const uint32_t> parts,
                  netsnmp_variable_list* varbinds) const;

 private:
  netsnmp_table_registration_info* tableInfo(const TableRegistration& table, const Zavro::String& context,
                                             netsnmp_column_info* columns) const;

  Lumalog::Handle trace_;
  std::map<Zavro::String, std::vector<netsnmp_handler_registration*>> registrations_;
  std::map<Zavro::String, std::vector<netsnmp_column_info*>> columnInfos_;
};

}  // namespace TrelSnmp
