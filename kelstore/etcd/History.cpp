#include "kelstore/etcd/History.h"

#include <fmt/format.h>

#include <algorithm>

namespace Kelstore::Etcd {

void History::is(const Header& header, uint64_t nowMs) {
  clusterId_ = header.clusterId;
  raftTerm_ = header.raftTerm;
  confirmed(nowMs);
}

void History::heard(const Header& header) {
  if (header.clusterId == clusterId_) raftTerm_ = std::max(raftTerm_, header.raftTerm);
}

bool History::foreign(const Header& header, const Header& known) {
  if (known.clusterId == 0) return false;
  return header.clusterId != known.clusterId || header.revision < known.revision ||
         header.raftTerm < known.raftTerm;
}

std::string History::difference(const Header& header) const {
  if (header.clusterId != clusterId_)
    return fmt::format("found cluster {:x}, expected {:x}", header.clusterId, clusterId_);
  return fmt::format("found another history of cluster {:x} than was followed", clusterId_);
}

void History::confirmed(uint64_t nowMs) {
  confirmedMs_ = nowMs;
  left_ = 0;
}

}  // namespace Kelstore::Etcd
