// Where a served value comes from: the paths of the state, the sources and keys that give them, and the
// member that publishes them; and where it is not served, why not.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "programs/trelctl/TableChanges.h"

namespace TrelCtl {

// What is to be explained.
struct Instance {
  ShownTable table;
  std::string column;  // empty: the row
  std::vector<uint32_t> index;

  std::string indexText() const;
};

// Of an OID, or of NAME.INDEX, where the name is a column's or a table's ("veldaTrelStorageDescr.1.31",
// "reach.1.2"), with or without a module in front of it. Throws std::invalid_argument, with what was found
// and expected.
Instance instanceOf(const std::string& text, const ShownTables& tables);

// The parts of the state that explain() needs the values of: segments with which their paths begin.
std::vector<std::vector<std::string>> neededFor(const Instance& instance);

// values, status: as the daemon answers. The JSON form is described in docs/trelctl-json.md.
Json explain(const Instance& instance, const Json& values, const Json& status);
std::string explanationText(const Json& explanation);

}  // namespace TrelCtl
