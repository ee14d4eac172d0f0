#include "programs/trelsnmpd/Trelsnmpd.h"

#include "platform/zavro/Assert.h"

#include <fmt/ranges.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "host/InspectReport.h"
#include "host/LinkReport.h"
#include "host/StatusReport.h"
#include "host/TableReport.h"
#include "host/TraceReport.h"
#include "host/ValueReport.h"
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
constexpr uint64_t kHealthMs = 1000;

// Makes and locks the state directory. Returns what is wrong, in one line.
std::string claimState(const std::string& directory, Runtime::LockFile& lock) {
  std::string problem =
      Runtime::claimDirectory(directory, {.mode = kStateMode, .withParents = true, .mayBeShared = false});
  if (problem.empty()) problem = lock.take(directory + "/lock");
  return problem.empty() ? "" : fmt::format("state directory {}: {}", directory, problem);
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
  health_.start(kHealthMs, kHealthMs);
  untilReady_.emplace(loop_, [this] { tellWhenReady(); });
  for (int signal : {SIGTERM, SIGINT}) signals_.emplace_back(loop_, signal, [this] { loop_.stop(); });
  for (const std::string& warning : options_.warnings) traceHandle.trace(1, "{}", warning);
  reload_.emplace(loop_, io_,
                  Runtime::Reload<Reading>::Steps{
                      [this] { log_.reopen(); },
                      [arguments = Runtime::forReload(options_.arguments)] { return readAll(arguments); },
                      [this] { reloadWaits(); }, [this](const Reading& reading) { reloaded(reading); }});
  error_ = control_.listen();
}

Daemon::Reading Daemon::readAll(const Runtime::Arguments& arguments) {
  Options options;
  Runtime::Findings findings = readOptions(arguments, options);
  Host::SnmpConf conf = options.snmp.agentx.empty() ? Host::readAccess(options.snmp.conf) : Host::SnmpConf{};
  findings.add(conf.errors);
  return {std::move(options), std::move(findings), std::move(conf)};
}

void Daemon::reloadWaits() const {
  traceHandle.trace(
      0,
      "not reloaded yet, still waiting for the configuration or a file that it names; what was in "
      "force stays");
}

// Returns what is wrong. Adds what of the file takes a restart to `fixed`.
std::string Daemon::reloadConf(const Reading& reading, std::vector<std::string>& fixed) {
  if (snmp_->subagent() || !reading.options.snmp.agentx.empty()) return "";
  std::vector<std::string> words;
  std::string problem = snmp_->reload(reading.conf, words);
  fixed.insert(fixed.end(), words.begin(), words.end());
  return problem;
}

void Daemon::reloaded(const Reading& reading) {
  std::vector<std::string> fixed = Runtime::Settings::differences(options_.atStart, reading.options.atStart);
  std::vector<std::string> problems = reading.findings.faults();
  if (problems.empty()) {
    std::string problem = reloadConf(reading, fixed);
    if (!problem.empty()) problems = {problem};
  }
  for (const std::string& problem : problems) traceHandle.trace(0, "{}", problem);
  if (!problems.empty()) return traceHandle.trace(0, "not reloaded, what was in force stays");
  Host::TraceLog::levelsAre(reading.options.log.levels);
  for (const std::string& warning : reading.findings.warnings()) traceHandle.trace(1, "{}", warning);
  std::string restart =
      fixed.empty() ? "" : fmt::format("; it takes a restart for {}", fmt::join(fixed, ", "));
  if (snmp_->subagent() || !reading.options.snmp.agentx.empty()) {
    const std::string& file = reading.options.arguments.file;
    return traceHandle.trace(1, "{}: reloaded{}", file.empty() ? "options" : file, restart);
  }
  const std::string& path = reading.options.snmp.conf;
  traceHandle.trace(1, "{}: reloaded: {} lines{}", path.empty() ? "built-in access" : path,
                    reading.conf.lines.size(), restart);
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
    cluster_->look(clock_.utcNs());
    answer(Host::statusReport({options_.member, clock_.monotonicNs() - startedNs_, clock_.utcNs(), *snmp_,
                               *cluster_, *scheduler_, log_.state()}));
  };
  if (op == Control::kOpReady) return report();
  if (op == Control::kOpStatus) return cluster_->refreshSources(report);
  if (op == Control::kOpAccept) return answer(acceptStores());
  if (op == Control::kOpValues) return answer(values(json));
  if (op == Control::kOpLinks) {
    cluster_->look(clock_.utcNs());
    return answer(Host::linkReport(cluster_->links()));
  }
  if (op == Control::kOpInspect) return answer(inspected(json));
  if (op == Control::kOpCall) return answer(called(json));
  if (op == Control::kOpTrace) return answer(Host::traceReport(json));
  answer(Host::errorReply(
      fmt::format("found op \"{}\", expected {}", op.substr(0, 40), fmt::join(Control::kOps, ", "))));
}

std::unique_ptr<Host::Reply> Daemon::values(const nlohmann::json& request) const {
  std::vector<std::string> below;
  for (const auto& segment : request.value("below", nlohmann::json::array())) {
    if (!segment.is_string()) return Host::errorReply("expected \"below\": a list of strings");
    below.push_back(segment);
  }
  return Host::valueReport(cluster_->layers(), cluster_->sourcesOfLayers(), std::move(below));
}

std::unique_ptr<Host::Reply> Daemon::inspected(const nlohmann::json& request) const {
  auto path = request.find("path");
  if (path != request.end() && !path->is_string()) return Host::errorReply("expected \"path\": a string");
  return Host::inspectReport(cluster_->objects(), request.value("path", ""));
}

std::unique_ptr<Host::Reply> Daemon::called(const nlohmann::json& request) const {
  for (const char* name : {"path", "operation"}) {
    if (!request.contains(name) || !request.at(name).is_string())
      return Host::errorReply(fmt::format("expected \"{}\": a string", name));
  }
  return Host::callReport(cluster_->objects(), request.at("path"), request.at("operation"));
}

std::unique_ptr<Host::Reply> Daemon::acceptStores() {
  std::vector<std::string> accepted = cluster_->acceptStores();
  if (accepted.empty())
    return Host::errorReply("there is no other store to accept: each is the one that was followed");
  return Host::lineReply(nlohmann::ordered_json{{"ok", true}, {"accepted", accepted}}.dump());
}

}  // namespace Trelsnmpd
