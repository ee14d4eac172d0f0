#include "CommandLine.h"

#include <fmt/format.h>

#include <algorithm>

#include "lumalog/Lumalog.h"

namespace Host {
namespace {

LogTo logNamed(const std::string& name) {
  if (name == "syslog") return LogTo::syslog;
  return name == "journal" ? LogTo::journal : LogTo::standardError;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

}  // namespace

CLI::Validator checking(std::function<void(const std::string&)> check) {
  return CLI::Validator(
      [check = std::move(check)](std::string& text) {
        try {
          check(text);
        } catch (const std::invalid_argument& error) {
          return std::string(error.what());
        }
        return std::string();
      },
      "");
}

void oneOf(const std::string& text, const std::vector<std::string>& choices) {
  if (std::find(choices.begin(), choices.end(), text) != choices.end()) return;
  throw std::invalid_argument(fmt::format("found \"{}\", expected {}", text, fmt::join(choices, ", ")));
}

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

int parseCommandLine(CLI::App& app, int argc, const char* const* argv, const std::function<void()>& check) {
  try {
    app.parse(argc, argv);
    check();
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    fmt::print(stderr, "{}: {}\n", app.get_name(), firstLine(error.what()));
    return kUnusable;
  }
  return -1;
}

}  // namespace Host
