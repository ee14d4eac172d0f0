// What chance decides, from a seed: the same on every machine.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace Wire {

class Random {
 public:
  explicit Random(uint64_t seed) : engine_(seed) {}

  // From 0 to below the bound. Requires: the bound is not 0.
  uint64_t below(uint64_t bound) { return engine_() % bound; }
  uint64_t from(uint64_t low, uint64_t high) { return low + below(high - low + 1); }
  bool percent(unsigned chance) { return below(100) < chance; }
  template <class T>
  const T& of(const std::vector<T>& choices) {
    return choices[below(choices.size())];
  }
  // A number at which things change: small ones, the turns of BER's lengths and of signs, and any.
  uint32_t edge() {
    static const std::vector<uint32_t> kEdges = {
        0,           1,           2,           3,          40,        100,         127,
        128,         129,         255,         256,        16383,     16384,       65535,
        65536,       2097151,     2097152,     268435455,  268435456, 2147483646u, 2147483647u,
        2147483648u, 2147483649u, 4294967294u, 4294967295u};
    return percent(80) ? of(kEdges) : static_cast<uint32_t>(engine_());
  }
  uint64_t any() { return engine_(); }

 private:
  std::mt19937_64 engine_;
};

}  // namespace Wire
