#include "runtime/CommandLine.h"

#include <fmt/format.h>

#include <algorithm>

namespace Runtime {
namespace {

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

}  // namespace Runtime
