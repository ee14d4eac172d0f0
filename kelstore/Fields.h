// How the fields of a value are decoded from JSON and encoded. For Schema.cpp and Packed.cpp alone.
#pragma once

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelstore/Path.h"
#include "kelstore/Schema.h"
#include "runtime/JsonFields.h"
#include "runtime/Text.h"

namespace Kelstore {

// Up to the last second of the year 65535, with which DateAndTime (RFC 2579) ends.
inline constexpr Runtime::JsonNumber kUtcSeconds{0, 2005949145599};

// Types of fields, in the form that Runtime::JsonFields takes.
struct JsonIntf {
  std::string expected() const { return "an interface name"; }
  std::optional<Lanix::IntfId> decode(const nlohmann::json& json) const {
    const auto* name = json.get_ptr<const std::string*>();
    bool good = name != nullptr && !name->empty() && name->size() <= kMaxNameBytes && Runtime::isPlain(*name);
    return good ? std::optional(Lanix::IntfId(*name)) : std::nullopt;
  }
};

struct JsonOid {
  std::string expected() const { return "a dotted object identifier"; }
  std::optional<Snmp::ObjectIdentifier> decode(const nlohmann::json& json) const {
    const auto* text = json.get_ptr<const std::string*>();
    if (text == nullptr) return std::nullopt;
    Snmp::ObjectIdentifier oid(*text);
    return oid.subIds() ? std::optional(std::move(oid)) : std::nullopt;
  }
};

// By name, or by number. Where others may be newer, any other name or number is a value of its own.
template <Kor::Named Enum>
struct JsonEnum {
  static constexpr size_t kLast = Kor::kNames<Enum>.size() - 1;
  std::string expected() const {
    std::string names;
    for (std::string_view name : Kor::kNames<Enum>) names += fmt::format("\"{}\", ", name);
    return names + "or 0 to " + std::to_string(kLast);
  }
  std::optional<Enum> decode(const nlohmann::json& json) const {
    std::optional<Enum> known;
    if (const auto* name = json.get_ptr<const std::string*>()) {
      known = Kor::named<Enum>(*name);
    } else if (auto number = Runtime::JsonInteger<uint8_t>{0, kLast}.decode(json)) {
      known = static_cast<Enum>(*number);
    }
    if constexpr (Kor::Growing<Enum>) {
      if (!known && mayBeNewer(json)) return Enum::unrecognized;
    }
    return known;
  }
  std::string warning(const nlohmann::json& json, Enum value) const {
    if constexpr (Kor::Growing<Enum>) {
      if (value == Enum::unrecognized && json != Kor::kUnrecognized)
        return fmt::format("{}; it is served as \"{}\"", Runtime::foundExpected(json, expected()),
                           Kor::kUnrecognized);
    }
    return {};
  }

 private:
  static bool mayBeNewer(const nlohmann::json& json) {
    if (const auto* name = json.get_ptr<const std::string*>())
      return Runtime::isPlain(*name) && !name->empty();
    return Runtime::JsonInteger<uint8_t>().decode(json).has_value();
  }
};

template <size_t kMinBytes>
bool isShortText(const std::string& text) {
  return text.size() >= kMinBytes && text.size() <= kMaxTextBytes && Runtime::isPlain(text);
}
inline constexpr Runtime::JsonText kText{"a string of at most 255 bytes without control characters",
                                         isShortText<0>};
inline constexpr Runtime::JsonText kName{"a string of 1 to 255 bytes without control characters",
                                         isShortText<1>};

// The type of a field for which field() is given none.
template <class T>
constexpr auto jsonType() {
  if constexpr (std::is_integral_v<T>) {
    return Runtime::JsonInteger<T>();
  } else if constexpr (std::is_same_v<T, Lanix::IntfId>) {
    return JsonIntf();
  } else if constexpr (std::is_same_v<T, Snmp::ObjectIdentifier>) {
    return JsonOid();
  } else if constexpr (Kor::Named<T>) {
    return JsonEnum<T>();
  } else {
    static_assert(std::is_same_v<T, std::string>);
    return kText;
  }
}

inline nlohmann::json encodedField(const Lanix::IntfId& intf) { return intf.name(); }
inline nlohmann::json encodedField(const Snmp::ObjectIdentifier& oid) { return oid.text(); }
template <Kor::Named Enum>
nlohmann::json encodedField(Enum value) {
  return Kor::nameOf(value);
}
template <class T>
requires std::is_arithmetic_v<T> || std::is_same_v<T, std::string> nlohmann::json encodedField(
    const T& value) {
  return value;
}

template <class T>
struct Plain {
  using Type = T;
  static constexpr bool kOptional = false;
};
template <class T>
struct Plain<std::optional<T>> {
  using Type = T;
  static constexpr bool kOptional = true;
};

// A field for an attribute of `Struct`. It may be missing in JSON if the attribute is a std::optional.
template <class Struct, class T, class Type>
struct Field {
  static constexpr bool kOptional = Plain<T>::kOptional;

  const char* name;
  T Struct::*attribute;
  Type type;
  std::string_view meaning;  // unit, what absence means, ...

  void decode(Runtime::JsonFields& fields, Struct& value) const {
    if constexpr (kOptional) {
      fields.optional(name, type, value.*attribute);
    } else {
      fields.required(name, type, value.*attribute);
    }
  }
  void encode(const Struct& value, nlohmann::json& json) const {
    if constexpr (!kOptional) {
      json[name] = encodedField(value.*attribute);
    } else if (value.*attribute) {
      json[name] = encodedField(*(value.*attribute));
    }
  }
  FieldSpec spec() const { return {name, type.expected(), kOptional, meaning}; }
};

template <class Struct, class T>
constexpr auto field(const char* name, T Struct::*attribute, std::string_view meaning) {
  auto type = jsonType<typename Plain<T>::Type>();
  return Field<Struct, T, decltype(type)>{name, attribute, std::move(type), meaning};
}
template <class Struct, class T, class Type>
constexpr auto field(const char* name, T Struct::*attribute, Type type, std::string_view meaning) {
  return Field<Struct, T, Type>{name, attribute, std::move(type), meaning};
}

// A tuple of the type's fields, to be specialised for each type.
template <class Struct>
inline constexpr auto kFields = nullptr;

template <class Struct>
std::optional<Struct> decodeStruct(const nlohmann::json& json, Runtime::JsonNotes& notes) {
  size_t before = notes.faults.size();
  Struct value;
  Runtime::JsonFields members(json, notes);
  std::apply([&](const auto&... one) { (one.decode(members, value), ...); }, kFields<Struct>);
  members.done();
  return notes.faults.size() == before ? std::optional(std::move(value)) : std::nullopt;
}

template <class Struct>
std::optional<Value> decodeObject(const nlohmann::json& json, Runtime::JsonNotes& notes) {
  std::optional<Struct> value = decodeStruct<Struct>(json, notes);
  return value ? std::optional<Value>(*std::move(value)) : std::nullopt;
}

template <class Struct>
nlohmann::json encodedObject(const Struct& value) {
  auto json = nlohmann::json::object();
  std::apply([&](const auto&... one) { (one.encode(value, json), ...); }, kFields<Struct>);
  return json;
}

template <class Struct>
std::vector<FieldSpec> fieldSpecs() {
  return std::apply([](const auto&... one) { return std::vector<FieldSpec>{one.spec()...}; },
                    kFields<Struct>);
}

}  // namespace Kelstore
