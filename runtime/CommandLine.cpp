#include "runtime/CommandLine.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "runtime/Text.h"

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

void addTextOption(CLI::App& app, const char* name, std::string& target, const char* description,
                   const char* kind) {
  app.add_option(name, target, description)->type_name(kind);
}

void oneOf(const std::string& text, const std::vector<std::string>& choices) {
  if (std::find(choices.begin(), choices.end(), text) != choices.end()) return;
  throw std::invalid_argument(fmt::format("found \"{}\", expected {}", text, fmt::join(choices, ", ")));
}

void complain(std::string_view program, std::string_view what) {
  // Not fmt::print(), which throws when nothing can be written.
  std::string line = fmt::format("{}: {}\n", program, escaped(what));
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void openStandardStreams() {
  int null = open("/dev/null", O_RDWR);
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // An inherited descriptor has no FD_CLOEXEC. One that has it belongs to a library: gRPC opens one before
    // main() and never closes it.
    int flags = fcntl(fd, F_GETFD);
    if (flags < 0 || (flags & FD_CLOEXEC) != 0) dup2(null, fd);
  }
  if (null > STDERR_FILENO) close(null);
}

int parseCommandLine(CLI::App& app, int argc, const char* const* argv, const std::function<void()>& check) {
  try {
    app.parse(argc, argv);
    check();
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    complain(app.get_name(), firstLine(error.what()));
    return kUnusable;
  }
  return -1;
}

}  // namespace Runtime
