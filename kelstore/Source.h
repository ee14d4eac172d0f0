// Where state comes from. A source feeds one layer of the store and says how it is doing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Kelstore {

// One of the things that a source looks at on their own, so that none holds up the others.
struct CollectorStatus {
  enum class State : uint8_t {
    starting,  // it did not answer yet
    works,
    fails,  // the last answer was an error
    hangs,  // no answer for longer than is usual
  };
  std::string name;
  State state = State::starting;
  uint64_t sinceUtcNs = 0;  // first of the failures in a row, or the question that hangs; 0: it works
  std::string error;        // one line; empty while it works
};

const char* stateName(CollectorStatus::State state);

// What a store tells of one member of the cluster.
struct MemberStatus {
  std::string member;
  bool leased = false;                       // what it published goes when its lease ends
  std::optional<uint64_t> leaseLeftSeconds;  // when the store was asked last; nothing: not asked yet
  uint64_t lastChangeUtcNs = 0;              // 0: nothing changed since it was listed

  bool operator==(const MemberStatus&) const = default;
};

// How following a store goes.
struct StoreStatus {
  struct SetAside {
    std::string key;
    std::string error;
  };
  std::string state;             // "listing", "watching", "held" or "stale"
  std::string endpoint;          // the server that is listened to; empty: none
  int64_t revision = 0;          // up to this one, what is known is handed on to be mirrored
  int64_t mirroredRevision = 0;  // up to this one, it is mirrored
  int64_t storeRevision = 0;     // the store's own, other keys than ours included
  uint64_t heardUtcNs = 0;       // the store's last word; 0: none yet
  uint64_t heldSinceUtcNs = 0;   // 0: not lost
  uint64_t staleSinceUtcNs = 0;  // 0: not stale
  std::string lastError;         // one line; stays when all is well again
  std::vector<std::pair<std::string, uint64_t>> counters;
  uint64_t setAside = 0;           // values that cannot be used
  std::vector<SetAside> examples;  // the first of these
  std::vector<MemberStatus> members;
};

struct SourceStatus {
  enum class State : uint8_t {
    loading,  // nothing is known yet
    current,  // all that the source says is held
    partial,  // held, but for values that cannot be used
    held,     // the source is out of reach for a while; what it said last is held
    stale,    // the source cannot be read; what it said last is held
  };
  std::string name;  // as given on the command line
  State state = State::loading;
  uint64_t paths = 0;                       // values held
  uint64_t setAside = 0;                    // values that cannot be used, or are too many
  uint64_t lastChangeUtcNs = 0;             // when they last changed; 0: never
  uint64_t staleSinceUtcNs = 0;             // 0: not stale
  std::string error;                        // one line; empty while the input is good
  std::vector<CollectorStatus> collectors;  // of a source that looks at several things
  std::optional<StoreStatus> store;         // of a source that is a store
};

const char* stateName(SourceStatus::State state);

class Source {
 public:
  virtual ~Source() = default;
  // Starts following the source.
  virtual void start() = 0;
  virtual SourceStatus status() const = 0;
};

}  // namespace Kelstore
