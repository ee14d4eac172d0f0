// A MIB module: a group of tables that are registered with the SNMP agent, and unregistered, together, for
// one SNMP context. It has the code of the tables that does not depend on a row's type. Each module's file
// has one static object. All calls are on the agent's thread.
#pragma once

#include <map>
#include <span>
#include <vector>

#include "platform/lumalog/Lumalog.h"
#include "platform/zavro/String.h"
#include "snmp-modules/TableSpec.h"

namespace TrelSnmp {

// What a table is registered with. Its pointers refer to static storage.
struct TableRegistration {
  const char* name;
  TableOid rootOid;
  int modes;
  std::span<const IndexColumn> index;
  std::span<unsigned> columns;  // ascending
  Netsnmp_Node_Handler* handler;
  Netsnmp_Node_Handler* direct;     // in front of the chain, unless a toggle turns it off
  netsnmp_iterator_info callbacks;  // only the callbacks are set
};

class TableModule {
 public:
  explicit TableModule(Zavro::String name) : trace_(std::move(name)) {}

  const Zavro::String& name() const { return trace_.name(); }
  const Lumalog::Handle& trace() const { return trace_; }

  // Registers a table for the default context and binds it to the MIB state object; for any other context it
  // only traces. The toggle TrelSnmpDirect of TrelCore.json decides whether it is answered directly. Ends the
  // process when there is no TrelMib at TrelMib::kPath, or net-snmp refuses the table.
  void initializeTable(const TableRegistration& table, const Zavro::String& context);
  // Unregisters all tables of a context, which may have none, and frees their registration data.
  void unregister(const Zavro::String& context);

  // Converts the components of a request's index, in order, into parts. Stops at the first component that is
  // out of range. Returns how many were converted; one that is missing or of another type does not count.
  size_t readHint(const char* table, std::span<const IndexColumn> index,
                  const netsnmp_variable_list* varbinds, std::span<uint32_t> parts) const;
  // Converts the components of a row's index to sub-identifiers. False when that fails.
  static bool subIdsOf(std::span<const uint32_t> parts, std::span<oid> subIds);
  // Writes the components of a row's index into the varbinds of an index.
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
