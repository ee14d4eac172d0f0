#include "runtime/JsonFields.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "runtime/Nearest.h"
#include "runtime/Text.h"

namespace Runtime {
namespace {

std::string described(const nlohmann::json& json) {
  if (json.is_object()) return "an object";
  if (json.is_array()) return "an array";
  if (json.is_string()) return inQuotes(json.get_ref<const std::string&>());
  return json.dump();
}

template <class Number>
bool takenInteger(const nlohmann::json& json, Number& number) {
  auto take = [&number](auto value) {
    if (!std::in_range<Number>(value)) return false;
    number = static_cast<Number>(value);
    return true;
  };
  if (json.is_number_unsigned()) return take(json.get<uint64_t>());
  return json.is_number_integer() && take(json.get<int64_t>());
}

std::string unknown(const std::string& name, const std::vector<std::string_view>& known) {
  std::string meant = nearest(name, {known.begin(), known.end()});
  if (!meant.empty()) return fmt::format("found an unknown key, expected {}: correct it", inQuotes(meant));
  return fmt::format("found an unknown key, expected one of {}: remove it", fmt::join(known, ", "));
}

}  // namespace

std::string foundExpected(const nlohmann::json& json, std::string_view expected) {
  return fmt::format("found {}, expected {}", described(json), expected);
}

bool isInteger(const nlohmann::json& json, int64_t& number) { return takenInteger(json, number); }
bool isInteger(const nlohmann::json& json, uint64_t& number) { return takenInteger(json, number); }

std::optional<double> JsonNumber::decode(const nlohmann::json& json) const {
  if (!json.is_number()) return std::nullopt;
  auto number = json.get<double>();
  if (!(number >= min && number <= max)) return std::nullopt;
  return number;
}

std::optional<bool> JsonBoolean::decode(const nlohmann::json& json) const {
  if (!json.is_boolean()) return std::nullopt;
  return json.get<bool>();
}

std::optional<std::string> JsonText::decode(const nlohmann::json& json) const {
  const auto* text = json.get_ptr<const std::string*>();
  if (text == nullptr || !good(*text)) return std::nullopt;
  return *text;
}

JsonFields::JsonFields(const nlohmann::json& json, JsonNotes& notes, std::string where)
    : json_(json), notes_(notes), where_(std::move(where)) {
  if (!isObject()) notes_.faults.push_back({where_, foundExpected(json_, "an object")});
}

bool JsonFields::isObject() const { return json_.is_object(); }

const nlohmann::json* JsonFields::find(std::string_view name) {
  known_.push_back(name);
  if (!isObject()) return nullptr;
  auto found = json_.find(name);
  return found == json_.end() ? nullptr : &*found;
}

const nlohmann::json* JsonFields::array(std::string_view name) {
  const nlohmann::json* json = find(name);
  if (json == nullptr || json->is_array()) return json;
  fault(name, foundExpected(*json, "an array"));
  return nullptr;
}

void JsonFields::done() {
  if (!isObject()) return;
  for (const auto& [name, value] : json_.items()) {
    if (std::find(known_.begin(), known_.end(), name) != known_.end()) continue;
    if (notes_.strict) {
      fault(name, unknown(name, known_));
    } else {
      warning(name, "unknown member, ignored");
    }
  }
}

std::string jsonPlace(std::string_view where, std::string_view name) {
  std::string shown = name.empty() ? inQuotes(name) : shortened(name);
  return where.empty() ? shown : fmt::format("{}/{}", where, shown);
}

}  // namespace Runtime
