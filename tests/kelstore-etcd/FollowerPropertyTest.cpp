// A follower and a store to which random things happen: writes, lost connections, events that are lost, told
// twice or in fragments, compaction, restores. Held against what the store says.
#include <gmock/gmock.h>

#include <algorithm>
#include <deque>
#include <optional>

#include "tests/kelstore-etcd/Answers.h"
#include "tests/support/Random.h"

namespace Kelstore::Etcd {
namespace {

using Content = std::map<std::string, Record>;
using Names = std::vector<std::string>;

// A store with all of its past.
struct ModelStore {
  uint64_t clusterId = 1;
  uint64_t term = 2;
  int64_t compacted = 0;
  std::vector<Content> contents{{}};           // by revision
  std::vector<std::vector<Event>> events{{}};  // that led there

  int64_t revision() const { return static_cast<int64_t>(contents.size()) - 1; }
  Header header() const { return {clusterId, revision(), term}; }
  const Content& content(int64_t at) const { return contents[static_cast<size_t>(at)]; }

  void write(const std::map<std::string, std::optional<std::string>>& changes, int64_t lease) {
    Content content = contents.back();
    std::vector<Event> happened;
    int64_t now = revision() + 1;
    for (const auto& [key, value] : changes) {
      if (!value && content.erase(key) == 0) continue;
      Record record{key, value.value_or(""), now, value ? lease : 0};
      if (value) content[key] = record;
      happened.push_back({record, !value});
    }
    if (happened.empty()) return;
    contents.push_back(std::move(content));
    events.push_back(std::move(happened));
  }
  void restore(int64_t to) {
    contents.resize(static_cast<size_t>(to) + 1);
    events.resize(contents.size());
    compacted = std::min(compacted, to);
    term = 1;
  }
};

struct Faults {
  bool loses = false;     // events
  bool restores = false;  // the store, from a copy
};

class Simulation {
 public:
  Simulation(uint32_t seed, Faults faults)
      : random_(seed),
        faults_(faults),
        follower_({"k", Names(1 + random_.below(3), "h:1"), 20'000, 10'000},
                  [this] { return static_cast<double>(random_.below(1000)) / 1000; }) {
    for (uint32_t i = 0; i < 8; ++i) store_.write({{stable(i), "0"}}, 0);
    firstRevision_ = store_.revision();
    follower_.start(now_);
    carryOut();
  }

  void step() {
    switch (random_.below(12)) {
      case 0:
      case 1:
      case 2:
        return write();
      case 3:
      case 4:
      case 5:
        return deliver();
      case 6:
      case 7:
        return answerPage(random_.below(12) == 0);
      case 8:
        if (random_.below(6) == 0) loseConnection();
        return;
      case 9:
        if (random_.below(6) == 0)
          store_.compacted = store_.revision() - random_.below(static_cast<uint32_t>(store_.revision()));
        return;
      case 10:
        if (faults_.restores && random_.below(10) == 0) restore();
        return;
      default:
        return advance(random_.below(3000));
    }
  }

  // No more faults: what is under way comes to its end, and a resync sees all of it.
  void heal() {
    faults_ = {};
    for (uint64_t end = now_ + 60'000; now_ < end;) {
      answerPage(false);
      while (!answers_.empty()) deliver();
      advance(250);
    }
  }

  std::map<std::string, std::string> shown() const { return shown_; }
  std::map<std::string, std::string> stored() const { return valuesOf(store_.content(store_.revision())); }
  const Follower& follower() const { return follower_; }
  bool lossless() const { return !everLost_; }
  int64_t revisionsWritten() const { return store_.revision() - firstListed_; }

 private:
  static std::string stable(uint32_t i) { return "k/stable" + std::to_string(i); }
  static std::map<std::string, std::string> valuesOf(const Content& content) {
    std::map<std::string, std::string> values;
    for (const auto& [key, record] : content) values[key] = record.value;
    return values;
  }

  void write() {
    std::map<std::string, std::optional<std::string>> changes;
    for (uint32_t i = 1 + random_.below(4); i > 0; --i) {
      if (random_.below(3) == 0) {
        changes[stable(random_.below(8))] = std::to_string(random_.below(100));
      } else {
        auto& change = changes["k/" + std::to_string(random_.below(12))];
        change.reset();
        if (random_.below(2) == 0) change = std::to_string(random_.below(100));
      }
    }
    store_.write(changes, random_.below(3));
    offer();
  }

