#include "member/Config.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include "kelstore/Codec.h"
#include "platform/lanix/IntfId.h"
#include "runtime/File.h"
#include "runtime/JsonText.h"
#include "runtime/Status.h"
#include "runtime/Text.h"

namespace Member {
namespace {

using nlohmann::json;

constexpr size_t kMaxFileBytes = 1 << 20;
constexpr size_t kMaxInterfaceBytes = 4096;
constexpr size_t kMaxDeviceBytes = 15;  // IFNAMSIZ, without the end of the string

// What a value has to be, besides a string; throws std::invalid_argument when it is not.
using CheckText = std::function<void(const std::string&)>;

void expect(bool good, const std::string& found, std::string_view expected) {
  if (!good) {
    throw std::invalid_argument(fmt::format("found {}, expected {}", Runtime::inQuotes(found), expected));
  }
}

void checkPath(const std::string& text) {
  expect(!text.empty() && text.find('\0') == std::string::npos, text, "a path");
}

void checkInterface(const std::string& text) {
  bool good = !text.empty() && text.size() <= kMaxInterfaceBytes && Runtime::isPlain(text);
  expect(good, text, "an interface name");
}

void checkDevice(const std::string& text) {
  bool good = !text.empty() && text.size() <= kMaxDeviceBytes && text != "." && text != ".." &&
              std::none_of(text.begin(), text.end(), [](unsigned char c) {
                return c <= ' ' || c == 0x7f || c == '/' || c == ':' || c == '%';
              });
  expect(good, text, "a device name of 1 to 15 bytes");
}

bool isAddress(const std::string& text) {
  in6_addr parsed{};
  return inet_pton(AF_INET, text.c_str(), &parsed) == 1 || inet_pton(AF_INET6, text.c_str(), &parsed) == 1;
}

// Reads the members of one object, and notes what is wrong with them.
class Fields {
 public:
  // `where` is empty for the whole document, "neighbours[1]" for a part of it.
  Fields(const json& object, std::string where, const std::string& path, ParsedConfig& parsed)
      : object_(object), where_(std::move(where)), path_(path), parsed_(parsed) {
    if (!object_.is_object()) {
      std::string text = Kelstore::foundExpected(object_, "an object");
      parsed_.errors.push_back(where_.empty() ? fmt::format("{}: {}", path_, text)
                                              : fmt::format("{}: {}: {}", path_, where_, text));
    }
  }

  template <class Number>
  bool number(const char* name, uint32_t min, uint32_t max, Number& target, bool required = false) {
    std::string expected = fmt::format("an integer from {} to {}", min, max);
    const json* value = member(name, required, expected);
    if (value == nullptr) return false;
    bool whole = value->is_number_unsigned();
    auto number = whole ? value->get<uint64_t>() : 0;
    if (!whole || number < min || number > max) {
      error(name, Kelstore::foundExpected(*value, expected));
      return false;
    }
    target = static_cast<Number>(number);
    return true;
  }
  void boolean(const char* name, bool& target) {
    const json* value = member(name, false, "");
    if (value == nullptr) return;
    if (!value->is_boolean()) return error(name, Kelstore::foundExpected(*value, "true or false"));
    target = value->get<bool>();
  }
  bool text(const char* name, std::string_view expected, const CheckText& check, std::string& target,
            bool required = false) {
    const json* value = member(name, required, expected);
    if (value == nullptr) return false;
    if (!value->is_string()) {
      error(name, Kelstore::foundExpected(*value, expected));
      return false;
    }
    try {
      check(value->get_ref<const std::string&>());
    } catch (const std::invalid_argument& bad) {
      error(name, bad.what());
      return false;
    }
    target = value->get<std::string>();
    return true;
  }
  // Null when there is none.
  const json* array(const char* name) {
    const json* value = member(name, false, "");
    if (value == nullptr || value->is_array()) return value;
    error(name, Kelstore::foundExpected(*value, "an array"));
    return nullptr;
  }
  // Calls read(Fields&) when there is such an object.
  template <class Read>
  void object(const char* name, Read read) {
    const json* value = member(name, false, "");
    if (value == nullptr) return;
    Fields inner(*value, place(name), path_, parsed_);
    read(inner);
    inner.done();
  }

  // Call it last: what was not asked for is not known.
  void done() {
    if (!object_.is_object()) return;
    for (const auto& [name, value] : object_.items()) {
      if (!known_.contains(name)) parsed_.warnings.push_back(line(shown(name), "unknown member, ignored"));
    }
  }
  void error(std::string_view name, std::string_view text) { parsed_.errors.push_back(line(name, text)); }
  void warning(std::string_view name, std::string_view text) { parsed_.warnings.push_back(line(name, text)); }
  std::string place(std::string_view name) const {
    return where_.empty() ? std::string(name) : fmt::format("{}/{}", where_, name);
  }

