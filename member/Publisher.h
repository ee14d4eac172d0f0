// Keeps this member's keys in the cluster's store equal to what the member has to say, all of them under one
// lease, which is renewed for as long as the event loop turns: when this process dies, or hangs, its keys go.
//
// Only what differs is written, in one transaction for each interval; more than 127 changed keys are several,
// one right after the other, so that a reader may see a part of them: etcd takes 128 operations and as many
// conditions, and one condition may stand for the member. It writes below members/<member> and
// topology/<member> and at the configured interfaces, nowhere else. Keys there that an earlier life of this
// member left behind are taken over, or deleted. An interface's key that lives under the lease of somebody
// else is left alone. When somebody else writes this member's keys under another lease, which is another
// publisher with the same member id, whoever came last goes on: this one gives its lease back and stands by
// until the other's keys are gone. What else may have become of the keys, by hand or with a store that was
// restored, is put right when they are read again, which happens every kLookAgainSeconds.
//
// While the store does not answer, it is tried with growing delays; what differs is written when it is back.
// On the event loop's thread; the store is called off it, each call on a thread of its own.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "member/LeaseStore.h"
#include "platform/zavro/Clock.h"
#include "runtime/Backoff.h"
#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Member {

class Publisher final {
 public:
  static constexpr uint64_t kLookAgainSeconds = 30;
  static constexpr uint64_t kFirstRetryMs = 250;  // after a call failed; doubled each time
  static constexpr uint64_t kLastRetryMs = 5000;  // up to this
  static constexpr uint64_t kEndingMs = 2000;     // how long the end waits for the store

  struct Settings {
    uint8_t member = 1;
    std::vector<std::string> interfaces;  // the configured ones, and those that were since the start
    uint32_t ttlSeconds = 15;
    uint32_t intervalSeconds = 1;
    Runtime::Random random = Runtime::unforeseenRandom();  // that varies the delays
  };

  // `published` is called on the loop when all that is to be said stands in the store, once. Io and clock
  // outlive this; the store may be in use for longer, by a call that waits.
  Publisher(Settings settings, std::shared_ptr<LeaseStore> store, Runtime::Io& io, const Zavro::Clock& clock,
            std::function<void()> published);
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // All that is to be said from now on; nothing is written before the first call.
  void contentIs(const std::vector<Kelstore::Snapshot::Entry>& entries);
  // From now on. What stands in the store for interfaces that are configured no longer goes with the content.
  void configured(const std::vector<std::string>& interfaces, uint32_t intervalSeconds);
  // Writes nothing any more and gives the lease back at once, so that the keys go; then calls `ended`, also
  // when that failed or is not answered in time. Only the first call counts. What is being written meanwhile
  // is refused without the lease, or goes with it.
  void end(std::function<void()> ended);

 private:
  using Lease = LeaseStore::Lease;
  using Content = std::map<Kelstore::Path, std::string>;
  // What does not work.
  enum class Trouble : uint8_t { call, renewal };

  // What is to be done next: one call of the store, or a pause.
  void step();
  void stepAfter(uint64_t milliseconds);
  void takeLease();
  void list();
  void listed(LeaseStore::Holdings holdings);
  void standBy(Lease other);
  void waitForOther();
  void write();
  void written(const std::vector<LeaseStore::Change>& changes, const LeaseStore::Written& result);
  void renewAfter(uint64_t milliseconds);
  void renew();
  void leaseIsGone();
  void giveBack();
  void over(const std::string& error);

  std::vector<LeaseStore::Change> differences() const;
  std::vector<LeaseStore::Guard> guards(const std::vector<LeaseStore::Change>& changes) const;
  std::set<Lease> otherLeases() const;
  bool ours(Lease lease) const { return lease == lease_ || predecessors_.contains(lease); }
  bool isForeign(const Kelstore::Path& path) const;
  void noteForeign();
  void lookAgain();

  // Calls the store; then `take` is called with the answer, or the failure is dealt with.
  template <class Answer>
  void call(std::function<Result<Answer>(LeaseStore&)> ask, std::function<void(Answer)> take);
  template <class Answer>
  void offLoop(std::function<Result<Answer>(LeaseStore&)> ask, std::function<void(Result<Answer>)> done);
  void worked(Trouble trouble);
  void failed(const std::string& error, Trouble trouble);
  void tellEndpoint();

  Settings settings_;
  std::shared_ptr<LeaseStore> store_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  std::function<void()> published_;
  std::function<void()> ended_;
  std::optional<Content> content_;

  bool calling_ = false;  // but for renew() and revoke()
  std::unique_ptr<Runtime::Io::Activity> next_;
  Lease lease_ = LeaseStore::kNoLease;
  std::set<Lease> predecessors_;  // of the keys that were there when the lease was taken
  bool takingOver_ = false;       // they are not known yet
  bool standingBy_ = false;
  bool listed_ = false;                            // whether what the store holds is known
  bool fresh_ = false;                             // and nothing was written since it was learnt
  LeaseStore::Holdings holdings_;                  // that
  std::set<Kelstore::Path> foreign_;               // interfaces that are left alone, of which was told
  std::unique_ptr<Runtime::Io::Activity> relist_;  // sooner, for these
  std::unique_ptr<Runtime::Io::Activity> nextLook_;
  int64_t revision_ = 0;  // of the last transaction
  bool givingBack_ = false;
  std::unique_ptr<Runtime::Io::Activity> ending_;  // until it is over
  bool writing_ = false;                           // what is being written did not fit one transaction
  uint64_t writableNs_ = 0;                        // when the next transaction may be made
  std::unique_ptr<Runtime::Io::Activity> nextRenewal_;
  bool renewing_ = false;

  Runtime::Backoff backoff_{kFirstRetryMs, kLastRetryMs, settings_.random};
  std::optional<Trouble> trouble_;
  uint64_t troubleSinceNs_ = 0;
  std::string endpoint_;  // of which was told
  Runtime::OffLoop offLoop_{io_};
};

}  // namespace Member
