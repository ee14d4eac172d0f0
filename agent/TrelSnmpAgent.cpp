#include "agent/TrelSnmpAgent.h"

#include <algorithm>
#include <tuple>

#include "platform/toggles/Toggles.h"
#include "platform/trel/Mode.h"
#include "platform/zavro/Assert.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"

namespace TrelSnmp::Agent {
namespace {

const Lumalog::Handle traceHandle("TrelSnmpAgent");

constexpr const char* kDefaultContext = "";
constexpr const char* kToggleFile = "TrelCore.json";

// Each toggle is read when it is first needed, once in the life of the process.
bool hrStorageToggle() {
  static const bool on = Toggles::getToggleState("TrelHrStorageSnmp", kToggleFile, true);
  return on;
}
bool hrMemStorageToggle() {
  static const bool on = Toggles::getToggleState("TrelHrMemStorage", kToggleFile, true);
  return on;
}

// Registers the module for the default context, unless it is registered already.
void registered(const char* module, void (*init)(Zavro::String)) {
  if (!Snmp::mibContextRegistered(kDefaultContext, module)) init(kDefaultContext);
}

// Calls make() while the nodes that it replaces are inactive, so that no two write one table. If it throws,
// those that were active continue, and pipelines check their rows.
template <class Make>
auto makeSuccessor(const std::vector<Zavro::Ptr<Zavro::Node>>& nodes, Make make) {
  std::vector<Zavro::Ptr<Zavro::Node>> active;
  for (const auto& node : nodes) {
    if (node->hasNotificationActive()) active.push_back(node);
    node->hasNotificationActiveIs(false);
  }
  try {
    return make();
  } catch (...) {
    for (const auto& node : nodes) {
      if (auto* pipeline = dynamic_cast<Pipeline*>(node.get())) pipeline->reclaimRows();
    }
    for (const auto& node : active) node->hasNotificationActiveIs(true);
    throw;
  }
}

// Keeps the pipeline in slot when its inputs match; otherwise replaces it when the new one has been created.
template <class Sm, class Make>
Zavro::Ptr<Sm> keepOrReplace(Zavro::Ptr<Sm>& slot, bool matches, const Rvx::SmControl& control, Make make) {
  if (slot) slot->rivoControlIs(control);
  if (slot && matches) return slot;
  std::vector<Zavro::Ptr<Zavro::Node>> old;
  if (slot) old.push_back(slot);
  Zavro::Ptr<Sm> made = makeSuccessor(std::move(old), make);
  slot = made;
  made->hasNotificationActiveIs(true);
  return made;
}

template <class Sm>
Zavro::Ptr<Sm> detach(Zavro::Ptr<Sm>& slot) {
  Zavro::Ptr<Sm> detached = std::move(slot);
  if (detached) detached->hasNotificationActiveIs(false);
  return detached;
}

}  // namespace

// SnmpStatusSm

SnmpStatusSm::SnmpStatusSm(Status snmpStatus) : snmpStatus_(std::move(snmpStatus)) {
  watch();
  handleSnmpStatusInitialized();
}

void SnmpStatusSm::snmpStatusIs(Status snmpStatus) {
  if (snmpStatus == snmpStatus_) return;
  subscription_.reset();
  snmpStatus_ = std::move(snmpStatus);
  watch();
  evaluate();
}

void SnmpStatusSm::watch() {
  if (!snmpStatus_) return;
  subscription_ = snmpStatus_->subscribeInitialized([this] { evaluate(); });
}

void SnmpStatusSm::evaluate() {
  if (hasNotificationActive()) {
    handleSnmpStatusInitialized();
  } else {
    changedWhileInactive_ = true;
  }
}

void SnmpStatusSm::onZombieReactors() {
  if (!hasNotificationActive() || !std::exchange(changedWhileInactive_, false)) return;
  handleSnmpStatusInitialized();
}

void SnmpStatusSm::handleSnmpStatusInitialized() {
  constexpr std::string_view kFunction = "void TrelSnmp::Agent::SnmpStatusSm::handleSnmpStatusInitialized()";
  if (!snmpStatus_ || !snmpStatus_->initialized()) {
    Lumalog::BlockTimer timer(traceHandle, kFunction, "SnmpStatus not initialized");
    traceHandle.trace(8, "SnmpStatusSm: SnmpStatus not initialized");
    return;
  }
  if (mibsInitialized_) return;
  Lumalog::BlockTimer timer(traceHandle, kFunction);
  traceHandle.trace(8, "handleSnmpStatusInitialized");
  registered("veldaTrelMIB", init_veldaTrelMIB);
  registered("veldaTrelHostResourcesMIB", init_veldaTrelHostResourcesMIB);
  mibsInitialized_ = true;
}

Zavro::Ptr<SnmpStatusSm> SnmpStatusSm::SnmpStatusSmIs(Status snmpStatus) {
  auto watcher = Zavro::makePtr<SnmpStatusSm>(std::move(snmpStatus));
  watcher->hasNotificationActiveIs(true);
  return watcher;
}

Zavro::Ptr<SnmpStatusSm> snmpStatusSmFactory(SnmpStatusSm::Status snmpStatus) {
  return SnmpStatusSm::SnmpStatusSmIs(std::move(snmpStatus));
}

const Kor::Type& SnmpStatusSm::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<SnmpStatusSm>("TrelSnmp::Agent::SnmpStatusSm")
          .attribute("snmpStatus", [](const SnmpStatusSm& s) { return Kor::optText(s.snmpStatus()); })
          .attribute("mibsInitialized", &SnmpStatusSm::mibsInitialized)
          .operation("handleSnmpStatusInitialized", &SnmpStatusSm::handleSnmpStatusInitialized)
          .build();
  return type;
}

