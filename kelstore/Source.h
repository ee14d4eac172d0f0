// Where state comes from. A source fills its layers of the layered state (LayeredState.h) and reports how it
// does. On the event loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Kelstore {

// A collector: it reads one kind of figure for a source, independently of the others.
struct CollectorStatus {
  enum class State : uint8_t {
    starting,  // no answer yet
    works,
    fails,  // the last answer was an error
    hangs,  // the last question has had no answer for too long
  };
  std::string name;
  State state = State::starting;
  uint64_t sinceUtcNs = 0;  // of the first failure, or question that hung, since it worked last; else 0
  std::string error;        // one line; empty unless it fails or hangs
};

const char* stateName(CollectorStatus::State state);

// What a store knows of one member of the cluster.
struct MemberStatus {
  std::string member;
  bool leased = false;                       // its keys go when its lease ends, which it has not yet
  std::optional<uint64_t> leaseLeftSeconds;  // at the last Source::refresh(); nothing: no answer
  uint64_t lastChangeUtcNs = 0;              // 0: nothing changed since it was listed
  uint64_t heldSinceUtcNs = 0;  // its lease ended by itself, and its values are held for a while; 0: no
  std::optional<double> clockAheadSeconds{};  // of ours; negative: behind; nothing: not known
  double clockErrorSeconds = 0;               // of that, about
  uint64_t leaseSeconds = 0;                  // for which the lease was granted; 0: not asked yet

  bool operator==(const MemberStatus&) const = default;
};

// How following a store goes.
struct StoreStatus {
  struct SetAside {
    std::string key;
    std::string error;
  };
  std::string state;             // "listing", "watching", "held" or "stale"
  std::string endpoint;          // the server that is followed; empty: none
  int64_t revision = 0;          // the latest that was handed over to be mirrored
  int64_t mirroredRevision = 0;  // the latest that is mirrored
  int64_t storeRevision = 0;     // the store's latest, which other keys than ours move on, too
  uint64_t heardUtcNs = 0;       // when the store said something last; 0: never
  uint64_t heldSinceUtcNs = 0;   // 0: not lost
  uint64_t staleSinceUtcNs = 0;  // 0: not stale
  std::string lastError;         // one line; kept when all is well again
  std::string otherStore;        // another store that answers in place of the one that was followed, and what
                                 // to do, in one line; empty: none
  std::vector<std::pair<std::string, uint64_t>> counters;
  uint64_t setAside = 0;           // values that cannot be used
  std::vector<SetAside> examples;  // the first of these
  std::vector<MemberStatus> members;
};

struct SourceStatus {
  enum class State : uint8_t {
    loading,  // nothing is known yet
    current,  // all of its values are known and used
    partial,  // the same, but for values that cannot be used, or collectors that do not work
    held,     // a store that is lost; its last values are used
    stale,    // the source cannot be read, or is lost for too long; its last values are used or withdrawn
  };
  std::string name;  // as given on the command line
  State state = State::loading;
  uint64_t paths = 0;                       // values held
  uint64_t setAside = 0;                    // values that cannot be used, or are too many
  uint64_t lastChangeUtcNs = 0;             // when they last changed; 0: never
  uint64_t staleSinceUtcNs = 0;             // 0: not stale
  std::string error;                        // one line; empty while the input is good
  std::vector<CollectorStatus> collectors;  // of a source that has them
  std::optional<StoreStatus> store;         // of a source that follows a store
};

const char* stateName(SourceStatus::State state);

class Source {
 public:
  virtual ~Source() = default;
  // Starts reading. Called once.
  virtual void start() = 0;
  virtual SourceStatus status() const = 0;
  // Finds out what status() shows but does not follow all the time. Calls `done` then, or when it takes too
  // long, once; not when the source is destroyed before.
  virtual void refresh(std::function<void()> done) { done(); }
  // Whether its own threads do their work: false once they have not answered for the time between two calls.
  // For the watchdog, which asks at regular intervals of several seconds.
  virtual bool alive() { return true; }
  // An operator says that the other store which status() shows counts. False: it shows none.
  virtual bool accept() { return false; }
};

}  // namespace Kelstore
