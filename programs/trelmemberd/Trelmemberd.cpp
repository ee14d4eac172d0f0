#include "programs/trelmemberd/Trelmemberd.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <csignal>
#include <utility>

#include "kelstore/etcd/Address.h"
#include "member/LinuxMachine.h"
#include "member/Trace.h"
#include "programs/trelmemberd/EtcdLeaseStore.h"

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

Publisher::Settings publisherOf(const Config& config, bool handover) {
  return {.member = config.member,
          .interfaces = interfacesOf(config),
          .ttlSeconds = config.ttlSeconds,
          .intervalSeconds = config.intervalSeconds,
          .handover = handover,
          .deadbands = config.deadbands};
}

}  // namespace

std::shared_ptr<LeaseStore> storeOf(const Config& config) {
  // A revocation succeeds or fails before the end stops waiting for it, so that a failure is reported.
  EtcdLeaseStore::Patience patience{std::chrono::milliseconds(config.ttlSeconds * 1000 / 3),
                                    std::chrono::milliseconds(Publisher::kEndingMs * 9 / 10),
                                    std::chrono::seconds(config.holdSeconds)};
  return std::make_shared<EtcdLeaseStore>(config.member, *Etcd::parseStore(config.store), config.access,
                                          patience);
}

Trelmemberd::Trelmemberd(Runtime::Arguments arguments, const Options& options, Host::TraceLog& log,
                         const Zavro::Clock& clock, Runtime::Threads& threads)
    : arguments_(std::move(arguments)),
      atStart_(options.atStart),
      config_(options.config),
      log_(log),
      terminate_(loop_, SIGTERM, [this] { end(); }),
      interrupt_(loop_, SIGINT, [this] { end(); }),
      systemd_(loop_, [this] { return !calls_.hangs() && !state_.hangs(); }),
      io_(loop_, threads),
      calls_(io_, kCallsMs + config_.ttlSeconds * kMsPerSecond),
      publisher_(publisherOf(config_, options.handover), storeOf(config_), calls_, clock,
                 {[this] { systemd_.ready(); }, [this](const std::string& line) { systemd_.statusIs(line); },
                  [this](const LeaseStore::Holdings& holdings) { state_.earlierIs(holdings); }}),
      links_(io_, [this] { state_.linksChanged(); }),
      state_(config_, std::make_shared<LinuxMachine>(), std::make_shared<PingProbe>(), links_, io_, clock,
             [this] { publish(); }),
      linkWatch_(loop_, links_.fd(), [this] { links_.readable(); }),
      reload_(loop_, io_,
              {[this] { log_.reopen(); },
               [arguments = Runtime::forReload(arguments_)] { return readOptions(arguments); },
               [this] { reloadWaits(); }, [this](const Reading& reading) { reloaded(reading); }}) {}

void Trelmemberd::run() {
  state_.start();
  loop_.run();
}

void Trelmemberd::reloadWaits() const {
  traceHandle.trace(kErrorLevel,
                    "{}: not reloaded yet, still waiting for it or a file that it names; the configuration "
                    "stays as it was",
                    arguments_.file);
}

void Trelmemberd::reloaded(const Reading& reading) {
  const std::string& path = arguments_.file;
  Config config = reading.options.config;
  Runtime::Findings findings = reading.findings;
  if (findings.faults().empty() && config.member != config_.member) {
    findings.fault("member", fmt::format("found {}, expected {}, which this process publishes", config.member,
                                         config_.member));
  }
  for (const std::string& fault : findings.faults()) traceHandle.trace(kErrorLevel, "{}", fault);
  if (!findings.faults().empty()) {
    return traceHandle.trace(kErrorLevel, "{}: not reloaded, the configuration stays as it was", path);
  }
  for (const std::string& warning : findings.warnings()) traceHandle.trace(kHealthLevel, "{}", warning);
  config.store = config_.store;
  config.access = config_.access;
  config.ttlSeconds = config_.ttlSeconds;
  config.holdSeconds = config_.holdSeconds;
  config_ = config;
  Host::TraceLog::levelsAre(reading.options.log.levels);
  publisher_.configured(interfacesOf(config_), config_.intervalSeconds, config_.deadbands);
  OwnState::NeighbourChanges changes = state_.configIs(config_);
  std::vector<std::string> fixed = Runtime::Settings::differences(atStart_, reading.options.atStart);
  traceHandle.trace(kHealthLevel,
                    "{}: reloaded: of the neighbours {} are as before, {} changed, {} new, {} gone{}", path,
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
