#include "tests/etcd-faults/Following.h"

#include <fmt/format.h>

#include <chrono>

#include "tests/etcd-faults/StoreState.h"
#include "tests/support/Network.h"
#include "tests/wire/Model.h"

namespace Faults {
namespace {

Wire::AgentClock startsNow() {
  auto now = std::chrono::system_clock::now().time_since_epoch();
  return Wire::AgentClock(std::chrono::duration<double>(now).count());
}

}  // namespace

Following::Following(const std::string& endpoints, const Support::Argv& options)
    : clock_(startsNow()), exchange_(port()) {
  daemon_.with({"--conf", daemon_.dir().write("snmp.conf", Wire::modelledAccess())})
      .with({"--state", fmt::format("etcd:{}/{}", endpoints, kPrefix)})
      .with(options)
      .start();
}

uint16_t Following::port() const { return Support::portOf(daemon_.address()); }

std::string Following::otherStore() const {
  nlohmann::json text = store().at("otherStore");
  return text.is_string() ? text : "";
}

std::string Following::endpoint() const {
  nlohmann::json status = store();
  return status.at("state") == "watching" && status.at("endpoint").is_string() ? status.at("endpoint") : "";
}

std::map<std::string, int64_t> Following::countersIn(const nlohmann::json& status) {
  std::map<std::string, int64_t> all;
  for (const auto& [name, value] : status.at("storeCounters").at(0).items()) {
    if (value.is_number()) all[name] = value;
  }
  return all;
}

testing::AssertionResult Following::becomes(const nlohmann::json& document, int64_t revision,
                                            Support::Millis within) {
  Wire::Tree wanted = expected(document);
  bool became = Support::waitUntil(
      [&] { return store().at("mirroredRevision").get<int64_t>() >= revision && served() == wanted; },
      within);
  if (became) return testing::AssertionSuccess();
  return testing::AssertionFailure() << Wire::difference(wanted, served()) << "expected revision " << revision
                                     << "\n"
                                     << daemon_.status().dump(1) << daemon_.process().err();
}

std::set<Wire::Oid> namesOf(const Wire::Tree& tree) {
  std::set<Wire::Oid> names;
  for (const auto& [name, value] : tree) names.insert(name);
  return names;
}

}  // namespace Faults
