// Follows the keys of a store under a prefix: decides what to ask which server, and when, and which changes
// the answers mean. A state machine without I/O, clock or thread. Its user (Session.h) carries out the
// commands and reports what happens. Times are milliseconds on one monotonic clock.
//
// A listing reads all keys, page by page at one revision. A watch follows, from the next revision on. A watch
// that breaks is resumed at the next server, after the last revision that was applied whole; one read at that
// revision shows first that the server still has it, with the newest key that is known. If it has not, or
// refuses the watch, all keys are listed again, and the differences are applied: nothing is cleared first.
//
// A server with another history than the one that was followed (History.h) is left, and what is known stays
// until a server has that history again, or another one counts.
//
// Watches of etcd 3.4 may lose or repeat events, and answers to progress requests may overtake events. So an
// answer without events never advances the revision, a repeated event is dropped, and the resync reads all
// keys again, page by page, and repairs what differs. It reads the values only where their revisions differ;
// but those of all keys if the store may have been restored since they were compared last, as then a revision
// may have another value: after the store was lost, and after an election.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "kelstore/etcd/Endpoints.h"
#include "kelstore/etcd/History.h"
#include "kelstore/etcd/KeyTable.h"
#include "kelstore/etcd/Messages.h"
#include "kelstore/etcd/PageSize.h"
#include "runtime/Backoff.h"

namespace Kelstore::Etcd {

// Commands, to be carried out in order.
struct Connect {  // ends the present connection, and the calls on it
  std::string endpoint;
};
struct Disconnect {};
struct ReadPage {  // of the keys from `from` on; answered by pageRead() or pageFailed()
  std::string from;
  int64_t revision;  // 0: the latest
  int64_t limit;
  uint64_t number;
  bool keysOnly = false;  // without the values
};
struct OpenWatch {  // on all keys; answered by watchSaid()
  int64_t fromRevision;
};
struct RequestProgress {};  // on the watch
struct AskHome {            // over another connection, which a Connect to it may take over; answered by
  std::string endpoint;     // homeSaid() or homeFailed()
  std::string key;          // to be read there, as it was at the revision
  int64_t revision;
};
using Command = std::variant<Connect, Disconnect, ReadPage, OpenWatch, RequestProgress, AskHome>;

class Follower {
 public:
  enum class State : uint8_t {
    listing,   // all keys are being read
    watching,  // up to date
    held,      // the store is lost; its last word counts
    stale,     // the same, for holdMs at least
  };
  struct Settings {
    std::string prefix;                  // what all keys begin with
    std::vector<std::string> endpoints;  // at least one, the home first
    uint64_t holdMs = 300'000;
    uint64_t resyncMs = 60'000;
    KeyTable::GroupOf groupOf = {};      // limits of groups of keys
    size_t keys = KeyTable::kUnlimited;  // limit of all keys
    uint64_t place = 0;                  // number among all followers of the store (Endpoints.h)
  };
  struct Counters {
    uint64_t revisions = 0;       // applied from watches
    uint64_t events = 0;          // heard from watches
    uint64_t dropped = 0;         // of these, old, repeated or refused
    uint64_t resyncs = 0;         // that were completed
    uint64_t resyncFailures = 0;  // that were given up, since a page failed again and again
    uint64_t repairs = 0;         // keys that a resync found different
    uint64_t relists = 0;         // listings after the first
    uint64_t reconnections = 0;   // after the store had been lost
    uint64_t reopenings = 0;      // of watches that had not told what a resync then repaired
  };

