#include "host/TraceOptions.h"

#include <fmt/format.h>

#include "runtime/Settings.h"

namespace Host {

void addTraces(Runtime::Settings& settings, TraceOptions& options) {
  settings.list({"trace", "HANDLE/LEVEL[,...]",
                 fmt::format("Trace levels, 0 to {}, by trace handle; the handle * means every other one",
                             Lumalog::kMaxLevel),
                 Runtime::Settings::Applies::atReload},
                options.levels, [](const std::string& text) { parseTraces(text); });
  settings.choice({"log", "stderr|syslog|journal", "Where log lines go"}, {"stderr", "syslog", "journal"},
                  "stderr", [&options](const std::string& text) { options.to = Runtime::logTo(text); });
}

}  // namespace Host
