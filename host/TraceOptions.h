// The options of a daemon's command line that say what is traced, and where to.
#pragma once

#include "host/TraceLog.h"

namespace CLI {
class App;
}

namespace Host {

// Adds --trace and --log, which set `options`; it outlives the parsing.
void describeTraces(CLI::App& app, TraceOptions& options);

}  // namespace Host
