// Whatever happens to wiring and indexes, and whenever: once it is quiet, the table is what the inputs
// define.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cstdio>
#include <deque>
#include <set>

#include "tests/oracle/Entities.h"
#include "tests/pipelines/IfTableWorld.h"
#include "tests/pipelines/PropertyRuns.h"

namespace TrelSnmp::Agent::IfTableProperty {
namespace {

struct Happening {
  enum Kind { wires, unwires, leaves, replaced, indexIs, indexDel, swaps, restarts, pauses, resumes };
  Kind kind;
  uint8_t local;
  uint8_t remote;
  uint8_t intf;
  uint8_t otherIntf;
  uint8_t ifIndex;
};

std::ostream& operator<<(std::ostream& out, const Happening& h) {
  static constexpr const char* kNames[] = {"wires",    "unwires", "leaves",   "replaced", "indexIs",
                                           "indexDel", "swaps",   "restarts", "pauses",   "resumes"};
  return out << kNames[h.kind] << " " << int{h.local} << "->" << int{h.remote} << " intf " << int{h.intf}
             << "/" << int{h.otherIntf} << " index " << int{h.ifIndex};
}

// Two that are no backplane channels, and some that are.
const char* const kIntfs[] = {"Backplane1", "Backplane2/1", "Backplane3",
                              "Backplane4", "Backplane",    "Ethernet1"};
constexpr uint8_t kIntfCount = 6;

// What is allowed to happen in a run.
struct Rules {
  Rvx::Mode mode = Rvx::Mode::asynchronous;
  bool contended = false;  // several links may claim one index
  bool restarts = false;   // over a table with stale rows
};

// Which pairs produce each index, as the inputs stand.
std::map<uint32_t, std::set<MemberIdPair>> producersIn(const IfTableWorld& world) {
  std::map<uint32_t, std::set<MemberIdPair>> pairs;
  for (const auto& [key, columns] : Oracle::interfaceRows(*world.topology, *world.ifMib)) {
    auto member = [&columns = columns](size_t column) {
      return static_cast<uint32_t>(columns[column].number);
    };
    pairs[key.first].insert({member(0), member(1)});
  }
  return pairs;
}

// The table by the ownership rule, one processed pair after the other. It follows the order of processing,
// which it reads off the traces, and takes all else from the inputs.
class OrderedModel final : public Lumalog::Sink {
 public:
  explicit OrderedModel(const IfTableWorld& world) : world_(world), before_(Lumalog::sink()) {
    Lumalog::sinkIs(this);
    Lumalog::levelIs("TrelSnmpIfTableSm", 7);
  }
  ~OrderedModel() override { Lumalog::sinkIs(before_); }

  void trace(const Lumalog::Line& line) override {
    unsigned local = 0;
    unsigned remote = 0;
    constexpr const char* kMerged =
        "trelIfTableStream = merge( topoConfigStream, ifMibIfIndexStream ): localMemberId=%u "
        "remoteMemberId=%u";
    if (std::sscanf(std::string(line.text).c_str(), kMerged, &local, &remote) == 2) process({local, remote});
  }

  std::string rows() const {
    std::string text = "[ ";
    for (const auto& [ifIndex, pair] : table_) {
      text += fmt::format("{}=({},{}) ", ifIndex, pair.firstId(), pair.secondId());
    }
    return text + "]";
  }

 private:
  void process(const MemberIdPair& pair) {
    std::optional<uint32_t> produced =
        Oracle::indexOfLink(*world_.topology, *world_.ifMib, Oracle::keyOf(pair));
    auto last = last_.find(pair);
    if (last != last_.end() && last->second != produced) {
      auto row = table_.find(last->second);
      if (row != table_.end() && row->second == pair) table_.erase(row);
    }
    if (last != last_.end()) last_.erase(last);
    if (!produced) return;
    last_[pair] = *produced;
    table_[*produced] = pair;
  }