 private:
  static std::string shown(const std::string& name) {
    return name.empty() ? Runtime::inQuotes(name) : Runtime::shortened(name);
  }
  const json* member(const char* name, bool required, std::string_view expected) {
    known_.insert(name);
    if (!object_.is_object()) return nullptr;
    auto found = object_.find(name);
    if (found != object_.end()) return &*found;
    if (required) error(name, fmt::format("found nothing, expected {}", expected));
    return nullptr;
  }
  std::string line(std::string_view name, std::string_view text) const {
    return fmt::format("{}: {}: {}", path_, place(name), text);
  }

  const json& object_;
  const std::string where_;
  const std::string& path_;
  ParsedConfig& parsed_;
  std::set<std::string, std::less<>> known_;
};

void readProbe(Fields& fields, ProbeSettings& probe) {
  fields.number("intervalMs", 100, 60000, probe.intervalMs);
  bool given = fields.number("timeoutMs", 10, 60000, probe.timeoutMs);
  if (!given) probe.timeoutMs = std::min(probe.timeoutMs, probe.intervalMs);
  if (probe.timeoutMs > probe.intervalMs) {
    fields.error("timeoutMs", fmt::format("found {}, expected at most the interval, {}", probe.timeoutMs,
                                          probe.intervalMs));
  }
  auto& counting = probe.counting;
  fields.number("lossesDown", 1, 100, counting.lossesDown);
  fields.number("answersUp", 1, 100, counting.answersUp);
  fields.number("window", 1, 1000, counting.window);
  given = fields.number("windowLosses", 1, 1000, counting.windowLosses);
  if (!given) counting.windowLosses = std::min(counting.windowLosses, counting.window);
  if (counting.windowLosses > counting.window) {
    fields.error("windowLosses", fmt::format("found {}, expected at most the window, {}",
                                             counting.windowLosses, counting.window));
  }
}

void readAddress(Fields& fields, NeighbourConfig& neighbour) {
  constexpr const char* kExpected = "an IPv4 or IPv6 address, such as 10.0.0.2 or fe80::2";
  std::string text;
  bool given = fields.text(
      "address", kExpected,
      [](const std::string& value) { expect(isAddress(value.substr(0, value.find('%'))), value, kExpected); },
      text, /*required=*/true);
  if (!given) return;
  size_t percent = text.find('%');
  neighbour.address = text.substr(0, percent);
  if (percent == std::string::npos || neighbour.device.empty()) return;
  if (text.substr(percent + 1) != neighbour.device || text.find(':') == std::string::npos) {
    fields.error("address", fmt::format("found {}, expected no scope but the device, {}",
                                        Runtime::inQuotes(text), Runtime::inQuotes(neighbour.device)));
  }
}

void readNeighbour(Fields& fields, NeighbourConfig& neighbour) {
  fields.number("member", 0, 255, neighbour.member, /*required=*/true);
  bool named = fields.text("interface", "an interface name", checkInterface, neighbour.interface,
                           /*required=*/true);
  if (named && !Lanix::BackplaneChannelIntfId::isBackplaneChannelIntfId(Lanix::IntfId(neighbour.interface))) {
    fields.warning("interface", fmt::format("{} is no backplane interface (Backplane and a digit): no "
                                            "interface row will show it",
                                            Runtime::inQuotes(neighbour.interface)));
  }
  fields.text("device", "a device name of 1 to 15 bytes", checkDevice, neighbour.device, /*required=*/true);
  readAddress(fields, neighbour);
  fields.number("ifIndex", 1, std::numeric_limits<uint32_t>::max(), neighbour.ifIndex, /*required=*/false);
  fields.boolean("enabled", neighbour.probe.counting.enabled);
  fields.object("probe", [&](Fields& probe) { readProbe(probe, neighbour.probe); });
}

// What may occur once among the neighbours.
class Once {
 public:
  Once(const char* name, const std::string& path, ParsedConfig& parsed)
      : name_(name), path_(path), parsed_(parsed) {}
  void add(size_t index, const std::string& value) {
    auto [first, added] = firsts_.try_emplace(value, index);
    if (added) return;
    parsed_.errors.push_back(
        fmt::format("{}: neighbours[{}]/{}: found {}, which neighbours[{}] has too, "
                    "expected another one",
                    path_, index, name_, Runtime::shortened(value), first->second));
  }

