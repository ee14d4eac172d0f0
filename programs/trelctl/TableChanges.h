// The tables of a daemon as it serves them, and how they differ from those of a moment ago.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "programs/trelctl/ControlClient.h"

namespace TrelCtl {

// The rows of a table in walk order.
struct ShownTable {
  std::string name;
  size_t indexColumns = 1;  // the first columns of a row
  std::vector<Json> rows;
  std::string oid = {};           // without a dot in front
  Json columns = Json::object();  // sub-identifiers by name, in the order of a row
};
using ShownTables = std::vector<ShownTable>;

// Adds one line of the daemon's answer: rows as they are on the wire.
void append(const Json& line, ShownTables& tables);

// The table whose name it is, in full, without "veldaTrel" and "Table", or in part where that is clear; in
// any case of letters. Throws std::invalid_argument, with the names that there are.
std::string tableNamed(const std::string& name, const std::vector<std::string>& names);

struct RowChange {
  std::string table;
  std::string index;  // "1.3"
  Json was;           // null: the row is new
  Json is;            // null: the row is gone
};

// In the order of the tables and their rows; rows that are gone last. Requires: both from the same daemon.
std::vector<RowChange> changesOf(const ShownTables& before, const ShownTables& now);

// "veldaTrelReachabilityTable 1.3: state reachable -> degraded": one line, without its end.
std::string textOf(const RowChange& change);

}  // namespace TrelCtl