  // Lets the watch have what it has not been told.
  void offer() {
    if (!watchFrom_) return;
    if (*watchFrom_ < store_.compacted) {
      answers_.push_back(watchCanceled(store_.header(), store_.compacted));
      watchFrom_.reset();
      return;
    }
    WatchResponse response;
    for (; *watchFrom_ <= store_.revision(); ++*watchFrom_) {
      for (const Event& event : store_.events[static_cast<size_t>(*watchFrom_)]) {
        bool lost = faults_.loses && random_.below(10) == 0;
        everLost_ |= lost;
        if (lost) continue;
        if (!response.events.empty() && random_.below(3) == 0) {
          response.fragment = true;
          response.header = store_.header();
          answers_.push_back(std::exchange(response, {}));
        }
        response.events.push_back(event);
      }
    }
    if (response.events.empty()) return;
    response.header = store_.header();
    answers_.push_back(response);
    if (random_.below(8) == 0) answers_.push_back(response);
  }

  void deliver() {
    if (answers_.empty()) return;
    WatchResponse response = answers_.front();
    answers_.pop_front();
    follower_.watchSaid(now_, std::move(response));
    carryOut();
  }

  void answerPage(bool fails) {
    if (!page_) return;
    uint64_t number = page_->number;
    std::optional<Page> page = read_ ? std::exchange(read_, {}) : read(*page_);
    page_.reset();
    if (fails || !page) {
      follower_.pageFailed(now_, number, fails ? PageFailure::other : PageFailure::noRevision, "failed");
    } else {
      follower_.pageRead(now_, number, std::move(*page));
    }
    carryOut();
  }

  // Nothing: there is no such revision.
  std::optional<Page> read(const ReadPage& asked) {
    int64_t at = asked.revision == 0 ? store_.revision() : asked.revision;
    if (at < store_.compacted || at > store_.revision()) return std::nullopt;
    Page page{store_.header(), {}, false};
    const Content& content = store_.content(at);
    size_t limit = std::min<size_t>(static_cast<size_t>(asked.limit), 1 + random_.below(12));
    for (auto i = content.lower_bound(asked.from); i != content.end(); ++i) {
      page.more = page.records.size() == limit;
      if (page.more) break;
      page.records.push_back(i->second);
      if (!asked.keysOnly) continue;
      page.records.back().value.clear();
      page.records.back().keyOnly = true;
    }
    return page;
  }

  void loseConnection() {
    follower_.lost(now_, "lost");
    carryOut();
  }

  // A store that is restored loses its connections.
  void restore() {
    everLost_ = true;
    int64_t least = std::max(firstRevision_, store_.compacted);
    store_.restore(least + random_.below(static_cast<uint32_t>(store_.revision() - least + 1)));
    if (random_.below(3) == 0) ++store_.clusterId;
    loseConnection();
  }

  // Events that are not lost are not on their way for longer than the resync waits for them.
  void advance(uint64_t ms) {
    for (uint64_t end = now_ + ms; now_ < end;) {
      uint64_t step = std::min<uint64_t>(end - now_, 1 + random_.below(1000));
      now_ += step;
      overdueMs_ = answers_.empty() ? 0 : overdueMs_ + step;
      if (overdueMs_ > 1500) {
        while (!answers_.empty()) deliver();
      }
      if (now_ >= follower_.wakeAtMs()) follower_.elapsed(now_);
      carryOut();
    }
  }

