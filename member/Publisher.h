// Keeps this member's keys in the store equal to its content. All of them have one lease, which is renewed
// while the event loop turns: when this process dies or hangs, its keys go.
//
// Only differences are written, in one transaction per interval; what changes all the time, packed and when
// it has changed by more than a little (Deadbands.h). More than 127 changed keys take several, one right
// after the other, and a reader may see a part of them: etcd accepts 128 operations and as many
// preconditions, one of which may be a key of the member. Keys below members/<member> and topology/<member>
// and those of the configured interfaces are written, no others.
//
// Of two publishers of a member, the one that started last publishes: until it has written once, a publisher
// takes over, or deletes, all keys of this member, whoever has them. From then on it takes over none under a
// lease that it does not know: it ends its own lease and is on standby until those keys are gone, even if its
// lease ended meanwhile and it has to begin anew. The key of an interface under somebody else's lease is left
// alone. The keys are read again every kLookAgainSeconds, and other changes, by hand or by a restored store,
// are corrected then.
//
// The lease is renewed every kRenewalMs, so that its end is noticed within that time. Its keys went with it:
// they are written anew under another one, without reading the store before, if none of them is there.
//
// Rows whose figures stand still never look alive: a transaction is carried out at least once in two thirds
// of the lease's time, with a small change, or a key that is written as it is if nothing changed. One whose
// answer was lost counts once its keys have been read. If none was carried out for the lease's time, for
// whatever reason, the lease is not renewed any more until one is; so all rows go within twice that time.
//
// Each transaction has a put, as those who follow take one that only deletes for the end of a lease.
//
// While the store does not answer, calls are repeated with growing delays. On the event loop's thread; each
// call of the store is on a thread of its own.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "member/Deadbands.h"
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
  static constexpr uint64_t kRenewalMs = 1000;
  static constexpr uint64_t kFirstRetryMs = 250;  // after a call failed; doubled each time
  static constexpr uint64_t kLastRetryMs = 5000;  // up to this
  static constexpr uint64_t kEndingMs = 2000;     // how long end() waits for the store
  static constexpr size_t kCausesTold = 20;       // of one trouble of the store, each once, are logged

  // A state has at most one call of the store under way or one timer. Renewals, and ending the lease on
  // standby, are extra.
  enum class State : uint8_t {
    silent,      // there is no content yet
    granting,    // a lease is requested
    listing,     // the keys in the store are read
    writing,     // a transaction is under way
    pausing,     // the next transaction waits for its interval
    published,   // the store holds the content; after a while it is read again
    retrying,    // a call failed; waits for the next attempt
    standby,     // another publisher has this member; waits for the next look
    looking,     // on standby; the keys are read to see whether the other publisher is gone
    leaving,     // end() waits for the call under way, which shows whether there is a lease
    givingBack,  // end() waits until the lease is revoked
    ended,
  };

  struct Settings {
    uint8_t member = 1;
    std::vector<std::string> interfaces;  // that are configured, or were since the start
    uint32_t ttlSeconds = 15;
    uint32_t intervalSeconds = 1;
    Runtime::Random random = Runtime::unforeseenRandom();  // varies delays
    bool handover = false;                                 // the keys stay at the end, for a successor
    Deadbands deadbands = {};
  };

  // Callbacks, on the loop.
  struct Listener {
    std::function<void()> published;                   // once, when the store holds the content
    std::function<void(const std::string&)> statusIs;  // one line for the operator, whenever it changes
    // Once, before the first write, with the keys that an earlier publisher left. May call contentIs().
    std::function<void(const LeaseStore::Holdings&)> earlierIs = {};
  };

  // Io and clock outlive this. A call that waits may use the store for longer.
  Publisher(Settings settings, std::shared_ptr<LeaseStore> store, Runtime::Io& io, const Zavro::Clock& clock,
            Listener listener);
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // Sets the content; the time of day and the uptime in it are those of now. Nothing is written before the
  // first call.
  void contentIs(const std::vector<Kelstore::Snapshot::Entry>& entries);
  // Sets the configuration. Keys of interfaces that were configured earlier are still deleted if the content
  // has none of them.
  void configured(const std::vector<std::string>& interfaces, uint32_t intervalSeconds,
                  const Deadbands& deadbands);
  // Stops writing and revokes the lease, so that the keys go; with `handover`, renews it instead, so that a
  // successor finds them, unless writes do not work. Then calls `ended`, also if that fails or takes longer
  // than kEndingMs. A transaction under way fails without the lease, or its keys go with it. Only the first
  // call counts.
  void end(std::function<void()> ended);

  State state() const { return state_; }

 private:
  using Lease = LeaseStore::Lease;
  // What fails.
  enum class Trouble : uint8_t { call, renewal };

  // All changes of the state are made here. forMs: elapsed() is called then, unless another state is entered
  // before; 0: it is not.
  void enter(State state, uint64_t forMs = 0);
  void elapsed();
  bool callUnderWay() const;
  bool ending() const { return state_ >= State::leaving; }
  // Takes the next step. Requires: no call is under way, or it has just been answered.
  void step();

  void takeLease();
  void granted(Lease lease);
  void list();
  void readInState(State state, std::function<void(LeaseStore::Holdings)> take);
  void listed(LeaseStore::Holdings holdings);
  void noteUnanswered(const LeaseStore::Holdings& holdings);
  void standBy(Lease other);
  void waitForOther(Lease other);
  void look();
  void looked(const LeaseStore::Holdings& holdings);
  void write();
  void sayWritten(std::vector<LeaseStore::Change>& changes) const;
  void readClock();
  std::vector<LeaseStore::Change> due();
  void written(const std::vector<LeaseStore::Change>& changes, int64_t revision);
  void writeRefused(const absl::Status& error);
  void giveBack();
  void over(const absl::Status& error);
  bool handsOver() const { return settings_.handover && !lapsing_; }

  void renewLater();
  void renew();
  void renewed(const absl::Status& answer);
  void noteSleep();
  bool mayRenew();
  void proven(uint64_t atNs);
  void leaseIsGone();
  void leaseEnds();
  void noteForeign();

  // Calls the store, then `take` with the answer or `fail` with the error; neither once the lease is being
  // revoked. Without `fail`, callFailed().
  template <class Answer>
  void call(std::function<absl::StatusOr<Answer>(LeaseStore&)> ask, std::function<void(Answer)> take,
            std::function<void(const absl::Status&)> fail = {});
  void callFailed(const absl::Status& error);
  void worked(Trouble trouble);
  void failed(const absl::Status& error, Trouble trouble);
  void tellEndpoint();
  void tellStatus();
  std::string status() const;

  uint64_t ttlNs() const;
  uint64_t proofNs() const { return ttlNs() / 3 * 2; }  // between two proofs that writes work
  uint64_t msUntil(uint64_t whenNs) const;              // at least 1

  Settings settings_;
  std::shared_ptr<LeaseStore> store_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  Listener listener_;
  std::function<void()> ended_;
  std::optional<Content> content_;
  uint64_t clockReadNs_ = 0;  // when its figures had the time of day

  State state_ = State::silent;
  std::unique_ptr<Runtime::Io::Activity> timer_;  // of the state

  Owners owners_;         // its own lease, if any, and those whose keys it takes over
  bool written_ = false;  // it has written once, and takes over no others
  std::unique_ptr<Runtime::Io::Activity> nextRenewal_;
  bool renewing_ = false;
  uint64_t renewalSetNs_ = 0;  // when the next renewal was planned
  uint64_t askedNs_ = 0;       // when the last transaction was asked for
  uint64_t provenNs_ = 0;      // when the last one was carried out, at the earliest, or the lease granted
  bool lapsing_ = false;       // the lease is not renewed, since no transaction is carried out
  std::string writeError_;     // of the last call that failed since then

  std::optional<LeaseStore::Holdings> holdings_;  // the keys in the store; nothing: they must be read
  uint64_t lookAgainNs_ = 0;                      // when to read them again
  SmallChanges small_;
  std::set<Kelstore::Path> foreign_;    // interfaces that are left alone; logged
  int64_t revision_ = 0;                // of the last transaction that is known to be carried out
  uint64_t writableNs_ = 0;             // when the next transaction may begin
  Lease rival_ = LeaseStore::kNoLease;  // of the publisher that has the member
  uint64_t endByNs_ = 0;

  Runtime::Backoff backoff_{kFirstRetryMs, kLastRetryMs, settings_.random};
  std::optional<Trouble> trouble_;
  std::string error_;             // of the trouble, the last one
  std::set<std::string> causes_;  // that were logged
  uint64_t troubleSinceNs_ = 0;
  std::string endpoint_;  // that was logged last
  std::string status_;    // that the listener has
  Runtime::OffLoop offLoop_{io_};
};

}  // namespace Member
