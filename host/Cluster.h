// The cluster as this process holds it: the mirrored state, the agent with its pipelines, and the MIB state
// object that they keep, where modules find it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "FileSource.h"
#include "Io.h"
#include "Mirror.h"
#include "Options.h"
#include "Store.h"
#include "TrelSnmpAgent.h"

namespace Host {

class Cluster {
 public:
  // Makes everything and starts to follow the sources that the options name. Io and clock outlive the
  // cluster. `etcd` may be null when none of the sources is such a one.
  Cluster(const Options& options, const EtcdSources* etcd, Zavro::Ptr<Vem::TaskScheduler> scheduler,
          Kelstore::Io& io, const Zavro::Clock& clock);
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
  Kelstore::Store store_;
  std::vector<std::unique_ptr<Kelstore::Source>> sources_;
  Zavro::Ptr<Kor::Dir> root_;
  Zavro::Ptr<TrelSnmp::TrelMib> trelMib_;
  Zavro::Ptr<Snmp::Status> status_;
  Zavro::Ptr<TrelSnmp::Agent::Root> agentRoot_;
  Kor::Subscription sysnameSubscription_;
};

}  // namespace Host
