#include "runtime/Errors.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace Runtime {

absl::Status systemError(int error) {
  const char* text = strerrordesc_np(error);
  absl::StatusCode code = error == ENOENT ? absl::StatusCode::kNotFound : absl::StatusCode::kUnknown;
  return {code, text == nullptr ? fmt::format("error {}", error) : text};
}

absl::Status errorOf(std::string_view what, const absl::Status& error) {
  return {error.code(), fmt::format("{}: {}", what, textOf(error))};
}

}  // namespace Runtime
