// Answers as text for people.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "programs/trelctl/ControlClient.h"

namespace TrelCtl {

// A row of cells each, columns as wide as their widest cell; numbers to the right. The first row is the
// heading.
std::string aligned(const std::vector<std::vector<std::string>>& rows);

// The value as it stands in a cell, with control characters escaped; "-" for null.
std::string cell(const Json& value);

// Objects that all have the same members, as a table with the members' names as heading.
std::string asTable(const Json& objects);

std::string renderStatus(const Json& status);
std::string renderTable(const std::string& name, const Json& rows);

}  // namespace TrelCtl
