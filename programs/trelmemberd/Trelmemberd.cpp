#include "programs/trelmemberd/Trelmemberd.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <csignal>
#include <utility>

#include "kelstore/etcd/AccessFiles.h"
#include "kelstore/etcd/Address.h"
#include "member/LinuxMachine.h"
#include "member/Trace.h"
#include "programs/trelmemberd/EtcdLeaseStore.h"
#include "runtime/Errors.h"

namespace Member {
namespace {

namespace Etcd = Kelstore::Etcd;

using Lumalog::kErrorLevel;
constexpr int kHealthLevel = 1;
constexpr uint64_t kMsPerSecond = 1000;
// With the ttl, more than all deadlines of what the publisher asks of the store at a time.
constexpr uint64_t kCallsMs = 60'000;

std::vector<std::string> interfacesOf(const Config& config) {
  std::vector<std::string> interfaces;
  for (const NeighbourConfig& neighbour : config.neighbours) interfaces.push_back(neighbour.interface);
  return interfaces;
}

Publisher::Settings settingsOf(const Config& config, bool handover) {
  return {.member = config.member,
          .interfaces = interfacesOf(config),
          .ttlSeconds = config.ttlSeconds,
          .intervalSeconds = config.intervalSeconds,
          .handover = handover,
          .deadbands = config.deadbands};
}

}  // namespace

ParsedConfig usableConfig(const std::string& path) {
  ParsedConfig parsed =
      readConfig(path, [](const std::string& store) { return Etcd::parseStore(store).status(); });
  if (absl::Status status = Etcd::checkAccess(parsed.config.access); !status.ok()) {
    parsed.errors.push_back(fmt::format("{}: access: {}", path, Runtime::textOf(status)));
  }
  return parsed;
}

std::shared_ptr<LeaseStore> storeOf(const Config& config) {
  // A revocation succeeds or fails before the end stops waiting for it, so that a failure is reported.
  EtcdLeaseStore::Patience patience{std::chrono::milliseconds(config.ttlSeconds * 1000 / 3),
                                    std::chrono::milliseconds(Publisher::kEndingMs * 9 / 10),
                                    std::chrono::seconds(config.holdSeconds)};
  return std::make_shared<EtcdLeaseStore>(config.member, *Etcd::parseStore(config.store), config.access,
                                          patience);
}

Trelmemberd::Trelmemberd(std::string path, const Config& config, bool handover, Host::TraceLog& log,
                         const Zavro::Clock& clock, Runtime::Threads& threads)
    : path_(std::move(path)),
      config_(config),
      log_(log),
      terminate_(loop_, SIGTERM, [this] { end(); }),
      interrupt_(loop_, SIGINT, [this] { end(); }),
      systemd_(loop_, [this] { return !calls_.hangs() && !state_.hangs(); }),
      io_(loop_, threads),
      calls_(io_, kCallsMs + config.ttlSeconds * kMsPerSecond),
      publisher_(settingsOf(config, handover), storeOf(config), calls_, clock,
                 {[this] { systemd_.ready(); }, [this](const std::string& line) { systemd_.statusIs(line); },
                  [this](const LeaseStore::Holdings& holdings) { state_.earlierIs(holdings); }}),
      links_(io_, [this] { state_.linksChanged(); }),
      state_(config, std::make_shared<LinuxMachine>(), std::make_shared<PingProbe>(), links_, io_, clock,
             [this] { publish(); }),
      linkWatch_(loop_, links_.fd(), [this] { links_.readable(); }),
      reload_(loop_, io_,
              {[this] { log_.reopen(); }, [path = path_] { return usableConfig(path); },
               [this] { reloadWaits(); }, [this](const ParsedConfig& parsed) { reloaded(parsed); }}) {}

void Trelmemberd::run() {
  state_.start();
  loop_.run();
}

void Trelmemberd::reloadWaits() const {
  traceHandle.trace(kErrorLevel,
                    "{}: not reloaded yet, still waiting for it or a file that it names; the configuration "
                    "stays as it was",
                    path_);
}

void Trelmemberd::reloaded(const ParsedConfig& parsed) {
  std::vector<std::string> errors = parsed.errors;
  if (errors.empty() && parsed.config.member != config_.member) {
    errors.push_back(fmt::format("{}: member: found {}, expected {}, which this process publishes", path_,
                                 parsed.config.member, config_.member));
  }
  for (const std::string& error : errors) traceHandle.trace(kErrorLevel, "{}", error);
  if (!errors.empty()) {
    return traceHandle.trace(kErrorLevel, "{}: not reloaded, the configuration stays as it was", path_);
  }
  for (const std::string& warning : parsed.warnings) traceHandle.trace(kHealthLevel, "{}", warning);
  std::vector<std::string> fixed = fixedDifferences(config_, parsed.config);
  Config config = parsed.config;
  config.store = config_.store;
  config.access = config_.access;
  config.ttlSeconds = config_.ttlSeconds;
  config.holdSeconds = config_.holdSeconds;
  config_ = config;
  publisher_.configured(interfacesOf(config_), config_.intervalSeconds, config_.deadbands);
  OwnState::NeighbourChanges changes = state_.configIs(config_);
  traceHandle.trace(kHealthLevel,
                    "{}: reloaded: of the neighbours {} are as before, {} changed, {} new, {} gone{}", path_,
                    changes.same, changes.changed, changes.added, changes.gone,
                    fixed.empty() ? "" : fmt::format("; it takes a restart for {}", fmt::join(fixed, ", ")));
}

void Trelmemberd::publish() {
  if (state_.known()) publisher_.contentIs(state_.entries());
}

void Trelmemberd::end() {
  publisher_.end([this] { loop_.stop(); });
}

}  // namespace Member
