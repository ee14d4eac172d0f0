// The answer to the control request "links": each link, with what is wrong with it.
#pragma once

#include <memory>

#include "health/Links.h"
#include "host/ControlServer.h"

namespace Host {

// In the order of the members, as the links are when a line is asked for. `links` outlives the answer.
std::unique_ptr<Reply> linkReport(const Health::Links& links);

}  // namespace Host
