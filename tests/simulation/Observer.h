// Follows a run as it happens and says as soon as something is wrong.
//
// It sees what anybody can see: the pipelines' traces, which say which element of which stream is being
// handled, and the publications of the MIB state object. From the traces it takes the order of events and
// nothing else; what an event has to do to the table follows from the state and from the rules of writing:
//
//   a value    the row of its key shows it; a row with another value goes first
//   no value   the row of its key goes
//   a link     its old index's row goes if it still names this link; then the new index's row names it
//
// So each publication must be the next thing that the event under way has to do, or the removal of a row that
// no element has claimed since the pipeline started; and each event must have done what it had to. What the
// events leave behind is compared with the oracle, which knows no events.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/TrelSnmpAgent.h"
#include "tests/oracle/Entities.h"
#include "tests/simulation/State.h"

namespace Simulation {

enum class PipelineId : uint8_t { ifTable, reachability, host, storage };
inline constexpr size_t kPipelines = 4;
inline constexpr std::array<PipelineId, kPipelines> kAllPipelines = {
    PipelineId::ifTable, PipelineId::reachability, PipelineId::host, PipelineId::storage};
const char* nameOf(PipelineId pipeline);
// The level of the traces that tell of events.
inline constexpr int kStatementLevel = 7;

// Which of the two sets each input and the MIB state object of a pipeline is of.
struct Wiring {
  uint8_t mib = 0;
  uint8_t ifMib = 0;
  uint8_t topology = 0;
  uint8_t reachabilityDir = 0;
  uint8_t hostResourcesDir = 0;
  uint8_t mappings = 0;
};

enum class Stream : uint8_t { link, reachability, system, processor, mount, memory };

// One element of a stream: the link (local, remote), or what a directory key's entity has under an item.
struct Element {
  Stream stream;
  uint32_t key;   // link: local member; otherwise the place of the directory key in kKeys
  uint32_t item;  // link: remote member; neighbour, processor index, place of the mount point
  bool operator==(const Element&) const = default;
  template <class Hash>
  friend Hash AbslHashValue(Hash hash, const Element& element) {
    return Hash::combine(std::move(hash), element.stream, element.key, element.item);
  }
  std::string text() const;
};

// The table whose rows a stream's elements have to do with.
TableId tableOf(Stream stream);

// One output of one pipeline's life.
struct OutputLife {
  TableId table;
  bool reconciling = false;  // rows of an earlier life may be left
  bool ready = false;        // as it was at the last look
  absl::flat_hash_set<Key> seen{};
  // The last event that had to do with each key.
  struct Touch {
    Element element;
    bool wrote;      // or withdrew
    uint64_t event;  // Life::events
  };
  absl::flat_hash_map<Key, Touch> touches{};
};

// What is known of a pipeline, from its construction to its end.
struct Life {
  PipelineId id;
  Wiring wiring;
  const TrelSnmp::Agent::Pipeline* pipeline = nullptr;  // null while it is being made
  bool active = true;
  std::vector<OutputLife> outputs;
  // Elements whose last event had a value: which, and of which entity.
  struct Handled {
    uint64_t value;
    uint64_t entity;
  };
  absl::flat_hash_map<Element, Handled> last;
  absl::flat_hash_map<Key, uint32_t> cache;  // by link: the index that its last event gave it
  // Whether the last event of the link that a row shows gave it that index.
  bool handled(const Oracle::Columns& link, uint32_t index) const {
    auto cached =
        cache.find(Key{static_cast<uint32_t>(link[0].number), static_cast<uint32_t>(link[1].number)});
    return cached != cache.end() && cached->second == index;
  }
  // Storage indexes whose mappings changed in this life: after how many events.
  absl::flat_hash_map<uint32_t, uint64_t> remapped;
  uint64_t events = 0;
  bool dirty = true;  // something happened since the last look

  OutputLife& output(TableId table);
};

class Observer final : public Lumalog::Sink {
 public:
  // log: gets a line for each trace and publication; may be empty.
  Observer(State& state, std::function<void(std::string_view)> log);
  ~Observer() override;

  // The first thing that was wrong; empty while all is well.
  const std::string& failure() const { return failure_; }
  void fail(std::string what);
  // Of all that was seen: equal runs have equal digests.
  uint64_t digest() const { return digest_; }
  void note(std::string_view what);
  uint64_t publications() const { return publications_; }

  // -- Told by whoever drives the run, who also says after which step something is due.

  // A pipeline is about to be made. Its predecessor is silent from now on; the new one takes over the
  // predecessor's rows if both write to the same MIB state object.
  void making(PipelineId id, const Wiring& wiring);
  void made(PipelineId id, const TrelSnmp::Agent::Pipeline* pipeline);
  // The call that follows drops the current pipeline and its rows. From when stored() is true, events are
  // those of the drop. The call may also make a successor: making().
  void leaving(PipelineId id, std::function<bool()> stored);
  void left(PipelineId id);
  // The current pipeline is detached; it may be dropped later.
  std::unique_ptr<Life> detached(PipelineId id);
  // Between these two the events are those of a detached pipeline that goes, with its rows.
  void dropping(Life& life);
  void dropped(std::unique_ptr<Life> life);
  void dropped(PipelineId id) { dropped(std::move(lives_[static_cast<size_t>(id)])); }
  // The current pipeline is silent from now on; its rows stay.
  void handedOver(PipelineId id);
  void handedOver(std::unique_ptr<Life> life) { buried_.push_back(std::move(life)); }
  void paused(PipelineId id);
  void resumed(PipelineId id);
  Life* current(PipelineId id) { return lives_[static_cast<size_t>(id)].get(); }
  // The mappings of a set change; each row under this index may be of the mapping before until an event has
  // to do with it.
  void remapped(size_t set, uint32_t index);
  // The inputs of such pipelines changed.
  void stateChanged(PipelineId id);
  // What the driver writes by itself until this is called with false.
  void ownWrites(bool own) { ownWrites_ = own; }

