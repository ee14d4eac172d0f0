// Which handles there are, for those who set their levels while the process runs.
#pragma once

#include <map>
#include <string>

namespace Lumalog {

// The names of all handles, and their levels.
std::map<std::string, int> levels();

}  // namespace Lumalog
