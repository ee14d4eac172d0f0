// Errors on which a caller decides, as absl::Status, and their texts.
#pragma once

#include <absl/status/status.h>

#include <string>
#include <string_view>

namespace Runtime {

// The error of an errno; NotFound for ENOENT. For any thread, unlike strerror().
absl::Status systemError(int error);

// The error with "<what>: " before its message.
absl::Status errorOf(std::string_view what, const absl::Status& error);
inline absl::Status errorOf(std::string_view what, int error) { return errorOf(what, systemError(error)); }

inline std::string textOf(const absl::Status& error) { return std::string(error.message()); }

}  // namespace Runtime