// Agent

Derivations::~Derivations() {
  for (const auto& key : keys_) Rvx::GlobalState::get().delFromRegistry(key);
}

void Derivations::add(const Rvx::RegistryKey& key) {
  if (std::find(keys_.begin(), keys_.end(), key) != keys_.end()) return;
  Rvx::GlobalState::get().addToRegistry(key);
  keys_.push_back(key);
}

// In the order of creation; null where there is none.
struct Agent::Pipelines {
  std::tuple<Zavro::Ptr<TrelSnmpIfTableSm>, Zavro::Ptr<TrelSnmpReachabilityTableSm>,
             Zavro::Ptr<TrelSnmpHostResourcesSm>, Zavro::Ptr<TrelSnmpHrStorageTableSm>>
      all;
  template <class Sm>
  Zavro::Ptr<Sm>& of() {
    return std::get<Zavro::Ptr<Sm>>(all);
  }
};

Agent::Agent(AgentInputs inputs) : inputs_(std::move(inputs)), pipelines_(std::make_unique<Pipelines>()) {
  startSMs();
}

Agent::~Agent() {
  snmpStatusSmDel();
  // One after the other: within one expression, what detach() returns would live until the last is detached.
  auto end = [](auto& pipeline) { detach(pipeline); };
  std::apply([&end](auto&... pipeline) { (end(pipeline), ...); }, pipelines_->all);
}

void Agent::startSMs() {
  Lumalog::BlockTimer timer(traceHandle, "void TrelSnmp::Agent::Agent::startSMs()");
  traceHandle.trace(8, "startSMs");
  zavroAssert(Trel::trelMode() && "TrelSnmp::Agent can not be run in non-trel mode");
  snmpStatusSmIs(inputs_.snmpStatus);
  trelSnmpIfTableSmIs(inputs_.topologyConfig, inputs_.ifMib, inputs_.trelMib, rvxSmControl_);
  trelSnmpReachabilityTableSmIs(inputs_.reachabilityDir, inputs_.ifMib, inputs_.trelMib, rvxSmControl_);
  trelSnmpHostResourcesSmIs(inputs_.hostResourcesDir, inputs_.trelMib, rvxSmControl_);
  if (hrStorageToggle() && hrMemStorageToggle()) startStorageTableSm();
}

void Agent::startStorageTableSm() {
  using HostResourcesMib::StorageEntryMappings;
  auto entity = Kor::Entity::singletonExists(StorageEntryMappings::kTypeName);
  if (!entity) entity = Kor::Entity::singletonIs(StorageEntryMappings::kTypeName);
  auto mappings = boost::dynamic_pointer_cast<const StorageEntryMappings>(entity);
  for (const auto& key : TrelSnmpHrStorageTableSm::derivations(inputs_.hostResourcesDir, mappings)) {
    derivations_.add(key);
  }
  trelSnmpHrStorageTableSmIs(inputs_.hostResourcesDir, inputs_.trelMib, mappings, rvxSmControl_);
}

Zavro::Ptr<SnmpStatusSm> Agent::snmpStatusSmIs(const SnmpStatusSm::Status& snmpStatus) {
  if (snmpStatusSm_ && snmpStatusSm_->snmpStatus() == snmpStatus) return snmpStatusSm_;
  auto made = SnmpStatusSm::SnmpStatusSmIs(snmpStatus);
  snmpStatusSmDel();  // inactive from now on, even if somebody holds it
  snmpStatusSm_ = std::move(made);
  return snmpStatusSm_;
}

