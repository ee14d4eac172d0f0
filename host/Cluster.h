// The cluster as this process knows it: the sources of its state, the state itself, the agent with its
// pipelines, and the MIB state object, mounted where the table modules find it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/TrelSnmpAgent.h"
#include "health/Links.h"
#include "health/Members.h"
#include "host/LinkFeed.h"
#include "kelstore/LayeredState.h"
#include "kelstore/Mirror.h"
#include "kelstore/Source.h"

namespace Host {

class Cluster {
 public:
  // Makes a source that fills a layer.
  using MakeSource = std::function<std::unique_ptr<Kelstore::Source>(Kelstore::LayeredState&)>;

  // Starts the sources; a later one overrides an earlier.
  Cluster(const std::vector<MakeSource>& sources, Zavro::Ptr<Vem::TaskScheduler> scheduler);
  ~Cluster();
  Cluster(const Cluster&) = delete;
  Cluster& operator=(const Cluster&) = delete;

  // To be called once the SNMP agent is initialised: registers the modules.
  void snmpIsUp();
  // To be called before the SNMP agent ends: unregisters the modules.
  void snmpGoesDown();

  // Whether every source has delivered its state or is stale, all of it is applied, every pipeline is ready
  // and idle, and the modules are registered.
  bool complete() const;

  const TrelSnmp::TrelMib& trelMib() const { return *trelMib_; }
  std::vector<Kelstore::SourceStatus> sources() const;
  // What the sources say, and the names of the sources by layer.
  const Kelstore::LayeredState& layers() const { return layers_; }
  std::vector<std::string> sourcesOfLayers() const;
  // Takes what the sources say of members into members(), and what changed of links into links(); to be
  // called once a second, and before somebody reads it.
  void look(uint64_t nowUtcNs);
  const Health::Members& members() const { return members_; }
  const Health::Links& links() const { return links_; }
  // Collectors of members that do not work, as the members say.
  const std::map<Kelstore::Path, Kelstore::Unread>& unread() const { return mirror_.unread(); }
  // Calls `done` when all that sources() shows is up to date, or when that takes too long
  // (Source::refresh()).
  void refreshSources(std::function<void()> done);
  // Whether the threads of all sources do their work (Source::alive()).
  bool alive();
  // An operator says that the other stores which sources() show count. The names of these sources.
  std::vector<std::string> acceptStores();
  std::vector<Zavro::Ptr<const TrelSnmp::Agent::Pipeline>> pipelines() const;
  // All of these, and what they read and write, by name: for those who inspect them by their types.
  std::map<std::string, Zavro::Ptr<const Kor::Object>> objects() const;

 private:
  void mountTrelMib();
  void sysnameIs();
  Health::Facts facts(uint64_t nowUtcNs) const;
  void addFacts(const Kelstore::Source& source, Health::Facts& facts) const;

  std::string hostname_;
  Kelstore::Mirror mirror_;
  Kelstore::LayeredState layers_;
  std::vector<std::unique_ptr<Kelstore::Source>> sources_;
  std::vector<const Kelstore::Source*> byLayer_;
  Zavro::Ptr<Kor::Dir> root_;
  Zavro::Ptr<TrelSnmp::TrelMib> trelMib_;
  Zavro::Ptr<Snmp::Status> status_;
  Zavro::Ptr<TrelSnmp::Agent::Root> agentRoot_;
  Kor::Subscription sysnameSubscription_;
  Health::Members members_;
  Health::Links links_;
  LinkFeed linkFeed_;
  bool wasComplete_ = false;
};

}  // namespace Host
