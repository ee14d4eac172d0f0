// The spine of the library. The host creates one Root, gives it the inputs and the MIB state object with
// agentIs(), and keeps it for as long as the cluster is to be served; the Root creates everything else.
// Everything runs on the host's event loop thread.
#pragma once

#include <memory>
#include <vector>

#include "pipelines/TrelSnmpHostResourcesSm.h"
#include "pipelines/TrelSnmpHrStorageTableSm.h"
#include "pipelines/TrelSnmpIfTableSm.h"
#include "pipelines/TrelSnmpReachabilityTableSm.h"
#include "platform/kor/Dir.h"
#include "platform/snmp/Status.h"
#include "platform/trel/Topology.h"
#include "platform/zavro/Node.h"

namespace TrelSnmp::Agent {

// Watches the SNMP agent's status and has the MIB modules registered the first time that it is initialised. A
// module that is registered already, by a watcher before this one, stays as it is and counts as done: a host
// may replace its agent while managers are served, without a moment in which the tables are gone. The tables
// stay bound to the MIB state object that stood at TrelMib::kPath when they were registered; a host that puts
// another one there unregisters the modules before it makes the agent.
class SnmpStatusSm final : public Zavro::Node {
 public:
  using Status = Zavro::Ptr<const Snmp::Status>;

  // Evaluates the status at once.
  explicit SnmpStatusSm(Status snmpStatus);

  const Status& snmpStatus() const { return snmpStatus_; }
  // Watches another record from now on and evaluates it (while inactive: once it is active), unless it is the
  // same object.
  void snmpStatusIs(Status snmpStatus);
  bool mibsInitialized() const { return mibsInitialized_; }
  void handleSnmpStatusInitialized();

  // A new watcher, notification-active.
  static Zavro::Ptr<SnmpStatusSm> SnmpStatusSmIs(Status snmpStatus);

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  void watch();
  // Acts on the status, or notes that it is to when the watcher is active again.
  void evaluate();
  void onZombieReactors() override;

  Status snmpStatus_;
  bool mibsInitialized_ = false;
  bool changedWhileInactive_ = false;
  Kor::Subscription subscription_;
};

Zavro::Ptr<SnmpStatusSm> snmpStatusSmFactory(SnmpStatusSm::Status snmpStatus);

// What the agent is given. Each pipeline reads its inputs and writes the MIB state object only.
struct AgentInputs {
  Zavro::Ptr<TrelMib> trelMib;
  Zavro::Ptr<const Snmp::Status> snmpStatus;
  Zavro::Ptr<const IntfSnmp::IfMib> ifMib;
  Zavro::Ptr<const Trel::TopologyConfig> topologyConfig;
  Zavro::Ptr<const Kor::Dir> reachabilityDir;           // one Trel::ReachabilityStatus for each member
  Zavro::Ptr<const Kor::Dir> hostResourcesDir;          // one HostResources::HostResources for each member
  bool operator==(const AgentInputs&) const = default;  // the very same objects
};

// The derivations that an agent declared: taken back when it goes, also when it goes while it is being made.
class Derivations {
 public:
  Derivations() = default;
  ~Derivations();
  Derivations(const Derivations&) = delete;
  Derivations& operator=(const Derivations&) = delete;
  // Declares one, unless this agent has done so.
  void add(const Rvx::RegistryKey& key);

 private:
  std::vector<Rvx::RegistryKey> keys_;
};

// Makes the status watcher and the pipelines when it is constructed. The pipelines start at once; only the
// registration of the MIB modules waits for the SNMP agent. Ends the process when the switch is not in Trel
// mode.
class Agent final : public Zavro::Node {
 public:
  explicit Agent(AgentInputs inputs);
  ~Agent() override;

  const AgentInputs& inputs() const { return inputs_; }
  const Zavro::Ptr<TrelMib>& trelMib() const { return inputs_.trelMib; }
  const Zavro::Ptr<const Snmp::Status>& snmpStatus() const { return inputs_.snmpStatus; }
  const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib() const { return inputs_.ifMib; }
  const Zavro::Ptr<const Trel::TopologyConfig>& topologyConfig() const { return inputs_.topologyConfig; }
  const Zavro::Ptr<const Kor::Dir>& reachabilityDir() const { return inputs_.reachabilityDir; }
  const Zavro::Ptr<const Kor::Dir>& hostResourcesDir() const { return inputs_.hostResourcesDir; }
  // Run control that pipelines made from now on get; settable through type information only.
  const Rvx::SmControl& rvxSmControl() const { return rvxSmControl_; }

  // Makes what is missing, in a fixed order. The storage pipeline is made only when the toggles
  // "TrelHrStorageSnmp" and "TrelHrMemStorage" of "TrelCore.json" are both on; they are read once in the life
  // of the process, the second only when the first is on.
  void startSMs();

