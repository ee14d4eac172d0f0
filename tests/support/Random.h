// What chance decides, from a seed: the same on every machine and in every build, so that a seed means one
// run.
#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <utility>

namespace Support {

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

  uint64_t any() { return mixed(++state_); }
  // 0 to bound - 1. Requires: a bound above 0.
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(any() % bound); }
  // Both ends included. Requires: they are not 0 and the greatest number.
  uint64_t from(uint64_t low, uint64_t high) { return low + any() % (high - low + 1); }
  bool percent(uint32_t chance) { return below(100) < chance; }
  // Requires: there is one.
  template <class Container>
  auto& of(Container& choices) {
    return *std::next(choices.begin(), static_cast<std::ptrdiff_t>(any() % choices.size()));
  }
  template <class Container>
  void shuffle(Container& items) {
    for (size_t left = items.size(); left > 1; --left) std::swap(items[left - 1], items[any() % left]);
  }
  // A number at which things change: small ones, the turns of BER's lengths and of signs, and any.
  uint32_t edge() {
    constexpr std::array<uint32_t, 25> kEdges = {
        0,           1,           2,           3,          40,        100,         127,
        128,         129,         255,         256,        16383,     16384,       65535,
        65536,       2097151,     2097152,     268435455,  268435456, 2147483646u, 2147483647u,
        2147483648u, 2147483649u, 4294967294u, 4294967295u};
    return percent(80) ? of(kEdges) : static_cast<uint32_t>(any());
  }

 private:
  uint64_t state_;
};

}  // namespace Support
