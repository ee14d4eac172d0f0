// Whatever happens to the inputs, and whenever: once it is quiet, the table equals what the inputs imply.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <deque>
#include <utility>

#include "tests/oracle/Entities.h"
#include "tests/pipelines/PropertyRuns.h"
#include "tests/pipelines/ReachabilityWorld.h"

namespace TrelSnmp::Agent {
namespace {

using State = Trel::ReachabilityState;

// One thing that happens. What its numbers mean depends on the kind.
struct Happening {
  enum Kind {
    reports,
    reannounces,
    withdraws,
    leaves,
    joinsEmpty,
    replacedAlike,
    wrongType,
    restarts,
    kinds
  };
  Kind kind;
  uint8_t member;
  uint8_t neighbour;
  uint8_t state;
};

std::ostream& operator<<(std::ostream& out, const Happening& h) {
  static constexpr const char* kNames[] = {"reports",    "reannounces",   "withdraws", "leaves",
                                           "joinsEmpty", "replacedAlike", "wrongType", "restarts"};
  return out << kNames[h.kind] << " " << int{h.member} << "->" << int{h.neighbour} << " "
             << Kor::nameOf(static_cast<State::State>(h.state));
}

// Member keys: two numbers that sort otherwise as text ("10" before "2"), and one that is no number.
const char* const kMembers[] = {"1", "10", "2", "x"};

class Run {
 public:
  Run(std::vector<Happening> happenings, std::vector<bool> yields, Rvx::Mode mode)
      : happenings_(happenings.begin(), happenings.end()), yields_(std::move(yields)), mode_(mode) {}

  void setUp(const std::vector<Happening>& before, const std::vector<Happening>& stale) {
    for (const Happening& h : before) apply(h);
    for (const Happening& h : stale) {
      MemberIdPair key(Trel::MemberId::fromString(kMembers[h.member]).id(), h.neighbour);
      if (!world_.mib->trelReachabilityTable(key)) {
        world_.staleRow(key.firstId(), key.secondId(), world_.record(static_cast<State::State>(h.state)));
      }
    }
  }

  void play() {
    world_.scheduler.yieldWhen([this] { return nextYield(); });
    world_.start(mode_);
    world_.scheduler.drain([this] { applyNext(); });
    while (!happenings_.empty()) {
      applyNext();
      world_.scheduler.drain([this] { applyNext(); });
    }
  }

  const ReachabilityWorld& world() const { return world_; }

 private:
  bool nextYield() {
    if (yields_.empty()) return true;
    bool yield = yields_[yieldsUsed_ % yields_.size()];
    ++yieldsUsed_;
    return yield;
  }

  void applyNext() {
    if (happenings_.empty()) return;
    Happening h = happenings_.front();
    happenings_.pop_front();
    apply(h);
  }

  void apply(const Happening& h) {
    std::string key = kMembers[h.member];
    auto state = static_cast<State::State>(h.state);
    Trel::ReachabilityStatus* entity = world_.member(key);
    switch (h.kind) {
      case Happening::reports:
        if (entity != nullptr || !world_.dir->entityPtr(key)) world_.reports(key, h.neighbour, state);
        break;
      case Happening::reannounces:
        if (entity == nullptr) break;
        if (auto* record = entity->reachabilityStatus().find(Trel::MemberId(h.neighbour))) {
          world_.reports(key, h.neighbour, ReachabilityWorld::Record(*record));
        }
        break;
      case Happening::withdraws:
        world_.withdraws(key, h.neighbour);
        break;
      case Happening::leaves:
        world_.leaves(key);
        break;
      case Happening::joinsEmpty:
        world_.joins(key);
        break;
      case Happening::replacedAlike:
        replaceAlike(key, entity);
        break;
      case Happening::wrongType:
        world_.dir->entityPtrIs(key, Zavro::makePtr<Kor::Dir>(key));
        break;
      case Happening::restarts:
        restart();
        break;
      case Happening::kinds:
        break;
    }
  }

  // A new entity under the same key, with the same records in it.
  void replaceAlike(const std::string& key, Trel::ReachabilityStatus* entity) {
    if (entity == nullptr) return;
    auto replacement = Zavro::makePtr<Trel::ReachabilityStatus>(key);
    for (auto n = entity->reachabilityStatus().begin(); n; n.next()) {
      replacement->reachabilityStatus().set(n.key(), *entity->reachabilityStatus().find(n.key()));
    }
    world_.dir->entityPtrIs(key, replacement);
  }

  // The pipeline is replaced over the filled table, as when an agent takes another's place.
  void restart() {
    if (!world_.sm) return;
    world_.sm->hasNotificationActiveIs(false);
    auto successor = world_.makePipeline(mode_);
    world_.sm = successor;
    successor->hasNotificationActiveIs(true);
  }

  ReachabilityWorld world_;
  std::deque<Happening> happenings_;
  std::vector<bool> yields_;
  size_t yieldsUsed_ = 0;
  Rvx::Mode mode_;
};

rc::Gen<Happening> anyHappening() {
  return rc::gen::build<Happening>(
      rc::gen::set(&Happening::kind,
                   rc::gen::map(rc::gen::weightedElement<int>({{8, Happening::reports},
                                                               {2, Happening::reannounces},
                                                               {4, Happening::withdraws},
                                                               {2, Happening::leaves},
                                                               {1, Happening::joinsEmpty},
                                                               {2, Happening::replacedAlike},
                                                               {1, Happening::wrongType},
                                                               {1, Happening::restarts}}),
                                [](int kind) { return static_cast<Happening::Kind>(kind); })),
      rc::gen::set(&Happening::member, rc::gen::inRange<uint8_t>(0, 4)),
      rc::gen::set(&Happening::neighbour, rc::gen::inRange<uint8_t>(0, 4)),
      rc::gen::set(&Happening::state, rc::gen::inRange<uint8_t>(0, Kor::kNames<State::State>.size())));
}

void tableEqualsInputs(Rvx::Mode mode) {
  Lumalog::levelIs("*", -1);
  auto before = *rc::gen::container<std::vector<Happening>>(anyHappening());
  auto stale = *rc::gen::container<std::vector<Happening>>(anyHappening());
  auto happenings = *rc::gen::container<std::vector<Happening>>(anyHappening());
  auto yields = *rc::gen::arbitrary<std::vector<bool>>();
  Run run(happenings, yields, mode);
  run.setUp(before, stale);
  run.play();
  Lumalog::levelsReset();
  const ReachabilityWorld& world = run.world();
  RC_ASSERT(Oracle::textOf(Oracle::rowsIn(world.mib->trelReachabilityTable())) ==
            Oracle::textOf(Oracle::reachabilityRows(*world.dir, *world.ifMib)));
  RC_ASSERT(run.world().sm->ready());
  RC_ASSERT(run.world().sm->idle());
}

TEST(ReachabilityPropertyTest, AnyChangesAtAnyYield_TableEqualsWhatInputsImply) {
  EXPECT_TRUE(rc::check("asynchronous", [] { tableEqualsInputs(Rvx::Mode::asynchronous); }));
}

TEST(ReachabilityPropertyTest, AnyChanges_SynchronousTableEqualsWhatInputsImply) {
  EXPECT_TRUE(rc::check("synchronous", [] { tableEqualsInputs(Rvx::Mode::synchronous); }));
}

}  // namespace
}  // namespace TrelSnmp::Agent
