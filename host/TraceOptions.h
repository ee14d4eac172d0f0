// The options of a daemon's command line that say what is traced, and where to.
#pragma once

#include <CLI/CLI.hpp>

#include "host/TraceLog.h"

namespace Host {

// Adds --trace and --log, which set `options`; it outlives the parsing.
void describeTraces(CLI::App& app, TraceOptions& options);

}  // namespace Host
