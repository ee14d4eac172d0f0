// A failure of the system, in words.
#pragma once

#include <fmt/format.h>

#include <cstring>
#include <string_view>

#include "member/Machine.h"

namespace Member {

// "<what>: <what errno means>". On any thread, which strerror() is not for.
inline Failure failed(std::string_view what, int error) {
  const char* text = strerrordesc_np(error);
  return {text == nullptr ? fmt::format("{}: error {}", what, error) : fmt::format("{}: {}", what, text)};
}

}  // namespace Member
