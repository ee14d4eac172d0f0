// The store that the clients of a process know, when they share it: once another one counts for one of them,
// it does for all. On any thread.
#pragma once

#include <mutex>

#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

class KnownStore final {
 public:
  // What its last answer showed. Cluster 0: there was none.
  Header header() const {
    std::lock_guard lock(mutex_);
    return header_;
  }
  // What an answer shows to a call that began with `before`. No effect if another store counts since then.
  void is(const Header& header, const Header& before) {
    std::lock_guard lock(mutex_);
    if (header_.clusterId == before.clusterId) header_ = header;
  }

 private:
  mutable std::mutex mutex_;
  Header header_;
};

}  // namespace Kelstore::Etcd