  void carryOut() {
    for (const Command& command : follower_.takeCommands()) {
      std::visit([this](const auto& one) { carryOut(one); }, command);
    }
    for (const Batch& batch : follower_.takeBatches()) show(batch);
  }
  void carryOut(const Connect& /*connect*/) { carryOut(Disconnect()); }
  void carryOut(const Disconnect& /*disconnect*/) {
    page_.reset();
    watchFrom_.reset();
    answers_.clear();
  }
  // What the server reads at once may still be overtaken by what the watch says.
  void carryOut(const ReadPage& page) {
    page_ = page;
    read_ = random_.below(2) == 0 ? read(page) : std::nullopt;
  }
  void carryOut(const OpenWatch& watch) {
    watchFrom_ = watch.fromRevision;
    answers_.push_back(watchCreated(store_.header()));
    if (firstListed_ == 0) firstListed_ = watch.fromRevision - 1;
    offer();
  }
  void carryOut(const AskHome& home) {
    std::optional<Page> page = random_.below(2) == 0 ? read({home.key, home.revision, 1, 0}) : std::nullopt;
    if (page) {
      follower_.homeSaid(now_, *page);
    } else {
      follower_.homeFailed(now_);
    }
  }
  void carryOut(const RequestProgress& /*request*/) {
    answers_.insert(answers_.begin() + random_.below(static_cast<uint32_t>(answers_.size()) + 1),
                    watchEvents(store_.header()));
  }

  void show(const Batch& batch) {
    for (const Change& change : batch.changes) {
      if (change.value) {
        shown_[change.key] = *change.value;
      } else {
        EXPECT_FALSE(change.key.starts_with("k/stable")) << "is missing, and was never deleted";
        shown_.erase(change.key);
      }
    }
    // While nothing is lost, what is shown is what the store held at one revision.
    if (everLost_) return;
    EXPECT_EQ(shown_, valuesOf(store_.content(batch.revision)));
  }

  Support::Random random_;
  Faults faults_;
  ModelStore store_;
  Follower follower_;
  uint64_t now_ = 1'000'000;
  uint64_t overdueMs_ = 0;
  bool everLost_ = false;
  int64_t firstRevision_ = 0;
  int64_t firstListed_ = 0;
  std::optional<ReadPage> page_;
  std::optional<Page> read_;          // the answer to it, if the server has read it already
  std::optional<int64_t> watchFrom_;  // the next revision that the watch is told
  std::deque<WatchResponse> answers_;
  std::map<std::string, std::string> shown_;
};

class FollowerPropertyTest : public testing::Test {
 protected:
  // What the runs came to, all together.
  Follower::Counters run(Faults faults) {
    Follower::Counters sum;
    for (uint32_t seed = 1; seed <= 300 && !HasFailure(); ++seed) {
      SCOPED_TRACE("seed " + std::to_string(seed));
      Simulation simulation(seed, faults);
      for (int i = 0; i < 600 && !HasFailure(); ++i) simulation.step();
      simulation.heal();
      EXPECT_EQ(simulation.shown(), simulation.stored());
      EXPECT_EQ(simulation.follower().state(), Follower::State::watching);
      const Follower::Counters& counters = simulation.follower().counters();
      if (simulation.lossless()) {
        EXPECT_EQ(counters.repairs, 0u);
        if (counters.relists == 0) {
          EXPECT_EQ(static_cast<int64_t>(counters.revisions), simulation.revisionsWritten());
        }
      }
      sum.repairs += counters.repairs;
      sum.relists += counters.relists;
      sum.dropped += counters.dropped;
      sum.reconnections += counters.reconnections;
      sum.resyncs += counters.resyncs;
    }
    return sum;
  }
};

TEST_F(FollowerPropertyTest, NothingIsLost_WhatIsShownIsAlwaysOneRevision) {
  Follower::Counters sum = run({});
  EXPECT_EQ(sum.repairs, 0u);
  EXPECT_GT(sum.relists, 0u);
  EXPECT_GT(sum.dropped, 0u);
  EXPECT_GT(sum.reconnections, 0u);
  EXPECT_GT(sum.resyncs, 0u);
}

TEST_F(FollowerPropertyTest, EventsAreLost_TheResyncRepairsThem) {
  EXPECT_GT(run({.loses = true}).repairs, 0u);
}

TEST_F(FollowerPropertyTest, StoreIsRestored_WhatItHoldsIsShown_AndNoOtherRowIsEverMissing) {
  EXPECT_GT(run({.restores = true}).relists, 0u);
}

TEST_F(FollowerPropertyTest, Everything_ItEndsAsTheStoreSays) { run({.loses = true, .restores = true}); }

}  // namespace
}  // namespace Kelstore::Etcd
