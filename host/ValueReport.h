// The answer to the control request "values": what the sources say at some paths, also where another source
// says something else.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/ControlServer.h"
#include "kelstore/LayeredState.h"

namespace Host {

// The values whose paths begin with these segments, as the sources say them now; in the order of sources,
// then paths. `sources`: their names by layer. `layers` outlives the answer.
std::unique_ptr<Reply> valueReport(const Kelstore::LayeredState& layers, std::vector<std::string> sources,
                                   std::vector<std::string> below);

}  // namespace Host
