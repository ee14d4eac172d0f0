// What somebody may have meant by a misspelt name.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Runtime {

// The name that takes the fewest changes of a letter, without regard to case; the first of equals. Empty when
// each takes more than a third of the letters of `misspelt`, or more than one of a short one.
std::string nearest(std::string_view misspelt, const std::vector<std::string>& names);

}  // namespace Runtime
