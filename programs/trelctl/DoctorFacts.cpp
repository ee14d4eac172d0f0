#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/timex.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>

#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/Driver.h"
#include "kelstore/etcd/KeySpace.h"
#include "programs/trelctl/Defaults.h"
#include "programs/trelctl/Doctor.h"
#include "programs/trelctl/Unusable.h"
#include "programs/trelsnmpd/MasterAddress.h"
#include "runtime/Directories.h"
#include "runtime/Errors.h"

namespace TrelCtl {
namespace {

namespace Etcd = Kelstore::Etcd;
namespace fs = std::filesystem;

constexpr const char* kMibs = "VELDA-TREL-MIB";

void askDaemon(Facts& facts) {
  try {
    ControlClient client(facts.socket);
    client.send(Control::kOpStatus);
    facts.status = client.receive();
    // "Uid:\t993\t993\t..." and "CapEff:\t0000000000000400".
    std::ifstream process(fmt::format("/proc/{}/status", client.peer()));
    for (std::string line; std::getline(process, line);) {
      if (line.starts_with("Uid:\t")) {
        std::from_chars(line.data() + 5, line.data() + line.size(), facts.user.emplace());
      } else if (line.starts_with("CapEff:\t")) {
        std::from_chars(line.data() + 8, line.data() + line.size(), facts.capabilities.emplace(), 16);
      }
    }
  } catch (const Unreachable& error) {
    facts.daemonError = error.what();
  }
}

void lookAtDirectories(Facts& facts) {
  std::vector<std::string> paths = {fs::path(facts.socket).parent_path()};
  try {
    paths.push_back(Runtime::stateDirectory("trelsnmpd"));
  } catch (const std::invalid_argument&) {
    // The environment names none.
  }
  for (const std::string& path : paths) {
    struct stat found {};
    if (stat(path.c_str(), &found) == 0)
      facts.directories.push_back({path, found.st_uid, found.st_mode & 07777});
  }
}

void askStore(const DefaultStore& configured, Facts& facts) {
  facts.store = configured.store;
  facts.tls = configured.access.tls();
  facts.credentials = !configured.access.credentialsFile.empty();
  absl::StatusOr<Etcd::Address> address = Etcd::parseStore(configured.store);
  if (!address.ok()) {
    facts.storeError = Runtime::textOf(address.status());
    return;
  }
  absl::StatusOr<Etcd::Listing> listing =
      Etcd::driver().calls(*address, configured.access)->range(Etcd::KeySpace(address->prefix).all());
  if (listing.ok()) {
    facts.keys = listing->records.size();
  } else {
    facts.storeError = Runtime::textOf(listing.status());
  }
}

// Nothing is written, as no key has that revision; but the server looks first whether it could be.
std::optional<bool> mayWrite(const DefaultStore& configured, const std::vector<std::string>& path) {
  absl::StatusOr<Etcd::Address> address = Etcd::parseStore(configured.store);
  if (!address.ok()) return std::nullopt;
  std::string key = Etcd::KeySpace(address->prefix).key(path);
  absl::Status status = Etcd::driver()
                            .calls(*address, configured.access)
                            ->txn({{Etcd::Op::What::put, key, ""}}, {{key, INT64_MAX}})
                            .status();
  if (absl::IsAborted(status)) return true;
  if (absl::IsPermissionDenied(status)) return false;
  return std::nullopt;
}

void askServers(const DefaultStore& configured, Facts& facts) {
  absl::StatusOr<Etcd::Address> address = Etcd::parseStore(configured.store);
  if (!address.ok()) return;
  for (const std::string& endpoint : address->endpoints) {
    Etcd::Address one = *address;
    one.endpoints = {endpoint};
    absl::StatusOr<std::string> version = Etcd::driver().calls(one, configured.access)->version();
    facts.servers.push_back({endpoint, version.value_or(""), Runtime::textOf(version.status())});
  }
}

void askForRights(const std::string& config, Facts& facts) {
  std::optional<uint8_t> member = memberIn(config);
  std::string other = std::to_string((member.value_or(0) + 1) % 256);
  if (std::optional<DefaultStore> agent = agentStore(config))
    facts.agentMayWrite = mayWrite(*agent, {"members", other, "system"});
  if (std::optional<DefaultStore> publisher = memberStore(config); publisher && member)
    facts.memberMayWriteOthers = mayWrite(*publisher, {"members", other, "system"});
}

// Which store is to be asked; the running daemon may have been started with another than the configurations
// name.
std::optional<DefaultStore> storeToAsk(const std::string& config, Facts& facts) {
  std::optional<DefaultStore> configured;
  try {
    configured = configuredStore(config);
  } catch (const Unusable& error) {
    facts.configurationError = error.what();
  }
  if (!facts.status || facts.status->at("stores").empty()) return configured;
  const Json& stores = facts.status->at("stores");
  auto isConfigured = [&configured](const Json& one) {
    return configured && one.at("source") == configured->store;
  };
  if (std::any_of(stores.begin(), stores.end(), isConfigured)) return configured;
  facts.accessUnknown = true;
  return DefaultStore{stores.front().at("source").get<std::string>(), {}};
}

void lookForStore(const std::string& config, Facts& facts) {
  try {
    std::optional<DefaultStore> store = storeToAsk(config, facts);
    if (!store) return;
    askStore(*store, facts);
    if (!facts.storeError.empty()) return;
    askServers(*store, facts);
    if (!facts.accessUnknown) askForRights(config, facts);
  } catch (const Unusable& error) {
    facts.configurationError = error.what();
  } catch (const std::runtime_error& error) {
    facts.storeError = error.what();  // what speaks to etcd is not installed
  }
}

// Beside this program, or where packages put them.
std::string mibsHere() {
  std::error_code ignored;
  fs::path program = fs::read_symlink("/proc/self/exe", ignored);
  for (const fs::path& directory :
       {program.parent_path().parent_path() / "share/trel/mibs", fs::path("/usr/share/trel/mibs")}) {
    if (fs::exists(directory / kMibs, ignored)) return directory;
  }
  return "";
}

}  // namespace

Facts factsOf(const std::string& socket, const std::string& config) {
  Facts facts;
  facts.socket = socket;
  askDaemon(facts);
  lookAtDirectories(facts);
  lookForStore(config, facts);
  facts.master = Trelsnmpd::findMaster().why;
  facts.views = viewsIn(Trelsnmpd::readSnmpdConf());
  timex time{};
  facts.clockIsSynchronised = adjtimex(&time) != TIME_ERROR;
  facts.mibs = mibsHere();
  return facts;
}

}  // namespace TrelCtl
