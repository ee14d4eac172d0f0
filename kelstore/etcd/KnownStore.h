// What the clients of a process know of their store, when they share it: once another store counts for one of
// them, it does for all, and the token of one is for all. On any thread.
#pragma once

#include <absl/status/statusor.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

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

  // The token that one of the clients has got, or else what `logIn` returns: a store takes a tenth of a
  // second for each password. `refused`: the last one that the caller knows, which is not wanted again. One
  // of them logs in at a time; the others wait for it. Unavailable: it did not end until `deadline`.
  absl::StatusOr<std::string> token(const std::optional<std::string>& refused,
                                    std::chrono::system_clock::time_point deadline,
                                    const std::function<absl::StatusOr<std::string>()>& logIn) {
    std::unique_lock lock(loggingIn_, deadline);
    if (!lock) return absl::UnavailableError("the login before this one has not ended");
    if (token_ && token_ != refused) return *token_;
    auto got = logIn();
    if (got.ok()) token_ = *got;
    return got;
  }

 private:
  mutable std::mutex mutex_;
  Header header_;
  std::timed_mutex loggingIn_;  // guards what follows
  std::optional<std::string> token_;
};

}  // namespace Kelstore::Etcd
