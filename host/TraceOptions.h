// The command line's options for traces and the log.
#pragma once

#include "host/TraceLog.h"

namespace CLI {
class App;
}

namespace Host {

// Adds --trace and --log, which set `options`. It outlives the parsing.
void describeTraces(CLI::App& app, TraceOptions& options);

}  // namespace Host
