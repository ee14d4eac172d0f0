#include "member/Config.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include "platform/lanix/IntfId.h"
#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/JsonFields.h"
#include "runtime/JsonText.h"
#include "runtime/Text.h"

namespace Member {
namespace {

using nlohmann::json;
using Runtime::JsonBoolean;
using Runtime::JsonFields;
using Runtime::JsonInteger;
using Runtime::JsonNote;
using Runtime::JsonNotes;
using Runtime::JsonText;

constexpr size_t kMaxFileBytes = 1 << 20;
constexpr size_t kMaxDeviceBytes = 15;  // IFNAMSIZ without the terminating zero

bool isPath(const std::string& text) { return !text.empty() && text.find('\0') == std::string::npos; }

bool isInterface(const std::string& text) {
  return !text.empty() && text.size() <= Kelstore::kMaxNameBytes && Runtime::isPlain(text);
}

bool isDevice(const std::string& text) {
  return !text.empty() && text.size() <= kMaxDeviceBytes && text != "." && text != ".." &&
         std::none_of(text.begin(), text.end(), [](unsigned char c) {
           return c <= ' ' || c == 0x7f || c == '/' || c == ':' || c == '%';
         });
}

// With a scope or without.
bool isAddress(const std::string& text) {
  std::string bare = text.substr(0, text.find('%'));
  in_addr four{};
  if (inet_pton(AF_INET, bare.c_str(), &four) == 1) {
    uint32_t address = ntohl(four.s_addr);
    return address != INADDR_ANY && address != INADDR_BROADCAST && !IN_MULTICAST(address);
  }
  in6_addr six{};
  return inet_pton(AF_INET6, bare.c_str(), &six) == 1 && !IN6_IS_ADDR_UNSPECIFIED(&six) &&
         !IN6_IS_ADDR_MULTICAST(&six) && !IN6_IS_ADDR_V4MAPPED(&six);
}

constexpr JsonText kPath{"a path", isPath};
constexpr JsonText kInterface{"an interface name", isInterface};
constexpr JsonText kDevice{"a device name of 1 to 15 bytes", isDevice};
constexpr JsonText kAddress{"a machine's IPv4 or IPv6 address, such as 10.0.0.2 or fe80::2", isAddress};

JsonInteger<uint32_t> integer(uint32_t min, uint32_t max) { return {min, max}; }

// The name of a store.
struct Store {
  const CheckStore& check;

  std::string expected() const { return "etcd:HOST:PORT[,HOST:PORT...]/PREFIX"; }
  std::optional<std::string> decode(const json& value) const {
    const auto* text = value.get_ptr<const std::string*>();
    return text != nullptr && check(*text).ok() ? std::optional(*text) : std::nullopt;
  }
  std::string fault(const json& value) const {
    const auto* text = value.get_ptr<const std::string*>();
    return text == nullptr ? Runtime::foundExpected(value, expected()) : Runtime::textOf(check(*text));
  }
};

void readProbe(JsonFields& fields, ProbeSettings& probe) {
  fields.optional("intervalMs", integer(100, 60000), probe.intervalMs);
  bool given = fields.optional("timeoutMs", integer(10, 60000), probe.timeoutMs);
  if (!given) probe.timeoutMs = std::min(probe.timeoutMs, probe.intervalMs);
  if (probe.timeoutMs > probe.intervalMs) {
    fields.fault("timeoutMs", fmt::format("found {}, expected at most the interval, {}", probe.timeoutMs,
                                          probe.intervalMs));
  }
  auto& counting = probe.counting;
  fields.optional("lossesDown", integer(1, 100), counting.lossesDown);
  fields.optional("answersUp", integer(1, 100), counting.answersUp);
  fields.optional("window", integer(1, 1000), counting.window);
  given = fields.optional("windowLosses", integer(1, 1000), counting.windowLosses);
  if (!given) counting.windowLosses = std::min(counting.windowLosses, counting.window);
  if (counting.windowLosses > counting.window) {
    fields.fault("windowLosses", fmt::format("found {}, expected at most the window, {}",
                                             counting.windowLosses, counting.window));
  }
}

void readAddress(JsonFields& fields, NeighbourConfig& neighbour) {
  std::string text;
  if (!fields.required("address", kAddress, text)) return;
  size_t percent = text.find('%');
  neighbour.address = text.substr(0, percent);
  if (percent == std::string::npos || neighbour.device.empty()) return;
  if (text.substr(percent + 1) != neighbour.device || text.find(':') == std::string::npos) {
    fields.fault("address", fmt::format("found {}, expected no scope but the device, {}",
                                        Runtime::inQuotes(text), Runtime::inQuotes(neighbour.device)));
  }
}

void readNeighbour(JsonFields& fields, NeighbourConfig& neighbour) {
  fields.required("member", JsonInteger<uint8_t>(), neighbour.member);
  bool named = fields.required("interface", kInterface, neighbour.interface);
  if (named && !Lanix::BackplaneChannelIntfId::isBackplaneChannelIntfId(Lanix::IntfId(neighbour.interface))) {
    fields.warning("interface", fmt::format("{} is no backplane interface (Backplane and a digit): no "
                                            "interface row will show it",
                                            Runtime::inQuotes(neighbour.interface)));
  }
  fields.required("device", kDevice, neighbour.device);
  readAddress(fields, neighbour);
  fields.optional("ifIndex", integer(1, std::numeric_limits<uint32_t>::max()), neighbour.ifIndex);
  fields.optional("enabled", JsonBoolean(), neighbour.probe.counting.enabled);
  fields.object("probe", [&](JsonFields& probe) { readProbe(probe, neighbour.probe); });
  fields.done();
}

std::string placeOf(size_t neighbour) { return fmt::format("neighbours[{}]", neighbour); }

// A member whose value must be unique among the neighbours.
class Once {
 public:
  Once(const char* name, JsonNotes& notes) : name_(name), notes_(notes) {}
  void add(size_t index, const std::string& value) {
    auto [first, added] = firsts_.try_emplace(value, index);
    if (added) return;
    notes_.faults.push_back({fmt::format("{}/{}", placeOf(index), name_),
                             fmt::format("found {}, which {} has too, expected another one",
                                         Runtime::shortened(value), placeOf(first->second))});
  }

