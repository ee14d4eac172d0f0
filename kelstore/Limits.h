// How much a source may say, so that no writer can use up the memory of all readers. What is more is refused,
// counted and reported; the rest is used.
#pragma once

#include <absl/status/status.h>

#include <cstddef>
#include <span>
#include <string_view>

#include "kelstore/Schema.h"

namespace Kelstore {

struct Limits {
  size_t documentBytes = 64 << 20;  // of a document
  size_t keyBytes = 1024;           // of a key of a store
  size_t valueBytes = 4096;         // of a value of a store, as JSON
  size_t rows = 4096;               // of a kind that one member has, such as its processors
  size_t clusterRows = 65536;       // of a kind that the whole cluster has, such as interfaces
  size_t values = 262144;           // of one source
  size_t remembered = 1000;         // of what cannot be used: a document with more of it is not taken at all
};

// A limit, as people set it by name.
struct LimitSpec {
  const char* name;
  size_t Limits::*limit;
  const char* meaning;
};
std::span<const LimitSpec> allLimits();

// Sets the limits in "NAME=NUMBER[,NAME=NUMBER...]", each from 1 to 2^30. An error says what was found and
// expected; limits before the wrong one are set then.
absl::Status limitsAre(std::string_view text, Limits& limits);

// How many values of a kind there may be whose paths differ in the last segment only.
inline size_t mostBeside(Kind kind, const Limits& limits) {
  return specOf(kind).owner == Owner::member ? limits.rows : limits.clusterRows;
}

}  // namespace Kelstore
