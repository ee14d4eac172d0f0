// The answer to the control request "tables": every served value, in walk order.
#pragma once

#include <memory>

#include "host/ControlServer.h"
#include "mib-state/TrelMib.h"

namespace Host {

// Rows that come or go while the answer is being sent may be missing; all others are in it once. `mib`
// outlives the answer.
std::unique_ptr<Reply> tableReport(const TrelSnmp::TrelMib& mib);

}  // namespace Host
