#include "kelstore/Codec.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <type_traits>

#include "runtime/Text.h"

namespace Kelstore {
namespace {

// What SNMP can carry in a DisplayString or SnmpAdminString (RFC 2579, RFC 3411).
constexpr size_t kMaxTextBytes = 255;
constexpr size_t kMaxIntfBytes = 4096;
// The last second of the year 65535, with which DateAndTime (RFC 2579) ends.
constexpr double kMaxUtcSeconds = 2005949145599;
constexpr double kMaxUptimeSeconds = 1e15;

template <class Number>
std::optional<Number> integer(const nlohmann::json& json) {
  if (json.is_number_unsigned()) {
    auto number = json.get<uint64_t>();
    if (std::in_range<Number>(number)) return static_cast<Number>(number);
  } else if (json.is_number_integer()) {
    auto number = json.get<int64_t>();
    if (std::in_range<Number>(number)) return static_cast<Number>(number);
  }
  return std::nullopt;
}

template <class Number>
std::string integerRange() {
  return fmt::format("an integer from {} to {}", std::numeric_limits<Number>::min(),
                     std::numeric_limits<Number>::max());
}

// Reads the members of one object and notes what is wrong with them.
class Fields {
 public:
  Fields(const nlohmann::json& json, Notes& notes) : json_(json), notes_(notes) {
    if (!json_.is_object()) fault("", foundExpected(json_, "an object"));
  }

  template <class Number>
  void integerIs(const char* name, Number& target) {
    if (const nlohmann::json* json = required(name, integerRange<Number>())) {
      take(name, *json, integer<Number>(*json), integerRange<Number>(), target);
    }
  }
  template <class Number>
  void optionalIntegerIs(const char* name, std::optional<Number>& target) {
    if (const nlohmann::json* json = member(name)) {
      take(name, *json, integer<Number>(*json), integerRange<Number>(), target);
    }
  }
  // Seconds from 0 to max, whole or not.
  void secondsIs(const char* name, double max, double& target) {
    std::string expected = fmt::format("a number from 0 to {:.0f}", max);
    const nlohmann::json* json = required(name, expected);
    if (json == nullptr) return;
    std::optional<double> seconds;
    if (json->is_number()) seconds = json->get<double>();
    if (seconds && !(*seconds >= 0 && *seconds <= max)) seconds.reset();
    take(name, *json, seconds, expected, target);
  }
  void intfIs(const char* name, Lanix::IntfId& target) {
    if (const nlohmann::json* json = required(name, "an interface name")) {
      take(name, *json, intf(*json), "an interface name", target);
    }
  }
  void optionalIntfIs(const char* name, std::optional<Lanix::IntfId>& target) {
    if (const nlohmann::json* json = member(name)) {
      take(name, *json, intf(*json), "an interface name", target);
    }
  }
  void textIs(const char* name, std::string& target) {
    std::string expected =
        fmt::format("a string of at most {} bytes without control characters", kMaxTextBytes);
    const nlohmann::json* json = required(name, expected);
    if (json == nullptr) return;
    std::optional<std::string> text;
    if (json->is_string()) text = json->get<std::string>();
    if (text && (text->size() > kMaxTextBytes || !Runtime::isPlain(*text))) text.reset();
    take(name, *json, text, expected, target);
  }
  void oidIs(const char* name, Snmp::ObjectIdentifier& target) {
    constexpr const char* kExpected = "a dotted object identifier";
    const nlohmann::json* json = required(name, kExpected);
    if (json == nullptr) return;
    std::optional<Snmp::ObjectIdentifier> oid;
    if (json->is_string()) oid.emplace(json->get<std::string>());
    if (oid && !oid->subIds()) oid.reset();
    take(name, *json, oid, kExpected, target);
  }
  void stateIs(const char* name, Trel::ReachabilityState::State& target) {
    constexpr const char* kExpected =
        "\"unknown\", \"initializing\", \"reachable\", \"degraded\", \"unreachable\", \"disabled\", or 0 to "
        "5";
    if (const nlohmann::json* json = required(name, kExpected)) {
      take(name, *json, state(*json), kExpected, target);
    }
  }

