// The switch of the breaks that tests/mutation/run writes into a copy of the sources; every source of the
// copy includes it first. MUTATION holds the number of the one break that is on; without it, all are off.
#pragma once

#include <cstdlib>

namespace Mutation {

inline const int chosen = [] {
  const char* number = std::getenv("MUTATION");
  return number != nullptr ? std::atoi(number) : 0;
}();

inline bool on(int number) { return number == chosen; }

}  // namespace Mutation
