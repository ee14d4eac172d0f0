// The settings of traces and the log.
#pragma once

#include "host/TraceLog.h"

namespace Runtime {
class Settings;
}

namespace Host {

// Adds "trace" and "log", which set `options`. It outlives the settings.
void addTraces(Runtime::Settings& settings, TraceOptions& options);

}  // namespace Host
