// The entities that pipelines and tables read, kept equal to the cluster's state.
//
// A changed value becomes a new record under the same key, and so one notification; an unchanged one is not
// touched, unless the storage mapping that it stands on changes (StorageMappings.h). A member's entity
// appears with its first value and leaves its directory, whole, with its last. The system figures alone
// change in place. What becomes of each kind of value is in the schema. On the event loop's thread.
#pragma once

#include <functional>
#include <string>

#include "kelstore/Entities.h"

namespace Kelstore {

class Mirror {
 public:
  // Makes the entities, all empty. The storage mappings are the process's singleton.
  Mirror();

  // Brings what comes from the path up to date with the view.
  void apply(const Path& path, const View& view) { specOf(path.kind).apply(entities_, path, view); }

  const Zavro::Ptr<Kor::Dir>& reachabilityDir() const { return entities_.reachability; }
  const Zavro::Ptr<Kor::Dir>& hostResourcesDir() const { return entities_.hostResources; }
  const Zavro::Ptr<IntfSnmp::IfMib>& ifMib() const { return entities_.ifMib; }
  const Zavro::Ptr<Trel::TopologyConfig>& topologyConfig() const { return entities_.topologyConfig; }

  // The system's name; empty when the state gives none.
  const std::string& sysname() const { return entities_.sysname; }
  [[nodiscard]] Kor::Subscription subscribeSysname(std::function<void()> callback) const {
    return entities_.sysnameChanged.subscribe(std::move(callback));
  }

 private:
  Entities entities_;
};

}  // namespace Kelstore
