// The entities that the mirror fills, and what the schema needs to fill them. On the event loop's thread.
#pragma once

#include <charconv>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "kelstore/Path.h"
#include "platform/intfsnmp/IfMib.h"
#include "platform/kor/Dir.h"
#include "platform/kor/Notifier.h"
#include "platform/trel/Topology.h"

namespace Kelstore {

// The state, as the mirror reads it.
class View {
 public:
  virtual ~View() = default;
  // The value that counts at the path, or null. Valid until the state changes.
  virtual const Value* find(const Path& path) const = 0;
  // Whether there is a value of one of these kinds whose path's first variable segment is `first`.
  virtual bool any(std::span<const Kind> kinds, std::string_view first) const = 0;
};

struct Entities {
  Zavro::Ptr<Kor::Dir> reachability;   // a Trel::ReachabilityStatus for each member
  Zavro::Ptr<Kor::Dir> hostResources;  // a HostResources::HostResources for each member
  Zavro::Ptr<IntfSnmp::IfMib> ifMib;
  Zavro::Ptr<Trel::TopologyConfig> topologyConfig;
  Zavro::Ptr<HostResourcesMib::StorageEntryMappings> mappings;
  std::map<Path, Unread> unread;                   // whose collectors do not work
  std::map<Trel::MemberId, std::string> names;     // of the members' hosts
  std::map<Trel::MemberId, std::string> expected;  // who belongs to the cluster, by name or ""
  std::string sysname;                             // empty when the state gives none
  Kor::Notifier<> sysnameChanged;
};

// A path's segment as a collection's key. Requires: the segment is one that the path takes.
template <class Key>
Key keyOf(std::string_view segment) {
  if constexpr (std::is_integral_v<Key>) {
    Key number{};
    std::from_chars(segment.data(), segment.data() + segment.size(), number);
    return number;
  } else if constexpr (std::is_same_v<Key, Trel::MemberId>) {
    return Trel::MemberId::fromString(std::string(segment));
  } else {
    return Key(segment);
  }
}

// The entity of the path's member, created if it is missing; `appears` fills a new one before it enters the
// directory. Null if the view has no value for it; it has left the directory then. Its elements are not
// removed one by one: that it leaves tells its subscribers that all of them are gone. `value`: the view's, at
// the path.
template <class Entity>
Zavro::Ptr<Entity> memberEntity(Kor::Dir& dir, MemberEntity which, const Path& path, const Value* value,
                                const View& view, const std::function<void(Entity&)>& appears = {}) {
  std::string name(path.first());
  if (value == nullptr && !view.any(kindsIn(which), name)) {
    dir.entityPtrDel(name);
    return nullptr;
  }
  auto entity = boost::static_pointer_cast<Entity>(dir.entityPtr(name));
  if (entity) return entity;
  entity = Zavro::makePtr<Entity>(name);
  if (appears) appears(*entity);
  dir.entityPtrIs(entity);
  return entity;
}

}  // namespace Kelstore
