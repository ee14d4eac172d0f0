// The entities that pipelines and tables read, kept equal to the cluster's state.
//
// A changed value becomes a new record under the same key, and so one notification; an unchanged one is not
// touched, unless the storage mapping that it stands on changes (StorageMappings.h). A member's entity
// appears with its first value and leaves its directory, whole, with its last. The system figures alone
// change in place. On the event loop's thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "kelstore/Path.h"
#include "kelstore/Value.h"
#include "platform/intfsnmp/IfMib.h"
#include "platform/kor/Dir.h"
#include "platform/kor/Notifier.h"
#include "platform/trel/Topology.h"

namespace Kelstore {

// The state as it stands.
class View {
 public:
  virtual ~View() = default;
  // The value that counts at the path, or null. The pointer lives until the state changes.
  virtual const Value* find(const Path& path) const = 0;
  // Whether there is a value of that kind whose path's first variable segment is `first`.
  virtual bool any(Kind kind, std::string_view first) const = 0;
};

class Mirror {
 public:
  // Makes the entities, all empty. The storage mappings are the process's singleton.
  Mirror();

  // Brings what comes from the path up to date with the view.
  void apply(const Path& path, const View& view);

  const Zavro::Ptr<Kor::Dir>& reachabilityDir() const { return reachabilityDir_; }
  const Zavro::Ptr<Kor::Dir>& hostResourcesDir() const { return hostResourcesDir_; }
  const Zavro::Ptr<IntfSnmp::IfMib>& ifMib() const { return ifMib_; }
  const Zavro::Ptr<Trel::TopologyConfig>& topologyConfig() const { return topologyConfig_; }

  // The system's name; empty when the state gives none.
  const std::string& sysname() const { return sysname_; }
  [[nodiscard]] Kor::Subscription subscribeSysname(std::function<void()> callback) const {
    return sysnameNotifier_.subscribe(std::move(callback));
  }

 private:
  void applySysname(const Value* value);
  void applyLink(const Path& path, const View& view);
  void applyHost(const Path& path, const View& view);
  void applyReachability(const Path& path, const View& view);

  Zavro::Ptr<Kor::Dir> reachabilityDir_;
  Zavro::Ptr<Kor::Dir> hostResourcesDir_;
  Zavro::Ptr<IntfSnmp::IfMib> ifMib_;
  Zavro::Ptr<Trel::TopologyConfig> topologyConfig_;
  Zavro::Ptr<HostResourcesMib::StorageEntryMappings> mappings_;
  std::string sysname_;
  Kor::Notifier<> sysnameNotifier_;
};

}  // namespace Kelstore
