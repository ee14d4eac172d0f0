// Reads the members of a JSON object into typed values, and notes what is wrong with them: what was found,
// and what was expected. For the files that people write and the values that programs exchange.
//
// A type says what a member has to be:
//   std::string expected() const                       "an integer from 1 to 100"
//   std::optional<Value> decode(const json&) const      nothing: it is none
// and may say more about a value that is none, instead of what was found and expected:
//   std::string fault(const json&) const
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
  std::vector<JsonNote> warnings;  // what is ignored
};

// "found <json>, expected <expected>", short and on one line.
std::string foundExpected(const nlohmann::json& json, std::string_view expected);

// Whether it is an integer that `number` can hold, which is that one then.
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

// Whole or not.
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

// A string that is what `kind` says.
struct JsonText {
  const char* kind;  // "a path"
  bool (*good)(const std::string&);

  std::string expected() const { return kind; }
  std::optional<std::string> decode(const nlohmann::json& json) const;
};

class JsonFields final {
 public:
  // `where` is empty for a whole value, and goes before the names of members. A value that is no object is a
  // fault, and has no members. All arguments outlive this.
  JsonFields(const nlohmann::json& json, JsonNotes& notes, std::string where = {});

  // Whether the member is there and good, and is in `target` now. It is a fault when it is not there.
  template <class Type, class Target>
  bool required(std::string_view name, const Type& type, Target& target) {
    const nlohmann::json* json = find(name);
    if (json == nullptr && isObject()) fault(name, "found nothing, expected " + type.expected());
    return take(name, type, json, target);
  }
  // The same, but it may be missing; then `target` stays as it is.
  template <class Type, class Target>
  bool optional(std::string_view name, const Type& type, Target& target) {
    return take(name, type, find(name), target);
  }
  // Null when there is none.
  const nlohmann::json* array(std::string_view name);
  // Calls read(JsonFields&) when there is the member, which is to be an object.
  template <class Read>
  void object(std::string_view name, Read read) {
    const nlohmann::json* json = find(name);
    if (json == nullptr) return;
    JsonFields inner(*json, notes_, place(name));
    read(inner);
    inner.done();
  }
  // Call it last: what was not asked for is not known, and ignored with a warning.
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
  std::string place(std::string_view name) const;

  template <class Type, class Target>
  bool take(std::string_view name, const Type& type, const nlohmann::json* json, Target& target) {
    if (json == nullptr) return false;
    if (auto value = type.decode(*json)) {
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