Zavro::Ptr<SnmpStatusSm> Agent::snmpStatusSmDel() { return detach(snmpStatusSm_); }

Zavro::Ptr<TrelSnmpIfTableSm> Agent::trelSnmpIfTableSmIs(
    const Zavro::Ptr<const Trel::TopologyConfig>& topologyConfig,
    const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib, const Zavro::Ptr<TrelMib>& trelMib,
    const Rvx::SmControl& control) {
  auto& slot = pipelines_->of<TrelSnmpIfTableSm>();
  bool matches = slot && slot->topologyConfig() == topologyConfig && slot->ifMib() == ifMib &&
                 slot->trelMib() == trelMib;
  return keepOrReplace(slot, matches, control,
                       [&] { return trelSnmpIfTableSmFactory(topologyConfig, ifMib, trelMib, control); });
}

Zavro::Ptr<TrelSnmpIfTableSm> Agent::trelSnmpIfTableSmDel() {
  return detach(pipelines_->of<TrelSnmpIfTableSm>());
}

Zavro::Ptr<TrelSnmpReachabilityTableSm> Agent::trelSnmpReachabilityTableSmIs(
    const Zavro::Ptr<const Kor::Dir>& reachabilityDir, const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib,
    const Zavro::Ptr<TrelMib>& trelMib, const Rvx::SmControl& control) {
  auto& slot = pipelines_->of<TrelSnmpReachabilityTableSm>();
  bool matches = slot && slot->reachabilityDir() == reachabilityDir && slot->ifMib() == ifMib &&
                 slot->trelMib() == trelMib;
  return keepOrReplace(slot, matches, control, [&] {
    return trelSnmpReachabilityTableSmFactory(reachabilityDir, ifMib, trelMib, control);
  });
}

Zavro::Ptr<TrelSnmpReachabilityTableSm> Agent::trelSnmpReachabilityTableSmDel() {
  return detach(pipelines_->of<TrelSnmpReachabilityTableSm>());
}

Zavro::Ptr<TrelSnmpHostResourcesSm> Agent::trelSnmpHostResourcesSmIs(
    const Zavro::Ptr<const Kor::Dir>& hostResourcesDir, const Zavro::Ptr<TrelMib>& trelMib,
    const Rvx::SmControl& control) {
  auto& slot = pipelines_->of<TrelSnmpHostResourcesSm>();
  bool matches = slot && slot->hostResourcesDir() == hostResourcesDir && slot->trelMib() == trelMib;
  return keepOrReplace(slot, matches, control,
                       [&] { return trelSnmpHostResourcesSmFactory(hostResourcesDir, trelMib, control); });
}

Zavro::Ptr<TrelSnmpHostResourcesSm> Agent::trelSnmpHostResourcesSmDel() {
  return detach(pipelines_->of<TrelSnmpHostResourcesSm>());
}

Zavro::Ptr<TrelSnmpHrStorageTableSm> Agent::trelSnmpHrStorageTableSmIs(
    const Zavro::Ptr<const Kor::Dir>& hostResourcesDir, const Zavro::Ptr<TrelMib>& trelMib,
    const TrelSnmpHrStorageTableSm::Mappings& storageEntryMappings, const Rvx::SmControl& control) {
  auto& slot = pipelines_->of<TrelSnmpHrStorageTableSm>();
  bool matches = slot && slot->hostResourcesDir() == hostResourcesDir && slot->trelMib() == trelMib &&
                 slot->storageEntryMappings() == storageEntryMappings;
  return keepOrReplace(slot, matches, control, [&] {
    return trelSnmpHrStorageTableSmFactory(hostResourcesDir, trelMib, storageEntryMappings, control);
  });
}

Zavro::Ptr<TrelSnmpHrStorageTableSm> Agent::trelSnmpHrStorageTableSmDel() {
  return detach(pipelines_->of<TrelSnmpHrStorageTableSm>());
}

const Zavro::Ptr<TrelSnmpIfTableSm>& Agent::trelSnmpIfTableSm() const {
  return pipelines_->of<TrelSnmpIfTableSm>();
}

const Zavro::Ptr<TrelSnmpReachabilityTableSm>& Agent::trelSnmpReachabilityTableSm() const {
  return pipelines_->of<TrelSnmpReachabilityTableSm>();
}

const Zavro::Ptr<TrelSnmpHostResourcesSm>& Agent::trelSnmpHostResourcesSm() const {
  return pipelines_->of<TrelSnmpHostResourcesSm>();
}

