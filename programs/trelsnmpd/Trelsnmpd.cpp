#include "programs/trelsnmpd/Trelsnmpd.h"

#include "platform/zavro/Assert.h"

#include <fmt/ranges.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "host/StatusReport.h"
#include "host/TableReport.h"
#include "kelstore/EmbeddedSource.h"
#include "kelstore/FileSource.h"
#include "kelstore/etcd/Address.h"
#include "member/LinuxMachine.h"
#include "member/LocalSource.h"
#include "platform/lumalog/Lumalog.h"
#include "programs/trelsnmpd/ExampleState.h"

namespace Trelsnmpd {
namespace {

const Lumalog::Handle traceHandle("Daemon");

constexpr mode_t kStateMode = 0700;

// Makes and locks the state directory. Returns what is wrong, in one line.
std::string claimState(const std::string& directory, Runtime::LockFile& lock) {
  std::string problem =
      Runtime::claimDirectory(directory, {.mode = kStateMode, .withParents = true, .mayBeShared = false});
  if (problem.empty()) problem = lock.take(directory + "/lock");
  return problem.empty() ? "" : fmt::format("state directory {}: {}", directory, problem);
}

Host::SnmpConf readConf(const std::string& path) {
  return path.empty() ? Host::SnmpConf{} : Host::readSnmpConf(path, Host::SnmpFile::access);
}

std::unique_ptr<Kelstore::Source> sourceFor(const std::string& state, const Options& options,
                                            const Kelstore::Etcd::Driver* etcd,
                                            Kelstore::LayeredState& layers, Runtime::Io& io,
                                            const Zavro::Clock& clock, Runtime::Threads& threads) {
  if (state == "local") {
    Member::LocalSource::Settings settings{options.member, options.intervalSeconds, options.indexFile};
    return std::make_unique<Member::LocalSource>(settings, std::make_shared<Member::LinuxMachine>(), layers,
                                                 io, clock);
  }
  if (state.starts_with(kFileScheme)) {
    return std::make_unique<Kelstore::FileSource>(state.substr(kFileScheme.size()), layers, io, clock,
                                                  options.limits);
  }
  if (state.starts_with(Kelstore::Etcd::kScheme)) {
    zavroAssert(etcd != nullptr);
    Kelstore::Etcd::FollowSettings settings = options.etcd;
    settings.limits = options.limits;
    settings.address = *Kelstore::Etcd::parseStore(state);
    return etcd->source(state, settings, layers, io, clock, threads);
  }
  return std::make_unique<Kelstore::EmbeddedSource>(kExampleState, layers, clock);
}

}  // namespace

Daemon::Daemon(const Options& options, const Kelstore::Etcd::Driver* etcd, Host::TraceLog& log,
               const Zavro::Clock& clock, Runtime::Threads& threads)
    : options_(options),
      clock_(clock),
      threads_(threads),
      startedNs_(clock.monotonicNs()),
      log_(log),
      slice_(clock),
      scheduler_(Zavro::makePtr<Vem::TaskScheduler>(slice_)),
      tasks_(loop_, scheduler_),
      systemd_(loop_, [this] { return !cluster_ || cluster_->alive(); }),
      io_(loop_, threads),
      control_(loop_, threads, options.control,
               [this](const std::string& request, const auto& reply) { answer(request, reply); }) {
  // A write to a client that went away fails; it does not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  Vem::TaskSchedulerRoot::schedulerIs(scheduler_);
  error_ = control_.error();
  if (error_.empty()) error_ = claimState(options.stateDirectory, stateLock_);
  if (error_.empty()) start(etcd);
}

Daemon::~Daemon() {
  if (cluster_ && snmp_) cluster_->snmpGoesDown();
  snmp_.reset();
  cluster_.reset();
  Vem::TaskSchedulerRoot::schedulerIs(nullptr);
}

void Daemon::start(const Kelstore::Etcd::Driver* etcd) {
  snmp_.emplace(loop_, options_.snmp, options_.stateDirectory);
  error_ = snmp_->error();
  if (!error_.empty()) return;
  uptime_.emplace(clock_, [this] { return snmp_->uptime(); });
  std::vector<Host::Cluster::MakeSource> sources;
  for (const std::string& state : options_.states) {
    sources.emplace_back([this, etcd, &state](Kelstore::LayeredState& layers) {
      return sourceFor(state, options_, etcd, layers, io_, clock_, threads_);
    });
  }
  cluster_.emplace(sources, scheduler_);
  snmp_->serve();
  error_ = snmp_->error();
  if (!error_.empty()) return;
  cluster_->snmpIsUp();
  untilReady_.emplace(loop_, [this] { tellWhenReady(); });
  for (int signal : {SIGTERM, SIGINT}) signals_.emplace_back(loop_, signal, [this] { loop_.stop(); });
  reload_.emplace(loop_, io_,
                  Runtime::Reload<Host::SnmpConf>::Steps{
                      [this] { log_.reopen(); }, [path = options_.snmp.conf] { return readConf(path); },
                      [this] { reloadWaits(); }, [this](const Host::SnmpConf& conf) { reloaded(conf); }});
  error_ = control_.listen();
}

void Daemon::reloadWaits() const {
  traceHandle.trace(0, "--conf {}: not reloaded yet, still waiting for the file; what was in force stays",
                    options_.snmp.conf);
}

void Daemon::reloaded(const Host::SnmpConf& conf) {
  const std::string& path = options_.snmp.conf;
  std::vector<std::string> fixed;
  std::string problem = path.empty() ? "" : snmp_->reload(conf, fixed);
  if (!problem.empty()) return traceHandle.trace(0, "{}: not reloaded, what was in force stays", problem);
  fixed.insert(fixed.end(), {"the command line", "--toggles"});
  std::string what = path.empty() ? "without --conf there is nothing to reload"
                                  : fmt::format("--conf {}: reloaded: {} lines", path, conf.lines.size());
  traceHandle.trace(1, "{}; it takes a restart for {}", what, fmt::join(fixed, ", "));
}

void Daemon::tellWhenReady() {
  if (!cluster_->complete()) return;
  systemd_.ready();
  untilReady_->stop();
}

void Daemon::answer(const std::string& request, const Host::ControlServer::Answer& answer) {
  auto json = nlohmann::json::parse(request, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object() || !json.contains("op") || !json["op"].is_string()) {
    return answer(Host::errorReply(R"(expected a request such as {"op":"status"})"));
  }
  const auto& op = json["op"].get_ref<const std::string&>();
  if (op == Control::kOpTables) return answer(Host::tableReport(cluster_->trelMib()));
  auto report = [this, answer] {
    answer(Host::statusReport({options_.member, clock_.monotonicNs() - startedNs_, clock_.utcNs(), *snmp_,
                               *cluster_, *scheduler_, log_.state()}));
  };
  if (op == Control::kOpReady) return report();
  if (op == Control::kOpStatus) return cluster_->refreshSources(report);
  if (op == Control::kOpAccept) return answer(acceptStores());
  answer(Host::errorReply(fmt::format("found op \"{}\", expected {}, {}, {} or {}", op.substr(0, 40),
                                      Control::kOpStatus, Control::kOpReady, Control::kOpTables,
                                      Control::kOpAccept)));
}

std::unique_ptr<Host::Reply> Daemon::acceptStores() {
  std::vector<std::string> accepted = cluster_->acceptStores();
  if (accepted.empty())
    return Host::errorReply("there is no other store to accept: each is the one that was followed");
  return Host::lineReply(nlohmann::ordered_json{{"ok", true}, {"accepted", accepted}}.dump());
}

}  // namespace Trelsnmpd
