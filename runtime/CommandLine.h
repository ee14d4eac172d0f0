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

// Makes an option's validator of a check that throws std::invalid_argument. CLI11 reports its text as the
// option's error.
CLI::Validator checking(std::function<void(const std::string&)> check);

// Adds an option that sets `target`, which outlives the parsing; `kind` stands for the value in the help.
// Whoever needs nothing else of CLI11 is compiled in a fraction of the time.
void addTextOption(CLI::App& app, const char* name, std::string& target, const char* description,
                   const char* kind);

// Throws std::invalid_argument unless the text is one of the choices.
void oneOf(const std::string& text, const std::vector<std::string>& choices);

// Writes the line "PROGRAM: WHAT" to standard error, with control characters escaped.
void complain(std::string_view program, std::string_view what);

// Opens /dev/null for standard input, output or error when the process was started without it. Otherwise the
// next file or socket would get its number, and all that is printed. To be called first in main().
void openStandardStreams();

// Parses the arguments, then calls `check`, which may throw CLI::ParseError, too. Returns -1 to go on, or the
// status with which the process is to exit now: 0 when help or the version was printed, to standard output;
// kUnusable when arguments are wrong, after one line to standard error.
int parseCommandLine(CLI::App& app, int argc, const char* const* argv, const std::function<void()>& check);

}  // namespace Runtime