  // Call it last: what was not asked for is unknown.
  void done() {
    if (!json_.is_object()) return;
    for (const auto& [name, value] : json_.items()) {
      if (!known_.contains(name)) notes_.warnings.push_back({name, "unknown member, ignored"});
    }
  }

 private:
  static std::optional<Lanix::IntfId> intf(const nlohmann::json& json) {
    if (!json.is_string()) return std::nullopt;
    const auto& name = json.get_ref<const std::string&>();
    if (name.empty() || name.size() > kMaxIntfBytes || !Runtime::isPlain(name)) return std::nullopt;
    return Lanix::IntfId(name);
  }
  static std::optional<Trel::ReachabilityState::State> state(const nlohmann::json& json) {
    if (json.is_string()) return Trel::stateNamed(json.get_ref<const std::string&>());
    auto number = integer<uint8_t>(json);
    if (!number || *number >= Trel::ReachabilityState::kStates) return std::nullopt;
    return static_cast<Trel::ReachabilityState::State>(*number);
  }

  const nlohmann::json* member(const char* name) {
    known_.insert(name);
    if (!json_.is_object()) return nullptr;
    auto found = json_.find(name);
    return found == json_.end() ? nullptr : &*found;
  }
  const nlohmann::json* required(const char* name, std::string_view expected) {
    const nlohmann::json* found = member(name);
    if (found == nullptr && json_.is_object()) {
      fault(name, fmt::format("found nothing, expected {}", expected));
    }
    return found;
  }
  template <class From, class To>
  void take(const char* name, const nlohmann::json& json, const std::optional<From>& value,
            std::string_view expected, To& target) {
    if (value) {
      target = *value;
    } else {
      fault(name, foundExpected(json, expected));
    }
  }
  void fault(std::string member, std::string text) {
    notes_.faults.push_back({std::move(member), std::move(text)});
  }

