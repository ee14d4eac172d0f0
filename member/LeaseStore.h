// What the publisher needs of the cluster's store: keys that live as long as a lease.
//
// Every call waits for its answer, for a bounded time, on whatever thread it is made. A call that fails may
// have been carried out all the same. renew() and revoke() may be called while another call waits. Errors are
// one line; their codes count where it is said.
#pragma once

#include <absl/status/statusor.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelstore/Path.h"

namespace Member {

class LeaseStore {
 public:
  using Lease = int64_t;
  static constexpr Lease kNoLease = 0;

  struct Held {
    std::string text;
    Lease lease = kNoLease;  // with which the key goes
    int64_t revision = 0;    // of its last change
    bool operator==(const Held&) const = default;
  };
  using Holdings = std::map<Kelstore::Path, Held>;

  struct Change {
    Kelstore::Path path;
    std::optional<std::string> text;  // nothing: the key is deleted
  };
  // The key is as it was at its last change.
  struct Precondition {
    Kelstore::Path path;
    int64_t revision = 0;  // 0: there is no such key
  };

  virtual ~LeaseStore() = default;
  virtual absl::StatusOr<Lease> grant(std::chrono::seconds ttl) = 0;
  // NotFound: there is no such lease any more.
  virtual absl::Status renew(Lease lease) = 0;
  // There may be no such lease any more.
  virtual absl::Status revoke(Lease lease) = 0;
  // The keys below members/<member> and topology/<member>, and those of the interfaces.
  virtual absl::StatusOr<Holdings> list(uint8_t member, const std::vector<std::string>& interfaces) = 0;
  // All changes in one revision, which is returned, or none of them. Aborted: a precondition does not hold.
  // NotFound: there is no such lease any more. Requires: no path twice, at most kMaxChanges.
  virtual absl::StatusOr<int64_t> write(const std::vector<Change>& changes,
                                        const std::vector<Precondition>& preconditions, Lease lease) = 0;
  // Who answered last, for people to read.
  virtual std::string endpoint() const = 0;

  static constexpr size_t kMaxChanges = 128;
};

}  // namespace Member
