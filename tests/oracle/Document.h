// A state document, as the oracle's state.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "tests/oracle/Rows.h"

namespace Oracle {

// Requires: every value can be used.
State stateOf(const nlohmann::json& document);

}  // namespace Oracle
