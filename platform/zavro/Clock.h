// Clocks. The library reads time through this interface only, so that tests can control it.
#pragma once

#include <cstdint>

namespace Zavro {

class Clock {
 public:
  virtual ~Clock() = default;
  // Nanoseconds on a clock that never steps, and goes on while the machine sleeps; only differences are
  // meaningful.
  virtual uint64_t monotonicNs() const = 0;
  // Nanoseconds since 1970-01-01 00:00:00 UTC.
  virtual uint64_t utcNs() const = 0;
};

class SystemClock final : public Clock {
 public:
  uint64_t monotonicNs() const override;
  uint64_t utcNs() const override;
};

// For tests: moves only when told.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(uint64_t utcNs = 0) : utcNs_(utcNs) {}
  uint64_t monotonicNs() const override { return monotonicNs_; }
  uint64_t utcNs() const override { return utcNs_; }
  // Sets the time of day; the monotonic clock does not change.
  void utcNsIs(uint64_t ns) { utcNs_ = ns; }
  void advanceNs(uint64_t ns) {
    monotonicNs_ += ns;
    utcNs_ += ns;
  }

 private:
  uint64_t monotonicNs_ = 0;
  uint64_t utcNs_;
};

}  // namespace Zavro
