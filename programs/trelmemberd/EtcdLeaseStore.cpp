#include "programs/trelmemberd/EtcdLeaseStore.h"

#include <utility>

#include "kelstore/Limits.h"
#include "kelstore/etcd/Endpoints.h"

namespace Member {
namespace {

namespace Etcd = Kelstore::Etcd;
using Kelstore::Kind;
using Kelstore::Path;

// Each client goes back to the member's own server some time after it had to leave it.
Etcd::Client clientFor(uint8_t member, const Etcd::Address& address, const Etcd::Access& access,
                       Etcd::Client::Options options) {
  options.goHomeAfter =
      std::chrono::milliseconds(Etcd::kGoHomeMs + Etcd::shareOf(member, Etcd::kGoHomeSpreadMs));
  return {Etcd::inOrderOf(member, address.endpoints), access, std::move(options)};
}

void add(const Etcd::KeySpace& keys, Etcd::Listing listing, LeaseStore::Holdings& holdings) {
  for (Etcd::Record& one : listing.records) {
    if (auto path = keys.path(one.key); path.ok()) {
      holdings[*std::move(path)] = {std::move(one.value), one.lease, one.modRevision};
    }
  }
}

}  // namespace

EtcdLeaseStore::EtcdLeaseStore(uint8_t member, const Etcd::Address& address, const Etcd::Access& access,
                               const Patience& patience)
    : member_(member),
      keys_(address.prefix),
      known_(std::make_shared<Etcd::KnownStore>()),
      // A larger value is none that a publisher wrote.
      calls_{.mutex = {},
             .client = clientFor(
                 member, address, access,
                 {.valueBytes = Kelstore::Limits().valueBytes, .hold = patience.hold, .known = known_})},
      renewals_{.mutex = {},
                .client = clientFor(member, address, access,
                                    {.deadline = patience.renewal, .hold = patience.hold, .known = known_})},
      revocations_{.mutex = {},
                   .client = clientFor(
                       member, address, access,
                       {.deadline = patience.revocation / 2, .hold = patience.hold, .known = known_})} {}

void EtcdLeaseStore::answered(const Etcd::Client& client) {
  std::lock_guard lock(answeringMutex_);
  answering_ = client.endpoint();
}

absl::StatusOr<LeaseStore::Lease> EtcdLeaseStore::grant(std::chrono::seconds ttl) {
  std::lock_guard lock(calls_.mutex);
  auto lease = calls_.client.grant(ttl);
  if (lease.ok()) answered(calls_.client);
  return lease;
}

absl::Status EtcdLeaseStore::renew(Lease lease) {
  std::lock_guard lock(renewals_.mutex);
  absl::Status status = renewals_.client.keepAliveOnce(lease).status();
  if (status.ok()) answered(renewals_.client);
  return status;
}

absl::Status EtcdLeaseStore::revoke(Lease lease, Why why) {
  std::lock_guard lock(revocations_.mutex);
  {
    std::lock_guard answeringLock(answeringMutex_);
    revocations_.client.prefer(answering_);
  }
  // Without the mark its keys are held for a while by those who follow them, and that is all.
  if (why == Why::leaves) {
    revocations_.client.put(keys_.leavingKey(member_), "{}", lease).IgnoreError();
  }
  absl::Status status = revocations_.client.revoke(lease);
  return absl::IsNotFound(status) ? absl::OkStatus() : status;
}

absl::StatusOr<LeaseStore::Holdings> EtcdLeaseStore::list(uint8_t member,
                                                          const std::vector<std::string>& interfaces) {
  std::lock_guard lock(calls_.mutex);
  Holdings holdings;
  for (const char* root : {"members", "topology"}) {
    auto listing = calls_.client.range(keys_.below(std::vector<std::string>{root, std::to_string(member)}));
    if (!listing.ok()) return listing.status();
    add(keys_, *std::move(listing), holdings);
  }
  std::vector<std::string> interfaceKeys;
  for (const std::string& interface : interfaces) {
    interfaceKeys.push_back(keys_.key(Path{Kind::interface, interface, ""}));
  }
  auto listing = calls_.client.getAll(interfaceKeys);
  if (!listing.ok()) return listing.status();
  add(keys_, *std::move(listing), holdings);
  answered(calls_.client);
  return holdings;
}

absl::StatusOr<int64_t> EtcdLeaseStore::write(const std::vector<Change>& changes,
                                              const std::vector<Precondition>& preconditions, Lease lease) {
  std::vector<Etcd::Op> ops;
  for (const Change& change : changes) {
    std::string key = keys_.key(change.path);
    if (change.text) {
      ops.push_back({Etcd::Op::What::put, std::move(key), *change.text, lease});
    } else {
      ops.push_back({Etcd::Op::What::del, std::move(key)});
    }
  }
  std::vector<Etcd::Precondition> conditions;
  for (const Precondition& precondition : preconditions)
    conditions.push_back({keys_.key(precondition.path), precondition.revision});
  std::lock_guard lock(calls_.mutex);
  auto revision = calls_.client.txn(ops, conditions);
  if (revision.ok()) answered(calls_.client);
  return revision;
}

std::string EtcdLeaseStore::endpoint() const {
  std::lock_guard lock(answeringMutex_);
  return answering_;
}

}  // namespace Member
