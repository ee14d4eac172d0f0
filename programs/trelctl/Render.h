// Shows the daemon's answers as text.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "programs/trelctl/ControlClient.h"

namespace TrelCtl {

// One line per row; columns as wide as their widest cell, numbers aligned to the right. The first row is the
// heading.
std::string aligned(const std::vector<std::vector<std::string>>& rows);

// The text of a value in a cell, with control characters escaped; "-" for null.
std::string cell(const Json& value);

// A list of objects with the same members, as a table with the members' names as heading.
std::string asTable(const Json& objects);

std::string renderStatus(const Json& status);
std::string renderTable(const std::string& name, const Json& rows);

}  // namespace TrelCtl
