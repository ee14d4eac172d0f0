#include "programs/trelmemberd/Trelmemberd.h"

#include <fmt/format.h>

#include <csignal>
#include <stdexcept>

#include "kelstore/etcd/AccessFiles.h"
#include "kelstore/etcd/Address.h"
#include "member/LinuxMachine.h"
#include "programs/trelmemberd/EtcdLeaseStore.h"

namespace Member {
namespace {

namespace Etcd = Kelstore::Etcd;

Publisher::Settings settingsOf(const Config& config) {
  Publisher::Settings settings{config.member, {}, config.ttlSeconds, config.intervalSeconds};
  for (const NeighbourConfig& neighbour : config.neighbours) {
    settings.interfaces.push_back(neighbour.interface);
  }
  return settings;
}

}  // namespace

ParsedConfig usableConfig(const std::string& path) {
  ParsedConfig parsed = readConfig(path, [](const std::string& store) { Etcd::parseStore(store); });
  try {
    Etcd::checkAccess(parsed.config.access);
  } catch (const std::invalid_argument& error) {
    parsed.errors.push_back(fmt::format("{}: access: {}", path, error.what()));
  }
  return parsed;
}

std::shared_ptr<LeaseStore> storeOf(const Config& config) {
  // A lease is to be given back, or it is to be known why not, before the end waits for it no longer.
  EtcdLeaseStore::Patience patience{std::chrono::milliseconds(config.ttlSeconds * 1000 / 3),
                                    std::chrono::milliseconds(Publisher::kEndingMs * 9 / 10)};
  return std::make_shared<EtcdLeaseStore>(Etcd::parseStore(config.store), config.access, patience);
}

Trelmemberd::Trelmemberd(const Config& config, const Zavro::Clock& clock, Runtime::Threads& threads)
    : terminate_(loop_, SIGTERM, [this] { end(); }),
      interrupt_(loop_, SIGINT, [this] { end(); }),
      systemd_(loop_),
      io_(loop_, threads),
      publisher_(settingsOf(config), storeOf(config), io_, clock, [this] { systemd_.ready(); }),
      links_([this] { state_.linksChanged(); }),
      state_(config, std::make_shared<LinuxMachine>(), std::make_shared<PingProbe>(), links_, io_, clock,
             [this] { publish(); }),
      linkWatch_(loop_, links_.fd(), [this] { links_.readable(); }) {}

void Trelmemberd::run() {
  state_.start();
  loop_.run();
}

void Trelmemberd::publish() {
  if (state_.known()) publisher_.contentIs(state_.entries());
}

void Trelmemberd::end() {
  publisher_.end([this] { loop_.stop(); });
}

}  // namespace Member
