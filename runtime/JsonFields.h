// Reads the members of a JSON object into typed values, and notes what is wrong with them: what was found,
// and what was expected. For configurations, state documents and values in a store.
//
// A type describes what a member has to be:
//   std::string expected() const                       "an integer from 1 to 100"
//   std::optional<Value> decode(const json&) const      nothing: the member is not of this type
// and may have a message of its own for that case:
//   std::string fault(const json&) const
// or a warning about a value that can be used, empty if there is none:
//   std::string warning(const json&, const Value&) const
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <limits>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Runtime {

struct JsonNote {
  std::string where;  // within the value, "neighbours[1]/address"; empty: the whole value
  std::string text;   // "found 70000, expected a number from -32768 to 32767"
};

struct JsonNotes {
  std::vector<JsonNote> faults;    // the value cannot be used
  std::vector<JsonNote> warnings;  // members that are ignored, or mean little
  bool strict = false;             // unknown members are faults, with the nearest known one
};

// The place of an object's member, where the object is at `where`.
std::string jsonPlace(std::string_view where, std::string_view name);

// "found <json>, expected <expected>", short and on one line.
std::string foundExpected(const nlohmann::json& json, std::string_view expected);

// Returns whether the value is an integer that fits into `number`, and sets it then.
bool isInteger(const nlohmann::json& json, int64_t& number);
bool isInteger(const nlohmann::json& json, uint64_t& number);

template <class Number>
struct JsonInteger {
  Number min = std::numeric_limits<Number>::min();
  Number max = std::numeric_limits<Number>::max();

  std::string expected() const { return fmt::format("an integer from {} to {}", min, max); }
  std::optional<Number> decode(const nlohmann::json& json) const {
    std::conditional_t<std::is_signed_v<Number>, int64_t, uint64_t> number = 0;
    bool good = isInteger(json, number) && number >= min && number <= max;
    return good ? std::optional(static_cast<Number>(number)) : std::nullopt;
  }
};

// An integer or a floating-point number.
struct JsonNumber {
  double min = 0;
  double max = 0;

  std::string expected() const { return fmt::format("a number from {:.0f} to {:.0f}", min, max); }
  std::optional<double> decode(const nlohmann::json& json) const;
};

struct JsonBoolean {
  std::string expected() const { return "true or false"; }
  std::optional<bool> decode(const nlohmann::json& json) const;
};

// A string for which `good` returns true.
struct JsonText {
  const char* kind;  // "a path"
  bool (*good)(const std::string&);

  std::string expected() const { return kind; }
  std::optional<std::string> decode(const nlohmann::json& json) const;
};

class JsonFields final {
 public:
  // `where` is the path of the object in messages; empty for the whole value. A value that is no object is
  // noted as a fault, and has no members. json and notes outlive this.
  JsonFields(const nlohmann::json& json, JsonNotes& notes, std::string where = {});

  // Returns whether the member was there and good, and sets `target` then; otherwise notes a fault.
  template <class Type, class Target>
  bool required(std::string_view name, const Type& type, Target& target) {
    const nlohmann::json* json = find(name);
    if (json == nullptr && isObject()) fault(name, "found nothing, expected " + type.expected());
    return take(name, type, json, target);
  }
  // The same, but a missing member is no fault.
  template <class Type, class Target>
  bool optional(std::string_view name, const Type& type, Target& target) {
    return take(name, type, find(name), target);
  }
  // Null when the member is missing, or no array, which is a fault.
  const nlohmann::json* array(std::string_view name);
  // Calls read(JsonFields&) with the member, an object, unless it is missing.
  template <class Read>
  void object(std::string_view name, Read read) {
    const nlohmann::json* json = find(name);
    if (json == nullptr) return;
    JsonFields inner(*json, notes_, place(name));
    read(inner);
    inner.done();
  }
  // Calls read(json, notes) with the member, unless it is missing.
  template <class Read>
  void any(std::string_view name, const Read& read) {
    if (const nlohmann::json* json = find(name)) read(*json, notes_);
  }
  // To be called last: members that were not asked for get a warning, or a fault.
  void done();

  bool isObject() const;
  void fault(std::string_view name, std::string text) {
    notes_.faults.push_back({place(name), std::move(text)});
  }
  void warning(std::string_view name, std::string text) {
    notes_.warnings.push_back({place(name), std::move(text)});
  }

 private:
  const nlohmann::json* find(std::string_view name);
  std::string place(std::string_view name) const { return jsonPlace(where_, name); }

  template <class Type, class Target>
  bool take(std::string_view name, const Type& type, const nlohmann::json* json, Target& target) {
    if (json == nullptr) return false;
    if (auto value = type.decode(*json)) {
      if constexpr (requires { type.warning(*json, *value); }) {
        std::string text = type.warning(*json, *value);
        if (!text.empty()) warning(name, std::move(text));
      }
      target = *std::move(value);
      return true;
    }
    if constexpr (requires { type.fault(*json); }) {
      fault(name, type.fault(*json));
    } else {
      fault(name, foundExpected(*json, type.expected()));
    }
    return false;
  }

  const nlohmann::json& json_;
  JsonNotes& notes_;
  const std::string where_;
  std::vector<std::string_view> known_;
};

}  // namespace Runtime
