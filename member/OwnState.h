// All that this member publishes: its figures, the interfaces toward its neighbours, its configured links,
// and whether it reaches its neighbours. On the event loop's thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "kelstore/Snapshot.h"
#include "member/Config.h"
#include "member/Echo.h"
#include "member/LeaseStore.h"
#include "member/Links.h"
#include "member/MachineFigures.h"
#include "member/Neighbour.h"
#include "runtime/BoundedIo.h"

namespace Member {

class OwnState final {
 public:
  // What is said of a collector that does not work stays for so long, however often it changes: each change
  // is an event for all who follow the store.
  static constexpr uint64_t kUnreadStaysSeconds = 30;

  // changed: called when entries() may have changed. Links, io and clock outlive this.
  OwnState(const Config& config, std::shared_ptr<LocalMachine> machine, std::shared_ptr<EchoProbe> probe,
           const Links& links, Runtime::Io& io, const Zavro::Clock& clock, std::function<void()> changed);

  void start();
  struct NeighbourChanges {
    size_t same = 0;
    size_t changed = 0;  // in probe or ifIndex
    size_t added = 0;
    size_t gone = 0;
  };
  // Sets neighbours and intervals. What is known of a neighbour stays if its link is the same. Requires: it
  // was started.
  NeighbourChanges configIs(const Config& config);
  // Sets what an earlier process published: its reports on neighbours and loads of processors hold until this
  // one has found anything else. Values that cannot be used are ignored.
  void earlierIs(const LeaseStore::Holdings& holdings);
  // The devices may have changed.
  void linksChanged();
  // Whether entries() is complete: each figure was read, failed or hangs, and the devices are known.
  bool known() const { return figuresKnown_ && links_.known(); }
  // Whether an echo's thread hangs, which has a deadline.
  bool hangs() const { return echoes_.hangs(); }
  // The figures are those of the last look, but for the time of day and the uptime, which are those of now.
  std::vector<Kelstore::Snapshot::Entry> entries() const;

 private:
  std::unique_ptr<Neighbour> makeNeighbour(const NeighbourConfig& neighbour);
  void earlierIs(const Kelstore::Snapshot::Entry& entry);
  Kelstore::System asOfNow(Kelstore::System system) const;
  void addNeighbours(std::vector<Kelstore::Snapshot::Entry>& entries) const;
  void noteUnread(uint64_t nowNs);
  void addUnread(std::vector<Kelstore::Snapshot::Entry>& entries) const;
  void addEarlierLoads(std::vector<Kelstore::Snapshot::Entry>& entries) const;
  void looked();
  void tellSharedIndexes();

  Config config_;
  std::shared_ptr<EchoProbe> probe_;
  const Links& links_;
  Runtime::BoundedIo echoes_;
  const Zavro::Clock& clock_;
  std::function<void()> changed_;
  MachineFigures figures_;
  std::vector<std::unique_ptr<Neighbour>> neighbours_;
  std::vector<std::string> toldShared_;                     // of sharedIndexes()
  std::vector<Kelstore::Snapshot::Entry> figuresNow_;       // as of the last look
  uint64_t figuresAtNs_ = 0;                                // when that was
  std::map<Kelstore::Path, Kelstore::Value> earlierLoads_;  // that are not measured yet
  bool figuresKnown_ = false;                               // it had every figure that can be read
  // What is said of collectors that do not work, by name.
  struct Trouble {
    Kelstore::Unread said;
    uint64_t saidNs = 0;
    uint64_t lastNs = 0;  // when it was seen not to work
  };
  std::map<std::string, Trouble> unread_;
  std::optional<uint64_t> waitingSinceNs_;  // since when answers came that it does not have
};

}  // namespace Member
