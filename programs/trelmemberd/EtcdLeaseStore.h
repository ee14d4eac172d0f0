// The publisher's store in an etcd cluster.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/Client.h"
#include "kelstore/etcd/KeySpace.h"
#include "member/LeaseStore.h"

namespace Member {

class EtcdLeaseStore final : public LeaseStore {
 public:
  // How long calls are waited for, all servers together; those that are not named here for etcd's usual time.
  struct Patience {
    std::chrono::milliseconds renewal;
    std::chrono::milliseconds revocation;
  };
  EtcdLeaseStore(const Kelstore::Etcd::Address& address, const Kelstore::Etcd::Access& access,
                 const Patience& patience);

  absl::StatusOr<Lease> grant(std::chrono::seconds ttl) override;
  absl::Status renew(Lease lease) override;
  // Begins with the server that did last what it was asked.
  absl::Status revoke(Lease lease) override;
  // Keys whose path is none of the state model, or is not spelt as it is to be, are left out.
  absl::StatusOr<Holdings> list(uint8_t member, const std::vector<std::string>& interfaces) override;
  absl::StatusOr<int64_t> write(const std::vector<Change>& changes,
                                const std::vector<Precondition>& preconditions, Lease lease) override;
  std::string endpoint() const override;

 private:
  // A client is for one thread at a time.
  struct Locked {
    mutable std::mutex mutex;
    Kelstore::Etcd::Client client;
  };

  void answered(const Kelstore::Etcd::Client& client);

  const Kelstore::Etcd::KeySpace keys_;
  Locked calls_;
  // These wait for no other call.
  Locked renewals_;
  Locked revocations_;
  mutable std::mutex answeringMutex_;  // the last one that is locked; guards answering_
  std::string answering_;              // who answered last
};

}  // namespace Member
