// Exit statuses that all programs have.
#pragma once

namespace Runtime {

// The arguments or the configuration cannot be used.
inline constexpr int kUnusable = 2;

}  // namespace Runtime
