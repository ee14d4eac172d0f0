// What the command lines of all programs have in common.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/ExitStatus.h"

namespace CLI {
class App;
class Validator;
}  // namespace CLI

namespace Runtime {

// A check of an option that throws std::invalid_argument; CLI11 reports what it says as the option's error.
CLI::Validator checking(std::function<void(const std::string&)> check);

// Throws std::invalid_argument unless the text is one of the choices.
void oneOf(const std::string& text, const std::vector<std::string>& choices);

// Says what is wrong, on standard error, in one line: "PROGRAM: WHAT". Control characters in it are escaped.
void complain(std::string_view program, std::string_view what);

// Where a process was started without standard input, output or error, gives it /dev/null: the next file or
// socket would take its place, and what is printed with it. To be called first of all.
void openStandardStreams();

// Takes the arguments, then calls `check`, which may throw CLI::ParseError as well. Returns -1 to go on, or
// the exit status of a process that is to end at once: what is to be said has been written then, help and
// version to standard output (0), what is wrong to standard error, in one line (kUnusable).
int parseCommandLine(CLI::App& app, int argc, const char* const* argv, const std::function<void()>& check);

}  // namespace Runtime
