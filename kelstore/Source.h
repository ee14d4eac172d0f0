// Where state comes from. A source feeds one layer of the store and says how it is doing.
#pragma once

#include <cstdint>
#include <string>
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

struct SourceStatus {
  enum class State : uint8_t {
    loading,  // nothing is known yet
    current,  // all that the source says is held
    partial,  // held, but for values that cannot be used
    stale,    // the source cannot be read; what it said last is held
  };
  std::string name;  // as given on the command line
  State state = State::loading;
  uint64_t paths = 0;                       // values held
  uint64_t lastChangeUtcNs = 0;             // when they last changed; 0: never
  uint64_t staleSinceUtcNs = 0;             // 0: not stale
  std::string error;                        // one line; empty while the input is good
  std::vector<CollectorStatus> collectors;  // of a source that looks at several things
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