 private:
  const char* name_;
  const std::string& path_;
  ParsedConfig& parsed_;
  std::map<std::string, size_t> firsts_;
};

void readNeighbours(const json& array, const std::string& path, ParsedConfig& parsed) {
  Once members("member", path, parsed);
  Once interfaces("interface", path, parsed);
  Once devices("device", path, parsed);
  Once ifIndexes("ifIndex", path, parsed);
  for (size_t i = 0; i < array.size(); ++i) {
    NeighbourConfig neighbour;
    size_t errors = parsed.errors.size();
    Fields fields(array[i], fmt::format("neighbours[{}]", i), path, parsed);
    readNeighbour(fields, neighbour);
    fields.done();
    if (parsed.errors.size() == errors) {
      if (neighbour.member == parsed.config.member) {
        fields.error("member",
                     fmt::format("found {}, which is this member, expected another one", neighbour.member));
      }
      members.add(i, std::to_string(neighbour.member));
      interfaces.add(i, neighbour.interface);
      devices.add(i, neighbour.device);
      if (neighbour.ifIndex != 0) ifIndexes.add(i, std::to_string(neighbour.ifIndex));
    }
    parsed.config.neighbours.push_back(std::move(neighbour));
  }
}

void readAll(const json& document, const std::string& path, const CheckStore& checkStore,
             ParsedConfig& parsed) {
  Config& config = parsed.config;
  Fields fields(document, "", path, parsed);
  if (!document.is_object()) return;
  fields.number("member", 0, 255, config.member, /*required=*/true);
  fields.text("store", "etcd:HOST:PORT[,HOST:PORT...]/PREFIX", checkStore, config.store, /*required=*/true);
  fields.object("access", [&](Fields& access) {
    access.text("ca", "a path", checkPath, config.access.caFile);
    access.text("cert", "a path", checkPath, config.access.certFile);
    access.text("key", "a path", checkPath, config.access.keyFile);
    access.text("credentials", "a path", checkPath, config.access.credentialsFile);
  });
  fields.number("ttl", 2, 3600, config.ttlSeconds);
  fields.number("interval", 1, 3600, config.intervalSeconds);
  fields.number("figuresInterval", MachineFigures::kMinIntervalSeconds, MachineFigures::kMaxIntervalSeconds,
                config.figuresIntervalSeconds);
  fields.text("indexFile", "a path", checkPath, config.indexFile);
  if (const json* neighbours = fields.array("neighbours")) readNeighbours(*neighbours, path, parsed);
  fields.done();
}

// The document; throws json::parse_error, or std::invalid_argument for a member that occurs twice.
json parseStrictly(std::string_view text) {
  std::vector<std::set<std::string>> names;  // of the objects that are open
  return json::parse(text.begin(), text.end(), [&names](int, json::parse_event_t event, json& value) {
    if (event == json::parse_event_t::object_start) names.emplace_back();
    if (event == json::parse_event_t::object_end) names.pop_back();
    if (event == json::parse_event_t::key && !names.back().insert(value.get<std::string>()).second) {
      throw std::invalid_argument(fmt::format("found member {} twice in one object, expected it once",
                                              Runtime::inQuotes(value.get<std::string>())));
    }
    return true;
  });
}

}  // namespace

std::vector<std::string> fixedDifferences(const Config& before, const Config& now) {
  std::vector<std::string> names;
  auto compare = [&names](const char* name, bool same) {
    if (!same) names.emplace_back(name);
  };
  compare("member", before.member == now.member);
  compare("store", before.store == now.store);
  compare("access", before.access == now.access);
  compare("ttl", before.ttlSeconds == now.ttlSeconds);
  return names;
}

ParsedConfig parseConfig(std::string_view text, const std::string& path, const CheckStore& checkStore) {
  ParsedConfig parsed;
  try {
    readAll(parseStrictly(text), path, checkStore, parsed);
  } catch (const json::parse_error& error) {
    // The parser counts the character that it stumbled over.
    size_t offset = error.byte > 0 ? error.byte - 1 : 0;
    bool blank = std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c); });
    parsed.errors.push_back(
        fmt::format("{}:{}: {}", path, Runtime::lineAndColumn(text, offset),
                    blank ? "found nothing, expected a JSON object" : Runtime::syntaxMessage(error.what())));
  } catch (const std::exception& error) {
    parsed.errors.push_back(fmt::format("{}: {}", path, error.what()));
  }
  return parsed;
}

ParsedConfig readConfig(const std::string& path, const CheckStore& checkStore) {
  absl::StatusOr<std::string> text = Runtime::readFile(path, kMaxFileBytes);
  if (text.ok()) return parseConfig(*text, path, checkStore);
  ParsedConfig unreadable;
  unreadable.errors.push_back(Runtime::textOf(text.status()));
  return unreadable;
}

}  // namespace Member
