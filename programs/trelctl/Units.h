// Rows as people read them: durations, sizes with a unit, per cent, names in place of numbers.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "programs/trelctl/ControlClient.h"

namespace TrelCtl {

// "4 KiB", "7.9 GiB".
std::string sizeText(double bytes);

// The row of a table as it is on the wire, with readable values. What is unknown, or not as expected, stays
// as it is.
Json readable(const Json& row);
// The same of a list of rows.
Json readableRows(const Json& rows);

}  // namespace TrelCtl
