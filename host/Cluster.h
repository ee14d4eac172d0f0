// The cluster as this process holds it: the mirrored state, the agent with its pipelines, and the MIB state
// object that they keep, where modules find it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/TrelSnmpAgent.h"
#include "kelstore/LayeredState.h"
#include "kelstore/Mirror.h"
#include "kelstore/Source.h"

namespace Host {

class Cluster {
 public:
  // Makes a source that fills a layer.
  using MakeSource = std::function<std::unique_ptr<Kelstore::Source>(Kelstore::LayeredState&)>;

  // Makes everything and starts to follow the sources; a later one overrides an earlier.
  Cluster(const std::vector<MakeSource>& sources, Zavro::Ptr<Vem::TaskScheduler> scheduler);
  ~Cluster();
  Cluster(const Cluster&) = delete;
  Cluster& operator=(const Cluster&) = delete;

  // The SNMP agent is up from now on: the modules register.
  void snmpIsUp();
  // Withdraws the modules, while there still is an SNMP agent.
  void snmpGoesDown();

  // Every source was heard, all of it is mirrored, every pipeline is ready and has nothing to do, and the
  // modules are registered.
  bool complete() const;

  const TrelSnmp::TrelMib& trelMib() const { return *trelMib_; }
  std::vector<Kelstore::SourceStatus> sources() const;
  std::vector<Zavro::Ptr<const TrelSnmp::Agent::Pipeline>> pipelines() const;

 private:
  void mountTrelMib();
  void sysnameIs();

  std::string hostname_;
  Kelstore::Mirror mirror_;
  Kelstore::LayeredState layers_;
  std::vector<std::unique_ptr<Kelstore::Source>> sources_;
  Zavro::Ptr<Kor::Dir> root_;
  Zavro::Ptr<TrelSnmp::TrelMib> trelMib_;
  Zavro::Ptr<Snmp::Status> status_;
  Zavro::Ptr<TrelSnmp::Agent::Root> agentRoot_;
  Kor::Subscription sysnameSubscription_;
};

}  // namespace Host
