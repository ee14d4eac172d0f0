// What a program may ask of an etcd cluster's keys; Client.h does it. Requests and answers, without gRPC.
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
  bool repeated = false;  // an endpoint that did not answer may have deleted more keys
};

// What must be so for a transaction to be carried out.
struct Precondition {
  std::string key;
  int64_t modRevision = 0;  // 0: there is no such key
};

// For one thread at a time. Errors are one line; Client.h says what their codes mean.
class Calls {
 public:
  // As many operations as etcd takes in one transaction unless it is told otherwise.
  static constexpr size_t kMaxTxnOps = 128;

  virtual ~Calls() = default;

  virtual absl::StatusOr<Listing> range(const KeyRange& keys) = 0;
  // These return the revision of the change; where there was nothing to delete, the latest.
  virtual absl::StatusOr<int64_t> put(const std::string& key, const std::string& value, int64_t lease) = 0;
  virtual absl::StatusOr<Deletion> del(const KeyRange& keys) = 0;
  // All of them in one revision, or none; none when a precondition does not hold. Requires: no key twice, at
  // most kMaxTxnOps operations and as many preconditions.
  virtual absl::StatusOr<int64_t> txn(const std::vector<Op>& ops,
                                      const std::vector<Precondition>& preconditions) = 0;
};

}  // namespace Kelstore::Etcd