  static constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();
  static constexpr uint64_t kAnswerMs = 10'000;      // how long an answer may take
  static constexpr uint64_t kFirstAnswerMs = 1'000;  // the same while nothing is known and there are other
                                                     // servers; doubled each time that all were tried
  static constexpr uint64_t kQuietMs = 5'000;        // a watch is silent: ask for progress
  static constexpr uint64_t kSilenceMs = 30'000;     // a watch is silent: it is lost
  static constexpr uint64_t kFailoverMs = 50;        // before the next server is tried
  static constexpr uint64_t kFirstRetryMs = 250;     // when all were tried; doubled each time
  static constexpr uint64_t kLastRetryMs = 10'000;   // up to this
  static constexpr uint64_t kStableMs = 10'000;      // a watch that lasted so long resets these delays
  static constexpr int64_t kResyncPageKeys = 500;
  static constexpr uint64_t kResyncPauseMs = 50;  // between two pages
  static constexpr uint64_t kResumedResyncMs =
      2'000;  // after a watch was resumed, at the earliest, before the first resync
  static constexpr uint64_t kGraceMs = 3'000;  // for an event that explains a difference to arrive

  // `random` varies the delays.
  Follower(Settings settings, Runtime::Random random);

  // What happens. Requires: first start() or startAfter(), once.
  void start(uint64_t nowMs);
  // Starts after the delay. `error` is lastError() until then.
  void startAfter(uint64_t delayMs, uint64_t nowMs, std::string error);
  // An answer to an earlier request than the last one is ignored.
  void pageRead(uint64_t nowMs, uint64_t number, Page page);
  void pageFailed(uint64_t nowMs, uint64_t number, PageFailure why, const std::string& error);
  void watchSaid(uint64_t nowMs, WatchResponse response);
  void lost(uint64_t nowMs, const std::string& error);  // the connection ended, or none was made
  void homeSaid(uint64_t nowMs, const Page& page);
  void homeFailed(uint64_t nowMs);
  void elapsed(uint64_t nowMs);  // wakeAtMs() has come
  // An operator says that the store of otherStore() counts. No effect if there is none.
  void accept(uint64_t nowMs);
  // Requires: not started. Goes on with the history that another follower knew, but not with its keys.
  void succeeds(const Follower& other);

  // The number of the page that is waited for; 0: none.
  uint64_t pageAsked() const { return page_; }
  // When to call elapsed(), at the latest; kNever: there is no need.
  uint64_t wakeAtMs() const;
  // Those since the last call.
  std::vector<Command> takeCommands() { return std::exchange(commands_, {}); }
  std::vector<Batch> takeBatches() { return std::exchange(batches_, {}); }

  State state() const;
  bool complete() const { return complete_; }  // all keys have been listed once
  bool goesHome() const { return goesHome_; }  // left a server for its home, without a fault of either
  // Nothing is known yet, and every server failed in turn, none of them only because its time was short.
  bool unreached() const { return !complete_ && triedInVain_ >= endpoints_.size(); }
  // Whether a server is watched, or has answered with a page of a listing.
  bool connected() const { return phase_ == Phase::watching || (phase_ != Phase::waiting && answered_); }
  const std::string& endpoint() const { return endpoints_.current(); }  // the current server
  int64_t revision() const { return applied_; }                         // the last that is applied
  int64_t storeRevision() const { return newest_; }                     // the latest that a server named
  uint64_t heardMs() const { return heardMs_; }                         // when a server said something last
  const std::string& lastError() const { return lastError_; }
  // While what is known is held: another store that answers in place of the known one, and what to do, in one
  // line. Empty: none was found.
  const std::string& otherStore() const { return otherStore_; }
  const Counters& counters() const { return counters_; }
  size_t keys() const { return table_.size(); }
  // See KeyTable.
  void compact() { table_.compact(); }
  const KeyTable::AllRefused& refused() const { return table_.refused(); }

 private:
  enum class Phase : uint8_t { waiting, listing, resuming, opening, watching };

  void connect(uint64_t nowMs);
  uint64_t patienceMs() const;
  void readPage(uint64_t nowMs, std::string from, int64_t revision, int64_t limit, bool keysOnly = false);
  void listOn(uint64_t nowMs);  // with the next page
  void openWatch(uint64_t nowMs);
  void listed(uint64_t nowMs, Page page);
  void relist(uint64_t nowMs, const std::string& why);
  void watches(uint64_t nowMs);
  void apply(const std::vector<Event>& events);
  void applyFinished();
  void giveCompared(Batch batch);
  // written: its revision has a put.
  bool applyEvent(const Event& event, bool written, std::vector<Change>& changes);
  bool foreign(const Header& header) const { return history_.foreign(header, replaced_ ? 0 : applied_); }
  bool contradicts(const std::vector<Record>& records, int64_t revision) const;
  void resumed(uint64_t nowMs, const Page& page);
  void otherStoreIs(uint64_t nowMs, const Header& header);
  void believe(uint64_t nowMs, const Header& header, const std::string& why);
  void heard(uint64_t nowMs, const Header& header);
  uint64_t retryDelayMs();
  // An error text that begins with the server.
  std::string ofServer(const std::string& what) const { return endpoint() + ": " + what; }

