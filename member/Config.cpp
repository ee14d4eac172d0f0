#include "member/Config.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string_view>

#include "platform/lanix/IntfId.h"
#include "runtime/Errors.h"
#include "runtime/JsonFields.h"
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

constexpr size_t kMaxDeviceBytes = 15;  // IFNAMSIZ without the terminating zero

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

constexpr JsonText kInterface{"an interface name", isInterface};
constexpr JsonText kDevice{"a device name of 1 to 15 bytes", isDevice};
constexpr JsonText kAddress{"a machine's IPv4 or IPv6 address, such as 10.0.0.2 or fe80::2", isAddress};

JsonInteger<uint32_t> integer(uint32_t min, uint32_t max) { return {min, max}; }

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
  fields.optional("ifIndex", integer(1, Config::kMaxIfIndex), neighbour.ifIndex);
  fields.optional("enabled", JsonBoolean(), neighbour.probe.counting.enabled);
  fields.object("probe", [&](JsonFields& probe) { readProbe(probe, neighbour.probe); });
  fields.done();
}

// The kernels of several members give the same numbers, so that the device's own is the last resort.
void findIfIndex(JsonFields& fields, const Config& config, NeighbourConfig& neighbour) {
  if (neighbour.ifIndex != 0 || config.ifIndexBase == 0) return;
  uint32_t index = indexOfPort(config.member, config.ifIndexBase, neighbour.interface);
  auto other = std::find_if(config.neighbours.begin(), config.neighbours.end(),
                            [index](const NeighbourConfig& one) { return one.ifIndex == index; });
  std::string why;
  if (index == 0) {
    why = fmt::format("ends with no port from 1 to {}", config.ifIndexBase - 1);
  } else if (other != config.neighbours.end()) {
    why = fmt::format("would be {}, which {} has", index, Runtime::inQuotes(other->interface));
  } else {
    neighbour.ifIndex = index;
    return;
  }
  fields.warning("interface",
                 fmt::format("{} {}: the device's own ifIndex is published, which other members may have "
                             "too; set ifIndex",
                             Runtime::inQuotes(neighbour.interface), why));
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
      findIfIndex(fields, config, neighbour);
      if (neighbour.ifIndex != 0) ifIndexes.add(i, std::to_string(neighbour.ifIndex));
    }
    config.neighbours.push_back(std::move(neighbour));
  }
}

using Applies = Runtime::Settings::Applies;
using Needed = Runtime::Settings::Needed;

void addDeadbands(Runtime::Settings& settings, Deadbands& deadbands) {
  auto about = [](const char* key, const char* kind, const char* meaning) {
    return Runtime::Settings::About{key, kind, meaning, Applies::atReload};
  };
  settings.number(
      about("deadbands/load", "N", "Points by which a processor's load must change to be written"), 0U, 100U,
      deadbands.load);
  settings.percent(about("deadbands/memory", "PERCENT", "Of the memory by which its use must change"),
                   deadbands.memory);
  settings.percent(about("deadbands/storage", "PERCENT", "Of a file system by which its use must change"),
                   deadbands.storage);
  settings.number(about("deadbands/processes", "N", "Processes by which their number must change"), 0U,
                  1'000'000U, deadbands.processes);
  settings.number(about("deadbands/users", "N", "Users by which their number must change"), 0U, 1'000'000U,
                  deadbands.users);
  settings.number(about("deadbands/longest", "SECONDS", "After so long also smaller changes are written"), 1U,
                  3600U, deadbands.longest);
}

}  // namespace

uint32_t indexOfPort(uint8_t member, uint32_t base, const std::string& interface) {
  std::string_view digits(interface);
  digits.remove_prefix(digits.find_last_not_of("0123456789") + 1);
  uint32_t port = 0;
  bool fits = std::from_chars(digits.begin(), digits.end(), port).ec == std::errc();
  return fits && port != 0 && port < base ? member * base + port : 0;
}

void addConfig(Runtime::Settings& settings, Config& config, const CheckStore& checkStore) {
  settings.number({"member", "N", "Member id of this machine", Applies::atStart, Needed::yes}, uint8_t{0},
                  uint8_t{255}, config.member);
  settings.text(
      {"store", "etcd:HOST:PORT[,HOST:PORT...]/PREFIX", "The cluster's store", Applies::atStart, Needed::yes},
      config.store, [checkStore](const std::string& text) {
        if (absl::Status status = checkStore(text); !status.ok()) {
          throw std::invalid_argument(Runtime::textOf(status));
        }
      });
  Kelstore::Etcd::addAccess(settings, kAccessKeys, config.access);
  settings.number({"ttl", "SECONDS", "After so long without a renewal the store deletes what is published"},
                  2U, 3600U, config.ttlSeconds);
  settings.number({"hold", "SECONDS", "For so long a store with another history counts as unavailable"}, 0U,
                  2'592'000U, config.holdSeconds);
  settings.number({"interval", "SECONDS", "Seconds between two transactions, at least", Applies::atReload},
                  1U, 3600U, config.intervalSeconds);
  settings.number(
      {"figuresInterval", "SECONDS", "Seconds between two looks at this machine", Applies::atReload},
      MachineFigures::kMinIntervalSeconds, MachineFigures::kMaxIntervalSeconds,
      config.figuresIntervalSeconds);
  addDeadbands(settings, config.deadbands);
  settings.text({"indexFile", "PATH",
                 "Where --mappings keeps the indexes that it suggests (default: nowhere)", Applies::atReload},
                config.indexFile, Runtime::isPath);
  settings.number({"ifIndexBase", "N",
                   "Interfaces without an ifIndex are published with member x N + port; 0: with their "
                   "devices' own",
                   Applies::atReload},
                  0U, Config::kMaxIfIndexBase, config.ifIndexBase);
  settings.onlyInFile({"neighbours", "", "The links to neighbours, an array of objects", Applies::atReload},
                      [&config](const json& array, JsonNotes& notes) {
                        if (array.is_array()) return readNeighbours(array, notes, config);
                        notes.faults.push_back({"neighbours", Runtime::foundExpected(array, "an array")});
                      });
}

}  // namespace Member
