#include "LoggingOptions.h"

#include <fmt/format.h>

#include "CommandLine.h"
#include "lumalog/Lumalog.h"

namespace Host {
namespace {

LogTo logNamed(const std::string& name) {
  if (name == "syslog") return LogTo::syslog;
  return name == "journal" ? LogTo::journal : LogTo::standardError;
}

}  // namespace

void describeLogging(CLI::App& app, LogOptions& options) {
  app.add_option_function<std::vector<std::string>>(
         "--trace",
         [&options](const std::vector<std::string>& texts) {
           for (const std::string& text : texts) {
             for (auto& trace : parseTraces(text)) options.traces.push_back(std::move(trace));
           }
         },
         fmt::format("Trace levels, 0 to {}, by trace handle; the handle * means every other one",
                     Lumalog::kMaxLevel))
      ->type_name("HANDLE/LEVEL[,...]")
      ->allow_extra_args(false)
      ->check(checking([](const std::string& text) { parseTraces(text); }));
  app.add_option_function<std::string>(
         "--log", [&options](const std::string& text) { options.to = logNamed(text); },
         "Where log lines go (default: stderr)")
      ->type_name("stderr|syslog|journal")
      ->check(checking([](const std::string& text) {
        oneOf(text, {"stderr", "syslog", "journal"});
      }));
}

}  // namespace Host