  // Why the watch cannot be resumed.
  std::string noRevision() const;

  void forgetFailures(uint64_t nowMs);
  void askHome();
  // When home is asked next.
  void goHomeLater(uint64_t nowMs);

  void resyncNext(uint64_t nowMs);
  void resynced(uint64_t nowMs, const Page& page);
  void resyncEnds(uint64_t atMs);
  void readValues(uint64_t nowMs);
  void settleSuspects(uint64_t nowMs);

  Settings settings_;
  Endpoints endpoints_;
  Runtime::Backoff backoff_;
  std::vector<Command> commands_;
  std::vector<Batch> batches_;

  Phase phase_ = Phase::waiting;
  bool complete_ = false;
  bool mustList_ = true;
  bool answered_ = false;  // the listing under way has its first page
  bool stale_ = false;
  uint64_t failures_ = 0;     // in a row
  uint64_t triedInVain_ = 0;  // the same, since a server was left that may be slow only
  uint64_t relistsInARow_ = 0;
  uint64_t retryAtMs_ = kNever;
  uint64_t answerByMs_ = kNever;   // of the page or the watch that was asked for
  uint64_t lostSinceMs_ = kNever;  // since when it does not watch, if it ever did
  uint64_t watchingSinceMs_ = 0;
  uint64_t heardMs_ = 0;
  uint64_t watchHeardMs_ = 0;
  bool askedForProgress_ = false;
  bool toldSinceCreated_ = false;  // the watch answered again after it was created
  uint64_t askHomeAtMs_ = kNever;
  Header homeAskedAt_;  // what was known then
  bool goesHome_ = false;
  std::string lastError_;
  Counters counters_;

  KeyTable table_;
  History history_;
  std::string newestKey_;  // that the server must have to be resumed; empty: none is known
  std::string otherStore_;
  std::string otherEndpoint_;  // where that is
  Header otherHeader_;         // what it said
  bool accepted_ = false;      // an operator said so; what is told of it is no error
  bool replaced_ = false;      // the history is that of another store than the keys, until it is listed
  int64_t applied_ = 0;
  int64_t newest_ = 0;
  PageSize pageSize_{PageSize::kUsual};
  uint64_t page_ = 0;   // that is asked for; 0: none
  uint64_t pages_ = 0;  // that were asked for
  Header listingAt_;
  std::string listFrom_;       // the next page of the listing
  std::vector<Event> events_;  // of an answer whose last fragment has not come yet

  struct Waiting {
    KeyTable::Suspect suspect;
    uint64_t untilMs;
    int64_t applied;  // when the page came
  };
  uint64_t resyncAtMs_ = kNever;  // the next resync, or the next page of the one under way
  bool resyncing_ = false;
  bool resyncPageAsked_ = false;
  bool resyncRead_ = false;  // its last page is there
  bool missed_ = false;      // the watch did not tell something that it should have told by now
  bool valuesDue_ = false;   // the next one compares all values
  bool withValues_ = false;  // the one under way reads them, from resyncFrom_ up to resyncTo_
  std::string resyncTo_;     // empty: up to the last key
  std::string differsFrom_;  // the first key that differs, and whose value was not read
  std::string differsTo_;    // the last; empty: there is none
  PageSize resyncSize_{kResyncPageKeys};
  Header resyncAskedAt_;  // what was known when its page was asked for
  std::string resyncFrom_;
  std::vector<Waiting> suspects_;
};

const char* stateName(Follower::State state);

}  // namespace Kelstore::Etcd
