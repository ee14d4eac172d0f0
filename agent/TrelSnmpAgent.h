// The top of the library. The host creates one Root, passes the inputs and the MIB state object to agentIs(),
// and keeps the Root as long as the cluster is served; the Root creates everything else. Everything runs on
// the host's event loop thread.
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

// Watches the SNMP agent's status, and registers the MIB modules the first time that it is initialised. A
// module that an earlier watcher registered stays registered, so that a host can replace its agent without
// taking the tables away from managers. The tables remain bound to the MIB state object that was at
// TrelMib::kPath when they were registered: a host that puts another one there unregisters the modules before
// it creates the agent.
class SnmpStatusSm final : public Zavro::Node {
 public:
  using Status = Zavro::Ptr<const Snmp::Status>;

  // Subscribes to the status and evaluates it.
  explicit SnmpStatusSm(Status snmpStatus);

  const Status& snmpStatus() const { return snmpStatus_; }
  // Watches another record and evaluates it; while inactive, when the watcher is active again. Does nothing
  // for the same object.
  void snmpStatusIs(Status snmpStatus);
  bool mibsInitialized() const { return mibsInitialized_; }
  void handleSnmpStatusInitialized();

  // Creates a notification-active watcher.
  static Zavro::Ptr<SnmpStatusSm> SnmpStatusSmIs(Status snmpStatus);

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  void watch();
  // Handles the status now, or, while inactive, when the watcher is active again.
  void evaluate();
  void onZombieReactors() override;

  Status snmpStatus_;
  bool mibsInitialized_ = false;
  bool changedWhileInactive_ = false;
  Kor::Subscription subscription_;
};

Zavro::Ptr<SnmpStatusSm> snmpStatusSmFactory(SnmpStatusSm::Status snmpStatus);

// What an agent is created with. Pipelines read the others and write the MIB state object.
struct AgentInputs {
  Zavro::Ptr<TrelMib> trelMib;
  Zavro::Ptr<const Snmp::Status> snmpStatus;
  Zavro::Ptr<const IntfSnmp::IfMib> ifMib;
  Zavro::Ptr<const Trel::TopologyConfig> topologyConfig;
  Zavro::Ptr<const Kor::Dir> reachabilityDir;           // one Trel::ReachabilityStatus for each member
  Zavro::Ptr<const Kor::Dir> hostResourcesDir;          // one HostResources::HostResources for each member
  bool operator==(const AgentInputs&) const = default;  // the very same objects
};

// The derivations that an agent declared. They are withdrawn with the agent, also when its constructor
// throws.
class Derivations {
 public:
  Derivations() = default;
  ~Derivations();
  Derivations(const Derivations&) = delete;
  Derivations& operator=(const Derivations&) = delete;
  // Declares a derivation, unless this agent has declared it already.
  void add(const Rvx::RegistryKey& key);

 private:
  std::vector<Rvx::RegistryKey> keys_;
};

// Creates the status watcher and the pipelines in its constructor. The pipelines start at once; only the
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
  // The run control of pipelines that are created from now on. It can be set by name only
  // (platform/kor/Type.h).
  const Rvx::SmControl& rvxSmControl() const { return rvxSmControl_; }

  // Creates what is missing, in a fixed order. The storage pipeline is created only when the toggles
  // "TrelHrStorageSnmp" and "TrelHrMemStorage" of "TrelCore.json" are both on. Each is read at most once in
  // the life of the process, the second only when the first is on.
  void startSMs();

  // The ...Is operations keep what exists when its inputs are the same objects; otherwise they create a new
  // one, which takes over the rows of the old one. The ...Del operations deactivate what exists and return it
  // (null if none). A pipeline's rows are deleted when the caller releases it, unless another pipeline was
  // created for the same MIB state object meanwhile and owns them.
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
  // Null unless both toggles are on.
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

// The entity that the host creates. Owns at most one agent.
class Root final : public Kor::Entity {
 public:
  explicit Root(Kor::String name) : Entity(std::move(name)) {}
  ~Root() override;

  const Zavro::Ptr<Agent>& agent() const { return agent_; }
  bool hasNotificationActive() const { return notificationActive_; }

  // Returns the existing agent when each argument is the same object as its own. Otherwise creates an agent
  // and replaces the existing one, which reacts to nothing any more, even if somebody holds it. When the
  // constructor throws, the existing agent continues.
  Zavro::Ptr<Agent> agentIs(Zavro::Ptr<TrelMib> trelMib, Zavro::Ptr<const Snmp::Status> snmpStatus,
                            Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
                            Zavro::Ptr<const Trel::TopologyConfig> topologyConfig,
                            Zavro::Ptr<const Kor::Dir> reachabilityDir,
                            Zavro::Ptr<const Kor::Dir> hostResourcesDir);
  // Releases the agent to the caller; null if there is none.
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
