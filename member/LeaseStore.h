// What the publisher needs of the store: keys that live as long as a lease.
//
// On any thread. Every call waits for its answer, for a bounded time; renew() and revoke() may be called
// while another call waits. A call that fails may have been carried out. Errors are one line; only the codes
// that are named below matter.
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
    Lease lease = kNoLease;  // of the key
    int64_t revision = 0;    // of its last change
    bool operator==(const Held&) const = default;
  };
  using Holdings = std::map<Kelstore::Path, Held>;

  struct Change {
    Kelstore::Path path;
    std::optional<std::string> text;  // nothing: the key is deleted
  };
  // The revision of the key's last change.
  struct Precondition {
    Kelstore::Path path;
    int64_t revision = 0;  // 0: there is no such key
  };

  virtual ~LeaseStore() = default;
  virtual absl::StatusOr<Lease> grant(std::chrono::seconds ttl) = 0;
  // NotFound: the lease has ended.
  virtual absl::Status renew(Lease lease) = 0;
  enum class Why : uint8_t {
    leaves,    // the member does; those who follow its keys are told so
    standsBy,  // another publisher has the member
  };
  // The lease may have ended.
  virtual absl::Status revoke(Lease lease, Why why) = 0;
  // The keys below members/<member> and topology/<member>, and the keys of these interfaces.
  virtual absl::StatusOr<Holdings> list(uint8_t member, const std::vector<std::string>& interfaces) = 0;
  // Makes all changes in one revision, which it returns, or none. Aborted: a precondition does not hold.
  // NotFound: the lease has ended. Requires: no path twice; at most kMaxChanges changes, and as many
  // preconditions.
  virtual absl::StatusOr<int64_t> write(const std::vector<Change>& changes,
                                        const std::vector<Precondition>& preconditions, Lease lease) = 0;
  // The server that answered last, for people.
  virtual std::string endpoint() const = 0;

  static constexpr size_t kMaxChanges = 128;
};

}  // namespace Member
