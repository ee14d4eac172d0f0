// Errors that a caller decides on, as absl::Status, and their texts.
#pragma once

#include <absl/status/status.h>

#include <string>
#include <string_view>

namespace Runtime {

// What errno means; NotFound for ENOENT. On any thread, which strerror() is not for.
absl::Status systemError(int error);

// The same error with the message "<what>: <message>".
absl::Status errorOf(std::string_view what, const absl::Status& error);
// The same of errno.
inline absl::Status errorOf(std::string_view what, int error) { return errorOf(what, systemError(error)); }

inline std::string textOf(const absl::Status& error) { return std::string(error.message()); }

}  // namespace Runtime