  // The ...Is operations keep what exists when all its inputs are the very same objects; otherwise they make
  // a new one, which takes the old one's place and its rows. The ...Del operations detach what exists,
  // deactivate it and hand it to the caller (null if none); a pipeline's rows go when the caller drops it,
  // unless another one was made for the same MIB state object meanwhile: then they are that one's.
  Zavro::Ptr<SnmpStatusSm> snmpStatusSmIs(const SnmpStatusSm::Status& snmpStatus);
  Zavro::Ptr<SnmpStatusSm> snmpStatusSmDel();
  Zavro::Ptr<TrelSnmpIfTableSm> trelSnmpIfTableSmIs(
      const Zavro::Ptr<const Trel::TopologyConfig>& topologyConfig,
      const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib, const Zavro::Ptr<TrelMib>& trelMib,
      const Rvx::SmControl& control);
  Zavro::Ptr<TrelSnmpIfTableSm> trelSnmpIfTableSmDel();
  Zavro::Ptr<TrelSnmpReachabilityTableSm> trelSnmpReachabilityTableSmIs(
      const Zavro::Ptr<const Kor::Dir>& reachabilityDir, const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib,
      const Zavro::Ptr<TrelMib>& trelMib, const Rvx::SmControl& control);
  Zavro::Ptr<TrelSnmpReachabilityTableSm> trelSnmpReachabilityTableSmDel();
  Zavro::Ptr<TrelSnmpHostResourcesSm> trelSnmpHostResourcesSmIs(
      const Zavro::Ptr<const Kor::Dir>& hostResourcesDir, const Zavro::Ptr<TrelMib>& trelMib,
      const Rvx::SmControl& control);
  Zavro::Ptr<TrelSnmpHostResourcesSm> trelSnmpHostResourcesSmDel();
  Zavro::Ptr<TrelSnmpHrStorageTableSm> trelSnmpHrStorageTableSmIs(
      const Zavro::Ptr<const Kor::Dir>& hostResourcesDir, const Zavro::Ptr<TrelMib>& trelMib,
      const TrelSnmpHrStorageTableSm::Mappings& storageEntryMappings, const Rvx::SmControl& control);
  Zavro::Ptr<TrelSnmpHrStorageTableSm> trelSnmpHrStorageTableSmDel();

  const Zavro::Ptr<SnmpStatusSm>& snmpStatusSm() const { return snmpStatusSm_; }
  const Zavro::Ptr<TrelSnmpIfTableSm>& trelSnmpIfTableSm() const;
  const Zavro::Ptr<TrelSnmpReachabilityTableSm>& trelSnmpReachabilityTableSm() const;
  const Zavro::Ptr<TrelSnmpHostResourcesSm>& trelSnmpHostResourcesSm() const;
  // Null when the toggles say so.
  const Zavro::Ptr<TrelSnmpHrStorageTableSm>& trelSnmpHrStorageTableSm() const;
  // Those that exist, in the order of their creation.
  std::vector<Zavro::Ptr<Pipeline>> pipelines() const;
  // The watcher and the pipelines that exist, in that order.
  std::vector<Zavro::Ptr<Zavro::Node>> nodes() const;

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  struct Pipelines;

  void startStorageTableSm();

  const AgentInputs inputs_;
  Zavro::Ptr<SnmpStatusSm> snmpStatusSm_;
  const std::unique_ptr<Pipelines> pipelines_;
  Derivations derivations_;
  Rvx::SmControl rvxSmControl_;
};

// The entity that the host creates in its own directory. Owns at most one agent.
class Root final : public Kor::Entity {
 public:
  explicit Root(Kor::String name) : Entity(std::move(name)) {}
  ~Root() override;

  const Zavro::Ptr<Agent>& agent() const { return agent_; }
  bool hasNotificationActive() const { return notificationActive_; }

  // The existing agent when each argument is the very same object as its own; otherwise a new agent, which
  // replaces it once it has been built. The replaced one reacts no more, whoever holds it.
  Zavro::Ptr<Agent> agentIs(Zavro::Ptr<TrelMib> trelMib, Zavro::Ptr<const Snmp::Status> snmpStatus,
                            Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
                            Zavro::Ptr<const Trel::TopologyConfig> topologyConfig,
                            Zavro::Ptr<const Kor::Dir> reachabilityDir,
                            Zavro::Ptr<const Kor::Dir> hostResourcesDir);
  // Detaches the agent and hands it to the caller, null if there is none.
  Zavro::Ptr<Agent> agentDel();

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  Zavro::Ptr<Agent> agent_;
  bool notificationActive_ = true;
};

Zavro::Ptr<Root> rootFactory(const Kor::String& name);
inline constexpr auto RootIs = &rootFactory;

}  // namespace TrelSnmp::Agent