const Zavro::Ptr<TrelSnmpHrStorageTableSm>& Agent::trelSnmpHrStorageTableSm() const {
  return pipelines_->of<TrelSnmpHrStorageTableSm>();
}

std::vector<Zavro::Ptr<Pipeline>> Agent::pipelines() const {
  auto pipelines =
      std::apply([](const auto&... pipeline) { return std::vector<Zavro::Ptr<Pipeline>>{pipeline...}; },
                 pipelines_->all);
  std::erase(pipelines, nullptr);
  return pipelines;
}

std::vector<Zavro::Ptr<Zavro::Node>> Agent::nodes() const {
  std::vector<Zavro::Ptr<Zavro::Node>> nodes;
  if (snmpStatusSm_) nodes.emplace_back(snmpStatusSm_);
  for (const auto& pipeline : pipelines()) nodes.emplace_back(pipeline);
  return nodes;
}

const Kor::Type& Agent::type() {
  static const auto name = [](const auto& entity) { return entity ? entity->name() : "None"; };
  static const Kor::Type type =
      Kor::TypeBuilder<Agent>("TrelSnmp::Agent::Agent")
          .attribute("trelMib", [](const Agent& a) { return name(a.inputs_.trelMib); })
          .attribute("snmpStatus", [](const Agent& a) { return name(a.inputs_.snmpStatus); })
          .attribute("ifMib", [](const Agent& a) { return name(a.inputs_.ifMib); })
          .attribute("topologyConfig", [](const Agent& a) { return name(a.inputs_.topologyConfig); })
          .attribute("reachabilityDir", [](const Agent& a) { return name(a.inputs_.reachabilityDir); })
          .attribute("hostResourcesDir", [](const Agent& a) { return name(a.inputs_.hostResourcesDir); })
          .attribute("snmpStatusSm", [](const Agent& a) { return a.snmpStatusSm_ != nullptr; })
          .attribute("trelSnmpIfTableSm", &Agent::trelSnmpIfTableSm)
          .attribute("trelSnmpReachabilityTableSm", &Agent::trelSnmpReachabilityTableSm)
          .attribute("trelSnmpHostResourcesSm", &Agent::trelSnmpHostResourcesSm)
          .attribute("trelSnmpHrStorageTableSm", &Agent::trelSnmpHrStorageTableSm)
          .attribute(
              "rvxSmControl", [](const Agent& a) { return a.rvxSmControl_.text(); },
              [](Agent& a, std::string_view text) { a.rvxSmControl_.textIs(text); })
          .operation("startSMs", &Agent::startSMs)
          .build();
  return type;
}

// Root

Root::~Root() {
  notificationActive_ = false;
  agent_.reset();
}

Zavro::Ptr<Agent> Root::agentIs(Zavro::Ptr<TrelMib> trelMib, Zavro::Ptr<const Snmp::Status> snmpStatus,
                                Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
                                Zavro::Ptr<const Trel::TopologyConfig> topologyConfig,
                                Zavro::Ptr<const Kor::Dir> reachabilityDir,
                                Zavro::Ptr<const Kor::Dir> hostResourcesDir) {
  AgentInputs inputs{std::move(trelMib),        std::move(snmpStatus),      std::move(ifMib),
                     std::move(topologyConfig), std::move(reachabilityDir), std::move(hostResourcesDir)};
  if (agent_ && agent_->inputs() == inputs) return agent_;
  auto old = agent_ ? agent_->nodes() : std::vector<Zavro::Ptr<Zavro::Node>>();
  auto made = makeSuccessor(old, [&] { return Zavro::makePtr<Agent>(std::move(inputs)); });
  agent_ = made;
  return made;
}

Zavro::Ptr<Agent> Root::agentDel() { return std::exchange(agent_, nullptr); }

const Kor::Type& Root::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<Root>("TrelSnmp::Agent::Root")
          .attribute("name", &Root::name)
          .attribute("agent", [](const Root& root) { return root.agent() != nullptr; })
          .newEntityForDir([](const std::string& name, const std::vector<std::string>& arguments) {
            if (!arguments.empty()) {
              throw Kor::NewEntityArgumentsException(
                  fmt::format("TrelSnmp::Agent::Root takes no arguments, {} given", arguments.size()));
            }
            return Zavro::Ptr<Kor::Entity>(rootFactory(name));
          })
          .build();
  return type;
}

Zavro::Ptr<Root> rootFactory(const Kor::String& name) { return Zavro::makePtr<Root>(name); }

}  // namespace TrelSnmp::Agent
