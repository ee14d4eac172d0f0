// Which links use an interface: a reverse index of the topology, for many interfaces one after the other.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/inlined_vector.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/trel/Topology.h"

namespace TrelSnmp::Agent {

class LinksByInterface {
 public:
  using Link = std::pair<Trel::MemberId, Trel::MemberId>;  // the local member, and its neighbour
  using Links = absl::InlinedVector<Link, 4>;

  // topology: may not be null.
  explicit LinksByInterface(Zavro::Ptr<const Trel::TopologyConfig> topology)
      : topology_(std::move(topology)) {}

  // The links over the interface, by local member, then by neighbour. Valid until the next call. The first
  // call, and the first one after a change of the topology, walks over all links.
  const Links& of(const Lanix::IntfId& intf);
  // Whether of() needs no walk.
  bool current() const { return current_; }
  // Frees what the walk collected.
  void clear();
  // How many links all walks have looked at.
  uint64_t visited() const { return visited_; }

 private:
  void walk();

  const Zavro::Ptr<const Trel::TopologyConfig> topology_;
  // By the address of the name: equal ids share it, and the topology keeps it alive.
  absl::flat_hash_map<const std::string*, Links> links_;
  std::vector<Kor::Subscription> changes_;
  bool current_ = false;
  uint64_t visited_ = 0;
};

}  // namespace TrelSnmp::Agent
