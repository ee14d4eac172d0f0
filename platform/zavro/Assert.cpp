#include "platform/zavro/Assert.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Zavro {

void assertFailed(std::string_view expression, std::string_view function, const char* file, int line,
                  std::string_view operands) noexcept {
  std::string values = operands.empty() ? std::string() : fmt::format(" [{}]", operands);
  std::string text =
      fmt::format("{}:{}: {}: Assertion `{}' failed.{}\n", file, line, function, expression, values);
  // Writing to a full pipe that nobody reads must not keep the process alive.
  std::signal(SIGALRM, [](int) { std::abort(); });
  alarm(1);
  // Not fmt::print(), which throws when standard error is closed or full.
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Zavro