  const IfTableWorld& world_;
  Lumalog::Sink* before_;
  std::map<MemberIdPair, uint32_t> last_;
  std::map<uint32_t, MemberIdPair> table_;
};

class Run {
 public:
  Run(std::deque<Happening> happenings, std::vector<bool> yields, Rules rules)
      : happenings_(std::move(happenings)), yields_(std::move(yields)), rules_(rules) {}

  void setUp(const std::vector<Happening>& before, const std::vector<Happening>& stale) {
    for (const Happening& h : before) apply(h);
    for (const Happening& h : stale) {
      if (!world_.mib->trelIfTable(h.ifIndex)) world_.mib->trelIfTableIs(h.ifIndex, h.local, h.remote);
    }
  }

  void play() {
    world_.scheduler.yieldWhen([this] { return yields_.empty() || yields_[yieldsUsed_++ % yields_.size()]; });
    world_.start(rules_.mode);
    do {
      world_.scheduler.drain([this] { applyNext(); });
      applyNext();
    } while (!happenings_.empty() || world_.scheduler.get()->runnable());
    world_.sm->hasNotificationActiveIs(true);
    world_.scheduler.drain();
  }

  const IfTableWorld& world() const { return world_; }

 private:
  void applyNext() {
    if (happenings_.empty()) return;
    Happening h = happenings_.front();
    happenings_.pop_front();
    apply(h);
  }

  // When no index is to be contended, each interface has its own range and each link its own interface.
  uint32_t indexOf(const Happening& h, uint8_t intf) const {
    return rules_.contended ? h.ifIndex : 10U * intf + h.ifIndex % 3;
  }
  bool taken(const std::string& intf, const Happening& h) const {
    for (auto m = world_.topology->topoConfig().begin(); m; m.next()) {
      const auto& neighbors = (*world_.topology->topoConfig().find(m.key()))->neighbor();
      for (auto n = neighbors.begin(); n; n.next()) {
        bool same = m.key().id() == h.local && n.key().id() == h.remote;
        if (!same && neighbors.find(n.key())->name() == intf) return true;
      }
    }
    return false;
  }

  void apply(const Happening& h) {
    std::string intf = kIntfs[h.intf];
    switch (h.kind) {
      case Happening::wires:
        if (rules_.contended || !taken(intf, h)) world_.wires(h.local, h.remote, intf);
        break;
      case Happening::unwires:
        world_.unwires(h.local, h.remote);
        break;
      case Happening::leaves:
        world_.leaves(h.local);
        break;
      case Happening::replaced:
        replaceAlike(h.local);
        break;
      case Happening::indexIs:
        world_.indexIs(intf, indexOf(h, h.intf));
        break;
      case Happening::indexDel:
        world_.indexDel(intf);
        break;
      case Happening::swaps:
        if (rules_.contended) swapIndexes(intf, kIntfs[h.otherIntf]);
        break;
      case Happening::restarts:
        restart();
        break;
      case Happening::pauses:
      case Happening::resumes:
        if (world_.sm) world_.sm->hasNotificationActiveIs(h.kind == Happening::resumes);
        break;
    }
  }

  void replaceAlike(uint8_t local) {
    Trel::TopoConfig* old = world_.member(local);
    if (old == nullptr) return;
    auto replacement = Zavro::makePtr<Trel::TopoConfig>(Trel::MemberId(local));
    for (auto n = old->neighbor().begin(); n; n.next()) {
      replacement->neighbor().set(n.key(), *old->neighbor().find(n.key()));
    }
    world_.topology->topoConfig().set(Trel::MemberId(local), replacement);
  }

  void swapIndexes(const std::string& a, const std::string& b) {
    const auto& indexes = world_.ifMib->ifIndexByIntfId();
    const uint32_t* ofA = indexes.find(Lanix::IntfId(a));
    const uint32_t* ofB = indexes.find(Lanix::IntfId(b));
    if (ofA == nullptr || ofB == nullptr) return;
    uint32_t wasA = *ofA;
    uint32_t wasB = *ofB;
    world_.indexIs(a, wasB);
    world_.indexIs(b, wasA);
  }

