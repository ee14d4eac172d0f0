// The tables as an answer to the control request "tables": every served value, in walk order.
#pragma once

#include <memory>

#include "host/ControlServer.h"
#include "mib-state/TrelMib.h"

namespace Host {

// Rows that come or go while the answer is under way may be in it or not; no other row is left out or comes
// twice. The object must outlive the answer.
std::unique_ptr<Reply> tableReport(const TrelSnmp::TrelMib& mib);

}  // namespace Host
