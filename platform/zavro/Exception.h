// Exceptions that a caller is promised. Nothing else is thrown, and nothing is thrown through a C callback.
#pragma once

#include <stdexcept>

namespace Zavro {

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A number does not fit the type that it was to become.
class RangeException final : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Zavro
