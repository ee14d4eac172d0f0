#include "programs/trelctl/Defaults.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "kelstore/etcd/Address.h"
#include "programs/trelctl/ControlClient.h"
#include "programs/trelctl/Unusable.h"
#include "runtime/Errors.h"
#include "runtime/File.h"

namespace TrelCtl {
namespace {

constexpr const char* kAgentFile = "/trelsnmpd.json";
constexpr const char* kMemberFile = "/trelmemberd.json";
constexpr uint64_t kMaxBytes = 1 << 20;

// As the daemons name them in their configurations.
struct Keys {
  const char* ca;
  const char* cert;
  const char* key;
  const char* credentials;
};
constexpr Keys kOfAgent = {"etcd-ca", "etcd-cert", "etcd-key", "etcd-credentials"};
constexpr Keys kOfMember = {"ca", "cert", "key", "credentials"};  // of "access"

Json configuration(const std::string& path) {
  absl::StatusOr<std::string> text = Runtime::readFile(path, kMaxBytes);
  if (absl::IsNotFound(text.status())) return Json::object();
  if (!text.ok()) {
    throw Unusable(fmt::format("{}: be root, or name the store with --store",
                               Runtime::textOf(Runtime::errorOf(path, text.status()))));
  }
  Json json = Json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object())
    throw Unusable(fmt::format("{}: found no JSON object; --check of its daemon says more", path));
  return json;
}

// Empty unless it is a string.
std::string stringAt(const Json& json, const char* key) {
  auto at = json.find(key);
  return at != json.end() && at->is_string() ? at->get<std::string>() : "";
}

Kelstore::Etcd::Access accessOf(const Json& json, const Keys& keys) {
  return {.caFile = stringAt(json, keys.ca),
          .certFile = stringAt(json, keys.cert),
          .keyFile = stringAt(json, keys.key),
          .credentialsFile = stringAt(json, keys.credentials)};
}

std::string firstStore(const Json& agent) {
  auto states = agent.find("state");
  if (states == agent.end() || !states->is_array()) return "";
  for (const Json& state : *states) {
    if (state.is_string() && Kelstore::Etcd::parseStore(state.get<std::string>()).ok()) return state;
  }
  return "";
}

}  // namespace

std::string controlIn(const std::string& directory) {
  try {
    return stringAt(configuration(directory + kAgentFile), "control");
  } catch (const Unusable&) {
    return "";
  }
}

std::optional<DefaultStore> agentStore(const std::string& directory) {
  Json agent = configuration(directory + kAgentFile);
  std::string store = firstStore(agent);
  if (store.empty()) return std::nullopt;
  return DefaultStore{store, accessOf(agent, kOfAgent)};
}

std::optional<DefaultStore> memberStore(const std::string& directory) {
  Json member = configuration(directory + kMemberFile);
  std::string store = stringAt(member, "store");
  if (store.empty()) return std::nullopt;
  return DefaultStore{store, accessOf(member.value("access", Json::object()), kOfMember)};
}

std::optional<uint8_t> memberIn(const std::string& directory) {
  Json member = configuration(directory + kMemberFile);
  auto at = member.find("member");
  if (at == member.end() || !at->is_number_unsigned() || at->get<uint64_t>() > UINT8_MAX) return std::nullopt;
  return at->get<uint8_t>();
}

std::optional<DefaultStore> configuredStore(const std::string& directory) {
  std::optional<DefaultStore> agent = agentStore(directory);
  return agent ? agent : memberStore(directory);
}

DefaultStore storeIn(const std::string& directory) {
  if (std::optional<DefaultStore> found = configuredStore(directory)) return *std::move(found);
  throw Unusable(fmt::format("--store is required, as no {0}{1} or {0}{2} names a store", directory,
                             kAgentFile, kMemberFile));
}

}  // namespace TrelCtl
