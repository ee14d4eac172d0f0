// Random numbers that are the same on every machine and in every build, so that a seed means one run.
#pragma once

#include <cstdint>

namespace Simulation {

// Scrambles a number; neighbouring numbers have nothing in common afterwards.
constexpr uint64_t mixed(uint64_t number) {
  number += 0x9e3779b97f4a7c15;
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
  number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
  return number ^ (number >> 31);
}

class Random {
 public:
  explicit Random(uint64_t seed) : state_(mixed(seed)) {}

  uint64_t next() { return mixed(++state_); }
  // 0 to bound - 1. Requires: a bound above 0.
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(next() % bound); }
  bool chance(uint32_t percent) { return below(100) < percent; }

 private:
  uint64_t state_;
};

}  // namespace Simulation
