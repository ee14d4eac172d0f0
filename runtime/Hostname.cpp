#include "runtime/Hostname.h"

#include <unistd.h>

#include <array>

namespace Runtime {

std::string hostname() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "localhost";
}

}  // namespace Runtime
