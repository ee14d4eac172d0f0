// Checks for our own bugs. They stay on in release builds: a broken invariant ends the process with the
// expression, the function and the values that broke it, because an SNMP agent that serves wrong rows is
// worse than none.
#pragma once

#include <fmt/format.h>

#include <string_view>

namespace Zavro {

// Writes "<file>:<line>: <function>: Assertion `<expression>' failed." (and " [<operands>]" when there are
// any) to standard error and aborts, within a second also when nobody reads standard error. Call it directly
// only where the expression is composed at run time; use the macros otherwise.
[[noreturn]] void assertFailed(std::string_view expression, std::string_view function, const char* file,
                               int line, std::string_view operands = {}) noexcept;

}  // namespace Zavro

#define zavroAssert(expression)                                                            \
  (static_cast<bool>(expression)                                                           \
       ? static_cast<void>(0)                                                              \
       : ::Zavro::assertFailed(#expression, static_cast<const char*>(__PRETTY_FUNCTION__), \
                               static_cast<const char*>(__FILE__), __LINE__))

// The same, with the operands' values: zavroAssertWith(a == b, "a={} b={}", a, b).
#define zavroAssertWith(expression, ...)                                                   \
  (static_cast<bool>(expression)                                                           \
       ? static_cast<void>(0)                                                              \
       : ::Zavro::assertFailed(#expression, static_cast<const char*>(__PRETTY_FUNCTION__), \
                               static_cast<const char*>(__FILE__), __LINE__, ::fmt::format(__VA_ARGS__)))
