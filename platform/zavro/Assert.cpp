#include "zavro/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Zavro {

void assertFailed(std::string_view expression, std::string_view function, const char* file, int line,
                  std::string_view operands) {
  std::string values = operands.empty() ? std::string() : fmt::format(" [{}]", operands);
  fmt::print(stderr, "{}:{}: {}: Assertion `{}' failed.{}\n", file, line, function, expression, values);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Zavro
