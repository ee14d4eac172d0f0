// The options of a daemon's command line that say what is logged, and where.
#pragma once

#include <CLI/CLI.hpp>

#include "Logging.h"

namespace Host {

// Adds --trace and --log, which set `options`; it outlives the parsing.
void describeLogging(CLI::App& app, LogOptions& options);

}  // namespace Host
