// All that this member publishes: its figures, the interfaces toward its neighbours, the topology as it is
// configured, and whether it reaches its neighbours. On the event loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "kelstore/Snapshot.h"
#include "member/Config.h"
#include "member/Echo.h"
#include "member/Links.h"
#include "member/MachineFigures.h"
#include "member/Neighbour.h"

namespace Member {

class OwnState final {
 public:
  // `changed` is called when entries() may differ from before. Links, io and clock outlive this.
  OwnState(const Config& config, std::shared_ptr<LocalMachine> machine, std::shared_ptr<EchoProbe> probe,
           const Links& links, Runtime::Io& io, const Zavro::Clock& clock, std::function<void()> changed);

  void start();
  struct NeighbourChanges {
    size_t same = 0;
    size_t changed = 0;  // in how they are asked, or shown
    size_t added = 0;
    size_t gone = 0;
  };
  // Neighbours and intervals are these from now on. What is known of a neighbour stays while its link is the
  // same. Requires: it was started.
  NeighbourChanges configIs(const Config& config);
  // The devices may differ from before.
  void linksChanged();
  // Whether entries() has had all that was heard of: until then what is missing may be there all the same.
  bool known() const { return figuresKnown_ && links_.known(); }
  // The figures of the system, which always change, are as they were at the last look that was due.
  std::vector<Kelstore::Snapshot::Entry> entries() const;

 private:
  std::unique_ptr<Neighbour> made(const NeighbourConfig& neighbour);
  void addNeighbours(std::vector<Kelstore::Snapshot::Entry>& entries) const;
  void looked();

  Config config_;
  std::shared_ptr<EchoProbe> probe_;
  const Links& links_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  std::function<void()> changed_;
  MachineFigures figures_;
  std::vector<std::unique_ptr<Neighbour>> neighbours_;
  std::vector<Kelstore::Snapshot::Entry> figuresNow_;  // as of the last look
  bool figuresKnown_ = false;                          // every figure was heard of, and is among these
  std::optional<uint64_t> waitingSinceNs_;             // answers that are not among them yet came
  uint64_t systemDueNs_ = 0;                           // when the next figures of the system are taken
};

}  // namespace Member
