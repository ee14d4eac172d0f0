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
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "member/Differences.h"
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

  // Each has at most one call of the store under way, besides renewals, or one timer.
  enum class State : uint8_t {
    silent,      // nothing is to be said yet
    granting,    // a lease is asked for
    listing,     // what the store holds is read
    writing,     // a transaction is under way
    pausing,     // the next one waits for its interval
    published,   // all that is to be said stands in the store, which is looked at again after a while
    retrying,    // a call failed, and some time passes
    standingBy,  // another publisher has this member; some time passes
    looking,     // the same, and the store is read to see whether it still has
    leaving,     // it ends, as soon as the call under way has shown whether there is a lease
    givingBack,  // it ends, and the lease is given back
    ended,
  };

  struct Settings {
    uint8_t member = 1;
    std::vector<std::string> interfaces;  // the configured ones, and those that were since the start
    uint32_t ttlSeconds = 15;
    uint32_t intervalSeconds = 1;
    Runtime::Random random = Runtime::unforeseenRandom();  // that varies the delays
  };

  // Who is told, on the loop.
  struct Listener {
    std::function<void()> published;                   // once, when all that is to be said stands there
    std::function<void(const std::string&)> statusIs;  // one line for the operator, whenever it is another
  };

  // Io and clock outlive this; the store may be in use for longer, by a call that waits.
  Publisher(Settings settings, std::shared_ptr<LeaseStore> store, Runtime::Io& io, const Zavro::Clock& clock,
            Listener listener);
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

  State state() const { return state_; }

 private:
  using Lease = LeaseStore::Lease;
  // What does not work.
  enum class Trouble : uint8_t { call, renewal };

  // The only place where the state changes. With a time, elapsed() is called then, unless a state is entered
  // before.
  void enter(State state, uint64_t forMs = 0);
  void elapsed();
  bool callUnderWay() const;
  bool ending() const { return state_ >= State::leaving; }
  // Does what is to be done next. Requires: no call is under way, or it has just been answered.
  void step();

  void takeLease();
  void granted(Lease lease);
  void list();
  void readInState(State state, std::function<void(LeaseStore::Holdings)> take);
  void listed(LeaseStore::Holdings holdings);
  void standBy(Lease other);
  void waitForOther(Lease other);
  void look();
  void looked(const LeaseStore::Holdings& holdings);
  void write();
  void written(const std::vector<LeaseStore::Change>& changes, int64_t revision);
  void writeRefused(const absl::Status& error);
  void giveBack();
  void over(const absl::Status& error);

  void renewAfter(uint64_t milliseconds);
  void renew();
  void renewed(const absl::Status& answer);
  void leaseIsGone();
  void noteForeign();

  // Calls the store; then `take` is called with the answer, or `fail` with the error, unless either comes
  // after the end.
  template <class Answer>
  void call(std::function<absl::StatusOr<Answer>(LeaseStore&)> ask, std::function<void(Answer)> take,
            std::function<void(const absl::Status&)> fail = {});
  void callFailed(const absl::Status& error);
  void worked(Trouble trouble);
  void failed(const absl::Status& error, Trouble trouble);
  void tellEndpoint();
  void tellStatus();
  std::string status() const;

  uint64_t renewalMs() const;
  uint64_t msUntil(uint64_t whenNs) const;  // at least 1

  Settings settings_;
  std::shared_ptr<LeaseStore> store_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  Listener listener_;
  std::function<void()> ended_;
  std::optional<Content> content_;

  State state_ = State::silent;
  std::unique_ptr<Runtime::Io::Activity> timer_;  // of the state

  Owners owners_;  // of the keys: the lease that it has, if any, and those it takes over from
  std::unique_ptr<Runtime::Io::Activity> nextRenewal_;
  bool renewing_ = false;  // a call that no other waits for

  std::optional<LeaseStore::Holdings> holdings_;  // what the store holds, as far as it is known
  uint64_t lookAgainNs_ = 0;                      // when that is to be read again
  std::set<Kelstore::Path> foreign_;              // interfaces that are left alone, of which was told
  int64_t revision_ = 0;                          // of the last transaction
  uint64_t writableNs_ = 0;                       // when the next transaction may be made
  Lease rival_ = LeaseStore::kNoLease;            // of the publisher for which it stands by
  uint64_t endByNs_ = 0;

  Runtime::Backoff backoff_{kFirstRetryMs, kLastRetryMs, settings_.random};
  std::optional<Trouble> trouble_;
  std::string error_;  // of the trouble
  uint64_t troubleSinceNs_ = 0;
  std::string endpoint_;  // of which was told
  std::string status_;    // of which was told
  Runtime::OffLoop offLoop_{io_};
};

}  // namespace Member