  void restart() {
    if (!world_.sm || !rules_.restarts) return;
    world_.sm->hasNotificationActiveIs(false);
    auto successor = world_.makePipeline(rules_.mode);
    world_.sm = successor;
    successor->hasNotificationActiveIs(true);
  }

  IfTableWorld world_;
  std::deque<Happening> happenings_;
  std::vector<bool> yields_;
  size_t yieldsUsed_ = 0;
  Rules rules_;
};

rc::Gen<Happening> anyHappening() {
  return rc::gen::build<Happening>(
      rc::gen::set(&Happening::kind,
                   rc::gen::map(rc::gen::weightedElement<int>({{8, Happening::wires},
                                                               {4, Happening::unwires},
                                                               {2, Happening::leaves},
                                                               {2, Happening::replaced},
                                                               {8, Happening::indexIs},
                                                               {3, Happening::indexDel},
                                                               {3, Happening::swaps},
                                                               {1, Happening::restarts},
                                                               {1, Happening::pauses},
                                                               {2, Happening::resumes}}),
                                [](int kind) { return static_cast<Happening::Kind>(kind); })),
      rc::gen::set(&Happening::local, rc::gen::inRange<uint8_t>(0, 4)),
      rc::gen::set(&Happening::remote, rc::gen::inRange<uint8_t>(0, 4)),
      rc::gen::set(&Happening::intf, rc::gen::inRange<uint8_t>(0, kIntfCount)),
      rc::gen::set(&Happening::otherIntf, rc::gen::inRange<uint8_t>(0, kIntfCount)),
      rc::gen::set(&Happening::ifIndex, rc::gen::inRange<uint8_t>(0, 6)));
}

// What holds in every order of processing: the cache is exactly what the pairs produce, each index that a
// pair produces has a row, which names such a pair, and the streams have caught up.
void checkInvariants(const IfTableWorld& world) {
  auto producers = producersIn(world);
  std::map<MemberIdPair, uint32_t> produced;
  for (const auto& [ifIndex, pairs] : producers) {
    for (const MemberIdPair& pair : pairs) produced[pair] = ifIndex;
  }
  const auto& cache = world.sm->cacheAttr0();
  RC_ASSERT((std::map<MemberIdPair, uint32_t>(cache.begin(), cache.end())) == produced);
  for (auto row = world.mib->trelIfTable().begin(); row; row.next()) {
    RC_ASSERT(producers.contains(row.key()));
    RC_ASSERT(
        producers.at(row.key()).contains({row.entry()->localMemberId(), row.entry()->remoteMemberId()}));
  }
  RC_ASSERT(world.mib->trelIfTable().size() == producers.size());
  size_t contended = 0;
  for (const auto& [ifIndex, pairs] : producers) contended += pairs.size() > 1 ? 1 : 0;
  RC_ASSERT(world.sm->conflicts().size() == contended);
  RC_ASSERT(world.sm->ready());
  RC_ASSERT(world.sm->idle());
  for (const BacklogBase* stream :
       {&world.sm->topoConfigStreamCodef(), &world.sm->ifMibIfIndexStreamCodef()}) {
    RC_ASSERT(stream->idle());
    RC_ASSERT(stream->generation() == stream->doneGen());
  }
}

std::string rowsByDefinition(const IfTableWorld& world) {
  std::string text = "[ ";
  for (const auto& [ifIndex, pairs] : producersIn(world)) {
    text += fmt::format("{}=({},{}) ", ifIndex, pairs.begin()->firstId(), pairs.begin()->secondId());
  }
  return text + "]";
}

void tableEqualsModel(Rules rules) {
  Lumalog::levelIs("*", -1);
  auto before = *rc::gen::container<std::vector<Happening>>(anyHappening());
  auto stale = *rc::gen::container<std::vector<Happening>>(anyHappening());
  auto happenings = *rc::gen::container<std::vector<Happening>>(anyHappening());
  auto yields = *rc::gen::arbitrary<std::vector<bool>>();
  Run run({happenings.begin(), happenings.end()}, yields, rules);
  std::optional<OrderedModel> model;
  if (rules.contended && !rules.restarts) model.emplace(run.world());
  run.setUp(before, rules.restarts ? stale : std::vector<Happening>());
  run.play();
  Lumalog::levelsReset();
  checkInvariants(run.world());
  if (model) RC_ASSERT(run.world().rows() == model->rows());
  if (!rules.contended) RC_ASSERT(run.world().rows() == rowsByDefinition(run.world()));
}

TEST(IfTablePropertyTest, LinksWithInterfacesOfTheirOwn_TableEqualsItsDefinition) {
  EXPECT_TRUE(rc::check("asynchronous, restarts", [] {
    tableEqualsModel({.mode = Rvx::Mode::asynchronous, .contended = false, .restarts = true});
  }));
}

TEST(IfTablePropertyTest, LinksWithInterfacesOfTheirOwn_SynchronousTableEqualsItsDefinition) {
  EXPECT_TRUE(rc::check("synchronous, restarts", [] {
    tableEqualsModel({.mode = Rvx::Mode::synchronous, .contended = false, .restarts = true});
  }));
}

TEST(IfTablePropertyTest, PairsThatContendForIndexes_TableFollowsTheOrderOfProcessing) {
  EXPECT_TRUE(rc::check("contended", [] {
    tableEqualsModel({.mode = Rvx::Mode::asynchronous, .contended = true, .restarts = false});
  }));
}

// The changes of the table in a run. Where steps are traced, each interface has a walk of its own.
std::string changesIn(Run run, const std::vector<Happening>& before, bool stepsTraced) {
  Lumalog::levelIs("TrelSnmpIfTableSm", stepsTraced ? 6 : -1);
  std::string changes;
  auto subscription = run.world().mib->publisher().subscribe([&](const TrelMib::Change& change) {
    const auto* row = dynamic_cast<const TrelIfEntry*>(change.entry.get());
    changes += row == nullptr
                   ? fmt::format("-{} ", std::get<uint32_t>(change.key))
                   : fmt::format("+{}=({},{}) ", row->key(), row->localMemberId(), row->remoteMemberId());
  });
  run.setUp(before, {});
  run.play();
  if (stepsTraced) RC_ASSERT(run.world().sm->linksByInterface().visited() == 0U);
  return changes;
}

void sameChangesWithAndWithoutIndex() {
  auto before = *rc::gen::container<std::vector<Happening>>(anyHappening());
  auto happenings = *rc::gen::container<std::vector<Happening>>(anyHappening());
  auto yields = *rc::gen::arbitrary<std::vector<bool>>();
  Rules rules;
  rules.mode = *rc::gen::element(Rvx::Mode::asynchronous, Rvx::Mode::synchronous);
  rules.contended = true;
  std::deque<Happening> all(happenings.begin(), happenings.end());
  Lumalog::Sink* sink = Lumalog::sink();
  Lumalog::sinkIs(nullptr);
  std::string with = changesIn({all, yields, rules}, before, false);
  std::string without = changesIn({all, yields, rules}, before, true);
  Lumalog::levelsReset();
  Lumalog::sinkIs(sink);
  RC_ASSERT(with == without);
}

TEST(IfTablePropertyTest, InterfacesWithAndWithoutAnIndexOfTheLinks_TheSameChangesInTheSameOrder) {
  EXPECT_TRUE(rc::check("with and without an index", sameChangesWithAndWithoutIndex));
}

TEST(IfTablePropertyTest, PairsThatContendOverRestarts_RowsNameProducersAndTheCacheIsExact) {
  EXPECT_TRUE(rc::check("contended, restarts", [] {
    tableEqualsModel({.mode = Rvx::Mode::asynchronous, .contended = true, .restarts = true});
  }));
}

}  // namespace
}  // namespace TrelSnmp::Agent::IfTableProperty
