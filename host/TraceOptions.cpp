#include "host/TraceOptions.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "runtime/CommandLine.h"

namespace Host {

void describeTraces(CLI::App& app, TraceOptions& options) {
  app.add_option_function<std::vector<std::string>>(
         "--trace",
         [&options](const std::vector<std::string>& texts) {
           for (const std::string& text : texts) {
             for (auto& trace : parseTraces(text)) options.levels.push_back(std::move(trace));
           }
         },
         fmt::format("Trace levels, 0 to {}, by trace handle; the handle * means every other one",
                     Lumalog::kMaxLevel))
      ->type_name("HANDLE/LEVEL[,...]")
      ->allow_extra_args(false)
      ->check(Runtime::checking([](const std::string& text) { parseTraces(text); }));
  app.add_option_function<std::string>(
         "--log", [&options](const std::string& text) { options.to = Runtime::logTo(text); },
         "Where log lines go (default: stderr)")
      ->type_name("stderr|syslog|journal")
      ->check(Runtime::checking([](const std::string& text) { Runtime::logTo(text); }));
}

}  // namespace Host
