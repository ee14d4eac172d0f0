// How much of what a source says is taken, so that whoever writes there cannot use up the memory of all who
// read. What is more is refused, counted and shown; everything else counts.
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

// A limit as people set it: by name.
struct LimitSpec {
  const char* name;
  size_t Limits::*limit;
  const char* meaning;
};
std::span<const LimitSpec> allLimits();

// Sets the limits that "NAME=NUMBER[,NAME=NUMBER...]" says. An error says what was found and what was
// expected.
absl::Status limitsAre(std::string_view text, Limits& limits);

// How many values of a kind there may be beside each other: those whose paths differ in the last segment.
inline size_t mostBeside(Kind kind, const Limits& limits) {
  return specOf(kind).owner == Owner::member ? limits.rows : limits.clusterRows;
}

}  // namespace Kelstore
