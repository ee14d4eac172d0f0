// Calls on the keys of an etcd cluster, without gRPC. Client.h implements them.
#pragma once

#include <absl/status/statusor.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kelstore/etcd/KeySpace.h"
#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

// All keys of a range, in order, as they were at one revision.
struct Listing {
  std::vector<Record> records;
  int64_t revision = 0;
  uint64_t clusterId = 0;
};

struct Op {
  enum class What : uint8_t { put, del };
  What what = What::put;
  std::string key;
  std::string value = {};
  int64_t lease = 0;  // of a put: the lease that the key goes with; 0: none
};

struct Deletion {
  int64_t revision = 0;
  int64_t keys = 0;
  bool repeated = false;  // an earlier attempt, without an answer, may have deleted keys that are not counted
};

// What must be true of a key for a transaction to be carried out: the revision of its last change.
struct Precondition {
  std::string key;
  int64_t modRevision = 0;  // 0: there is no such key
};

enum class Right : uint8_t { read, readAndWrite };

// For one thread at a time. Errors are one line; Client.h says what their codes mean.
class Calls {
 public:
  // Operations in one transaction, by etcd's default configuration.
  static constexpr size_t kMaxTxnOps = 128;

  virtual ~Calls() = default;

  // Of the server that answers, such as "3.5.9".
  virtual absl::StatusOr<std::string> version() = 0;
  virtual absl::StatusOr<Listing> range(const KeyRange& keys) = 0;
  // put(), del() and txn() return the revision of the change; del() the latest one if there was nothing to
  // delete. lease: with which the key goes; 0: none.
  virtual absl::StatusOr<int64_t> put(const std::string& key, const std::string& value, int64_t lease) = 0;
  virtual absl::StatusOr<Deletion> del(const KeyRange& keys) = 0;
  // Carries out all operations in one revision, or none. Aborted: a precondition does not hold. Requires: no
  // key twice, at most kMaxTxnOps operations, and as many preconditions at most.
  virtual absl::StatusOr<int64_t> txn(const std::vector<Op>& ops,
                                      const std::vector<Precondition>& preconditions) = 0;

  // Who may do what, once the servers ask who it is. A user without password is who shows a certificate with
  // that name. AlreadyExists: there is such a user or role, which stays as it is.
  virtual absl::Status addUser(const std::string& user, const std::string& password) = 0;
  virtual absl::Status addRole(const std::string& role) = 0;
  // What the user or the role has already is no error.
  virtual absl::Status grantRole(const std::string& user, const std::string& role) = 0;
  virtual absl::Status grantKeys(const std::string& role, const KeyRange& keys, Right right) = 0;
  // From then on the servers ask. FailedPrecondition: no user root has the role root.
  virtual absl::Status askWhoItIs() = 0;
};

}  // namespace Kelstore::Etcd
