// How much is asked, and what chance it is: from the command line.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Wire {

struct Settings {
  uint64_t seed = 0;
  size_t messages = 50'000;  // random ones
  size_t malformed = 0;      // broken at random, if more than it takes to see memory grow
};
const Settings& settings();

}  // namespace Wire
