// Exceptions that functions document. Other errors are returned, or are assertions (Assert.h).
#pragma once

#include <stdexcept>

namespace Zavro {

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A number is out of the range of the type that it is converted to.
class RangeException final : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Zavro