  // A step is over. settled: no task is due.
  void stepEnds(bool settled);

  // Rows as published.
  struct MirrorRow {
    Row row;
    uint64_t born = 0;  // the step since which there was a row under the key whenever anybody looked
  };
  using MirrorTable = std::map<Key, MirrorRow>;
  const MirrorTable& rows(size_t set, TableId table) const {
    return mirrors_[set].tables[static_cast<size_t>(table)];
  }
  uint64_t steps() const { return steps_; }
  // Somebody looked at a table.
  void looked() { ++looks_; }
  // Called after each publication that was in order.
  void onPublication(std::function<void()> callback) { onPublication_ = std::move(callback); }

  void trace(const Lumalog::Line& line) override;

 private:
  struct Mirror {
    std::array<MirrorTable, kTables> tables;
    std::array<uint32_t, kTables> versions{};
    std::array<bool, kTables> changed{};
  };
  // A row that went, in case that it comes back before anybody looks.
  struct Gone {
    size_t set;
    TableId table;
    Key key;
    uint64_t born;
    uint64_t looks;
  };
  struct Event {
    Life* life;
    Element element;
    std::optional<uint64_t> value;
  };
  struct Op {
    bool insert = false;
    Key key;
    Row row;
    bool operator==(const Op&) const = default;
  };
  // The event under way: what it has to do, and how far it is.
  struct Frame {
    Life* life;
    Element element;
    TableId table;
    Key key{};                 // the row's; link: of the row that is to be written
    std::optional<Row> row{};  // what the row is to show; none: it is to go
    std::optional<Key> old{};  // link: of the row that goes first if it is the link's
    // memory: the kinds of the mappings whose rows are still to be dealt with are those above this one
    std::optional<int32_t> lastKind{};
    uint32_t member = 0;
    int stage = 0;
    bool done = false;
  };

  void published(size_t set, const TrelSnmp::TrelMib::Change& change);
  bool justified(size_t set, TableId table, const Op& op);
  bool byReconciliation(size_t set, TableId table, const Op& op);
  bool byCacheOfDropped(size_t set, const Op& op);
  bool byEndOfAdopter(size_t set, TableId table, const Op& op);
  void applyToMirror(size_t set, TableId table, const Op& op);

  void event(const Event& event);
  void linkEvent(uint32_t local, uint32_t remote);
  std::optional<uint64_t> currentValue(const Life& life, const Element& element, uint64_t& entity) const;
  bool ownsOld(const Frame& frame) const;
  std::optional<Op> nextOp(Frame& frame);
  std::optional<Op> nextMemoryOp(const Frame& frame) const;
  void advance(const Op& op);
  void eventIsOver();
  void touch(Life& life, TableId table, const Key& key, const Element& element, bool wrote);
  bool mappedAnew(const Life& life, TableId table, const Key& key) const;
  Life* lifeFor(PipelineId id);
  bool isGoing(const Life& life) const;
  bool mayHandle(const Life& life) const;

  void checkMirrors();
  void checkLife(Life& life, bool settled);
  void checkOutput(Life& life, OutputLife& output);
  void checkRows(const Life& life, const OutputLife& output, const Oracle::Rows& claims);
  void checkLacking(const Life& life, const OutputLife& output, const Key& key);
  void checkEvents(const Life& life, TableId table);
  void checkLinks(const Life& life);
  bool outputReady(const Life& life, TableId table) const;
  Oracle::Rows claims(const Life& life, TableId table) const;
  std::unique_ptr<Life> newLife(PipelineId id, const Wiring& wiring);

  State& state_;
  const std::function<void(std::string_view)> log_;
  std::string failure_;
  uint64_t digest_ = 0;
  uint64_t publications_ = 0;
  std::array<Mirror, kSets> mirrors_;
  std::vector<Gone> gone_;
  std::array<Kor::Subscription, kSets> subscriptions_;
  std::array<std::unique_ptr<Life>, kPipelines> lives_;
  std::array<std::unique_ptr<Life>, kPipelines> leaving_;
  std::vector<std::unique_ptr<Life>> buried_;  // an event of theirs may be under way until the step is over
  std::function<bool()> stored_;
  std::array<Life*, kPipelines> dropping_{};
  std::optional<Frame> frame_;
  std::function<void()> onPublication_ = [] {};
  absl::flat_hash_map<std::string_view, uint32_t> keyPlaces_;
  absl::flat_hash_map<std::string_view, uint32_t> mountPlaces_;
  bool ownWrites_ = false;
  uint64_t steps_ = 1;
  uint64_t looks_ = 0;
};

}  // namespace Simulation
