// The modules and their tables as the agent and its managers are to see them, for tests of what holds for
// all.
#pragma once

#include <array>
#include <iosfwd>
#include <string>
#include <vector>

#include "mib-state/TrelMib.h"
#include "platform/snmp/KelstoreUtil.h"
#include "snmp-modules/ServedTable.h"

namespace SnmpTest {

// One of the index's columns.
struct IndexCase {
  const char* column;
  const char* field;    // as the iteration's traces name it
  const char* keyPart;  // as the key's text names it
  u_char type;
};

struct ColumnCase {
  unsigned number;
  const char* name;
  const char* value;  // of every row that add() makes, as InProcessAgent writes it
  const char* operation;
  const char* field;
  int capacity = 1024;               // of the buffer that the conversion gets
  const char* setRefusal = nullptr;  // trace of a SET; null for that of an invalid column
};

// The parts of a row's key; tables with one index use the first alone.
using RowParts = std::array<uint32_t, 2>;

struct TableCase {
  const char* name;
  const char* at;   // where it stands, for InProcessAgent and DirectWalk
  const char* arc;  // below the enterprise number
  int modes;
  std::vector<IndexCase> index;
  std::vector<ColumnCase> columns;
  void (*add)(TrelSnmp::TrelMib& mib, const RowParts& row);
  void (*removeAll)(TrelSnmp::TrelMib& mib);

  // How its module registers and serves it.
  const TrelSnmp::ServedTable& served() const;
  // "7" or "7.8"
  std::string indexText(const RowParts& row) const;
  // "7" or "(firstId=7, secondId=8)"
  std::string keyText(const RowParts& row) const;
  // An instance, for InProcessAgent.
  std::string instance(unsigned column, const RowParts& row) const;
  // What a walk of the table finds when these are its rows, in key order.
  std::vector<std::string> tree(const std::vector<RowParts>& rows) const;
};
std::ostream& operator<<(std::ostream& out, const TableCase& table);

struct ModuleCase {
  const char* name;
  void (*init)(Zavro::String context);
  void (*unregister)(Zavro::String context);
  std::vector<TableCase> tables;  // in the order of their registration
};
std::ostream& operator<<(std::ostream& out, const ModuleCase& module);

// In the order of their registration.
const std::vector<ModuleCase>& allModules();

// A table with its module's name.
struct TableOfModule {
  const char* module;
  TableCase table;
};
std::ostream& operator<<(std::ostream& out, const TableOfModule& table);
std::vector<TableOfModule> allTables();

// A member's entity with these figures.
Zavro::Ptr<const HostResources::HostResources> hostOf(const HostResources::HostResources::System& figures);

}  // namespace SnmpTest
