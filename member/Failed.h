// A failure of the system, in words.
#pragma once

#include <string>
#include <string_view>

#include "member/Machine.h"
#include "runtime/Status.h"

namespace Member {

// "<what>: <what is wrong>".
inline Failure failed(std::string_view what, const absl::Status& error) {
  return {Runtime::textOf(Runtime::errorOf(what, error))};
}

// The same of errno.
inline Failure failed(std::string_view what, int error) { return failed(what, Runtime::systemError(error)); }

}  // namespace Member