  const nlohmann::json& json_;
  Notes& notes_;
  std::set<std::string, std::less<>> known_;
};

Value decodeSysname(const nlohmann::json& json, Notes& notes) {
  const std::string* name = json.get_ptr<const std::string*>();
  if (name == nullptr || name->empty() || name->size() > kMaxTextBytes || !Runtime::isPlain(*name)) {
    std::string expected = fmt::format("a string of 1 to {} bytes without control characters", kMaxTextBytes);
    notes.faults.push_back({"", foundExpected(json, expected)});
    return std::string();
  }
  return *name;
}

void read(Fields& fields, Interface& value) { fields.integerIs("ifIndex", value.ifIndex); }

void read(Fields& fields, Link& value) { fields.intfIs("intf", value.intf); }

void read(Fields& fields, System& value) {
  fields.secondsIs("uptime", kMaxUptimeSeconds, value.systemUptime);
  fields.secondsIs("currentTimeUtc", kMaxUtcSeconds, value.currentTimeUtc);
  fields.integerIs("users", value.systemNumUsers);
  fields.integerIs("processes", value.systemProcesses);
  fields.integerIs("memorySize", value.memorySize);
}

void read(Fields& fields, Memory& value) {
  fields.optionalIntegerIs("total", value.total);
  fields.optionalIntegerIs("free", value.free);
  fields.optionalIntegerIs("available", value.available);
  fields.optionalIntegerIs("nonBuffer", value.nonBuffer);
  fields.optionalIntegerIs("nonCache", value.nonCache);
}

void read(Fields& fields, Processor& value) { fields.integerIs("load", value.load); }

void read(Fields& fields, Storage& value) {
  fields.integerIs("allocationUnits", value.allocationUnits);
  fields.integerIs("size", value.size);
  fields.integerIs("free", value.free);
}

void read(Fields& fields, Reachability& value) {
  fields.stateIs("state", value.state);
  fields.optionalIntfIs("intf", value.intf);
  fields.integerIs("lastChange", value.lastChangeNs);
}

void read(Fields& fields, Mapping& value) {
  fields.integerIs("index", value.index);
  fields.oidIs("type", value.type);
  fields.textIs("description", value.description);
}

template <class Typed>
Value decodeObject(const nlohmann::json& json, Notes& notes) {
  Typed value;
  Fields fields(json, notes);
  read(fields, value);
  fields.done();
  return value;
}

Value decodeAs(Kind kind, const nlohmann::json& json, Notes& notes) {
  switch (kind) {
    case Kind::sysname:
      return decodeSysname(json, notes);
    case Kind::mountMapping:
    case Kind::memoryMapping:
      return decodeObject<Mapping>(json, notes);
    case Kind::interface:
      return decodeObject<Interface>(json, notes);
    case Kind::link:
      return decodeObject<Link>(json, notes);
    case Kind::system:
      return decodeObject<System>(json, notes);
    case Kind::memory:
      return decodeObject<Memory>(json, notes);
    case Kind::processor:
      return decodeObject<Processor>(json, notes);
    case Kind::storage:
      return decodeObject<Storage>(json, notes);
    case Kind::reachability:
      return decodeObject<Reachability>(json, notes);
    case Kind::processors:
    case Kind::storageAreas:
    case Kind::neighbours:
      break;
  }
  return Present{};
}

nlohmann::json encodedAs(const std::string& sysname) { return sysname; }

nlohmann::json encodedAs(const Present& /*value*/) { return nlohmann::json::object(); }

nlohmann::json encodedAs(const Interface& value) { return {{"ifIndex", value.ifIndex}}; }

nlohmann::json encodedAs(const Link& value) { return {{"intf", value.intf.name()}}; }

nlohmann::json encodedAs(const System& value) {
  return {{"uptime", value.systemUptime},
          {"currentTimeUtc", value.currentTimeUtc},
          {"users", value.systemNumUsers},
          {"processes", value.systemProcesses},
          {"memorySize", value.memorySize}};
}

nlohmann::json encodedAs(const Memory& value) {
  nlohmann::json json = nlohmann::json::object();
  auto add = [&json](const char* name, const std::optional<uint32_t>& amount) {
    if (amount) json[name] = *amount;
  };
  add("total", value.total);
  add("free", value.free);
  add("available", value.available);
  add("nonBuffer", value.nonBuffer);
  add("nonCache", value.nonCache);
  return json;
}

nlohmann::json encodedAs(const Processor& value) { return {{"load", value.load}}; }

nlohmann::json encodedAs(const Storage& value) {
  return {{"allocationUnits", value.allocationUnits}, {"size", value.size}, {"free", value.free}};
}

nlohmann::json encodedAs(const Reachability& value) {
  nlohmann::json json = {{"state", Trel::stateName(value.state)}, {"lastChange", value.lastChangeNs}};
  if (value.intf) json["intf"] = value.intf->name();
  return json;
}

nlohmann::json encodedAs(const Mapping& value) {
  return {{"index", value.index}, {"type", value.type.text()}, {"description", value.description}};
}

std::string described(const nlohmann::json& json) {
  if (json.is_object()) return "an object";
  if (json.is_array()) return "an array";
  if (json.is_string()) return Runtime::inQuotes(json.get_ref<const std::string&>());
  return json.dump();
}

}  // namespace

std::string foundExpected(const nlohmann::json& json, std::string_view expected) {
  return fmt::format("found {}, expected {}", described(json), expected);
}

std::optional<Value> decode(Kind kind, const nlohmann::json& json, Notes& notes) {
  size_t before = notes.faults.size();
  Value value = decodeAs(kind, json, notes);
  if (notes.faults.size() != before) return std::nullopt;
  return value;
}

nlohmann::json encode(const Value& value) {
  return std::visit([](const auto& typed) { return encodedAs(typed); }, value);
}

}  // namespace Kelstore
