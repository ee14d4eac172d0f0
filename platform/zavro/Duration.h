// A length of time in seconds. A point in time is the length since 1970-01-01 00:00:00 UTC.
#pragma once

#include <compare>

namespace Zavro {

class Duration {
 public:
  constexpr Duration() = default;
  constexpr explicit Duration(double seconds) : seconds_(seconds) {}
  constexpr double seconds() const { return seconds_; }
  constexpr auto operator<=>(const Duration&) const = default;

 private:
  double seconds_ = 0;
};

}  // namespace Zavro
