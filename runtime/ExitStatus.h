// What the programs' exit statuses say.
#pragma once

namespace Runtime {

// Arguments or a configuration that cannot be used.
inline constexpr int kUnusable = 2;

}  // namespace Runtime
