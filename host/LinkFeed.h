// Tells Health::Links what the topology, the members' reports and the interface indexes say, and each change
// of it as it happens. On the event loop's thread.
#pragma once

#include <map>

#include "health/Links.h"
#include "platform/intfsnmp/IfMib.h"
#include "platform/kor/Dir.h"
#include "platform/trel/Reachability.h"
#include "platform/trel/Topology.h"

namespace Host {

class LinkFeed {
 public:
  // reachability: of Trel::ReachabilityStatus, by the member's id. What is there already is told at once.
  LinkFeed(Health::Links& links, Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
           Zavro::Ptr<const Trel::TopologyConfig> topology, Zavro::Ptr<const Kor::Dir> reachability);
  LinkFeed(const LinkFeed&) = delete;
  LinkFeed& operator=(const LinkFeed&) = delete;

 private:
  // What a member says, while it is followed.
  template <class Entity>
  struct Followed {
    Zavro::Ptr<const Entity> entity;
    Kor::Subscription changes;
  };
  template <class Entity>
  using ByMember = std::map<Trel::MemberId, Followed<Entity>>;

  template <class Entity>
  void follow(ByMember<Entity>& followed, Trel::MemberId member, Zavro::Ptr<const Entity> entity);
  void tell(Trel::MemberId from, Trel::MemberId to, const Trel::TopoConfig* said);
  void tell(Trel::MemberId from, Trel::MemberId to, const Trel::ReachabilityStatus* said);
  void ifIndexChanged(const Lanix::IntfId& interface);
  void topologyChanged(Trel::MemberId member);
  void reachabilityChanged(const Kor::String& member);

  Health::Links& links_;
  const Zavro::Ptr<const IntfSnmp::IfMib> ifMib_;
  const Zavro::Ptr<const Trel::TopologyConfig> topology_;
  const Zavro::Ptr<const Kor::Dir> reachability_;
  ByMember<Trel::TopoConfig> wired_;
  ByMember<Trel::ReachabilityStatus> reporting_;
  Kor::Subscription ifIndexes_;
  Kor::Subscription members_;
  Kor::Subscription reports_;
};

}  // namespace Host
