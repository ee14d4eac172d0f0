// The entities that pipelines and tables read, kept equal to the cluster's state.
//
// A changed value is a new record under the same key, and one notification. An unchanged value is not
// touched, unless its storage mapping changes (StorageMappings.h). A member's entity enters its directory
// with the member's first value, and leaves it, whole, with the last one. Only the system figures change in
// place. Schema.cpp says how each kind is applied. On the event loop's thread.
#pragma once

#include <functional>
#include <string>

#include "kelstore/Entities.h"

namespace Kelstore {

class Mirror {
 public:
  // Creates the entities, empty. The storage mappings are the process's singleton.
  Mirror();

  // Makes the entities agree with the view at the path.
  void apply(const Path& path, const View& view) { specOf(path.kind).apply(entities_, path, view); }

  const Zavro::Ptr<Kor::Dir>& reachabilityDir() const { return entities_.reachability; }
  const Zavro::Ptr<Kor::Dir>& hostResourcesDir() const { return entities_.hostResources; }
  const Zavro::Ptr<IntfSnmp::IfMib>& ifMib() const { return entities_.ifMib; }
  const Zavro::Ptr<Trel::TopologyConfig>& topologyConfig() const { return entities_.topologyConfig; }

  // Collectors of members that do not work, as the members say.
  const std::map<Path, Unread>& unread() const { return entities_.unread; }
  // The names of the members' hosts, as far as they say.
  const std::map<Trel::MemberId, std::string>& names() const { return entities_.names; }
  // Who belongs to the cluster, by the name or ""; empty: the state does not say.
  const std::map<Trel::MemberId, std::string>& expected() const { return entities_.expected; }
  // The system's name; empty when the state gives none.
  const std::string& sysname() const { return entities_.sysname; }
  [[nodiscard]] Kor::Subscription subscribeSysname(std::function<void()> callback) const {
    return entities_.sysnameChanged.subscribe(std::move(callback));
  }

 private:
  Entities entities_;
};

}  // namespace Kelstore
