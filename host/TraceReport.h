// The answer to the control request "trace": the handles of traces and their levels, of which one may be set.
#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>

#include "host/ControlServer.h"

namespace Host {

// Sets the level of the handle that the request names, if it does; until the levels are set anew, as at a
// reload.
std::unique_ptr<Reply> traceReport(const nlohmann::json& request);

}  // namespace Host