 private:
  const char* name_;
  JsonNotes& notes_;
  std::map<std::string, size_t> firsts_;
};

void readNeighbours(const json& array, JsonNotes& notes, Config& config) {
  Once members("member", notes);
  Once interfaces("interface", notes);
  Once devices("device", notes);
  Once ifIndexes("ifIndex", notes);
  for (size_t i = 0; i < array.size(); ++i) {
    NeighbourConfig neighbour;
    size_t faults = notes.faults.size();
    JsonFields fields(array[i], notes, placeOf(i));
    readNeighbour(fields, neighbour);
    if (notes.faults.size() == faults) {
      if (neighbour.member == config.member) {
        fields.fault("member",
                     fmt::format("found {}, which is this member, expected another one", neighbour.member));
      }
      members.add(i, std::to_string(neighbour.member));
      interfaces.add(i, neighbour.interface);
      devices.add(i, neighbour.device);
      if (neighbour.ifIndex != 0) ifIndexes.add(i, std::to_string(neighbour.ifIndex));
    }
    config.neighbours.push_back(std::move(neighbour));
  }
}

constexpr Runtime::JsonNumber kPercent{0, 100};

void readDeadbands(JsonFields& fields, Deadbands& deadbands) {
  fields.optional("load", integer(0, 100), deadbands.load);
  fields.optional("memory", kPercent, deadbands.memory);
  fields.optional("storage", kPercent, deadbands.storage);
  fields.optional("processes", integer(0, 1000000), deadbands.processes);
  fields.optional("users", integer(0, 1000000), deadbands.users);
  fields.optional("longest", integer(1, 3600), deadbands.longest);
}

void readAll(const json& document, const CheckStore& checkStore, JsonNotes& notes, Config& config) {
  JsonFields fields(document, notes);
  if (!fields.isObject()) return;
  fields.required("member", JsonInteger<uint8_t>(), config.member);
  fields.required("store", Store{checkStore}, config.store);
  fields.object("access", [&](JsonFields& access) {
    access.optional("ca", kPath, config.access.caFile);
    access.optional("cert", kPath, config.access.certFile);
    access.optional("key", kPath, config.access.keyFile);
    access.optional("credentials", kPath, config.access.credentialsFile);
  });
  fields.optional("ttl", integer(2, 3600), config.ttlSeconds);
  fields.optional("hold", integer(0, 2592000), config.holdSeconds);
  fields.optional("interval", integer(1, 3600), config.intervalSeconds);
  fields.optional("figuresInterval",
                  integer(MachineFigures::kMinIntervalSeconds, MachineFigures::kMaxIntervalSeconds),
                  config.figuresIntervalSeconds);
  fields.object("deadbands", [&](JsonFields& deadbands) { readDeadbands(deadbands, config.deadbands); });
  fields.optional("indexFile", kPath, config.indexFile);
  if (const json* neighbours = fields.array("neighbours")) readNeighbours(*neighbours, notes, config);
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

std::vector<std::string> linesOf(const std::vector<JsonNote>& notes, const std::string& path) {
  std::vector<std::string> lines;
  for (const auto& [where, text] : notes) {
    lines.push_back(fmt::format("{}: {}{}{}", path, where, where.empty() ? "" : ": ", text));
  }
  return lines;
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
  compare("hold", before.holdSeconds == now.holdSeconds);
  return names;
}

ParsedConfig parseConfig(std::string_view text, const std::string& path, const CheckStore& checkStore) {
  ParsedConfig parsed;
  try {
    JsonNotes notes;
    readAll(parseStrictly(text), checkStore, notes, parsed.config);
    parsed.errors = linesOf(notes.faults, path);
    parsed.warnings = linesOf(notes.warnings, path);
  } catch (const json::parse_error& error) {
    // The parser's position includes the character that it rejects.
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
