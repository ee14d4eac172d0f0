#pragma once

#include <string>

namespace Runtime {

// This machine's name; "localhost" when it has none.
std::string hostname();

}  // namespace Runtime
