// From the JSON value at a path to the typed value, and back. The same for every source.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "kelstore/Path.h"
#include "kelstore/Value.h"

namespace Kelstore {

// What is wrong with, or odd about, one value.
struct Note {
  std::string member;  // the member of the object that it concerns; empty: the whole value
  std::string text;    // "found 70000, expected a number from -32768 to 32767"
};

struct Notes {
  std::vector<Note> faults;    // the value cannot be used
  std::vector<Note> warnings;  // members that the state model does not have, ignored
};

// The value, or nothing when there is a fault. Requires: kind is not that of a container.
std::optional<Value> decode(Kind kind, const nlohmann::json& json, Notes& notes);

// What decode() makes this value of; a container's is an empty object. Texts go as they are: they are to be
// UTF-8, as all that was decoded is.
nlohmann::json encode(const Value& value);

// "found <json>, expected <expected>", short and on one line.
std::string foundExpected(const nlohmann::json& json, std::string_view expected);

}  // namespace Kelstore
