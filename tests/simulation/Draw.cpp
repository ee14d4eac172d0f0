#include "tests/simulation/Draw.h"

#include <algorithm>
#include <array>
#include <vector>

#include "tests/simulation/Universe.h"
#include "tests/support/Random.h"

namespace Simulation {
namespace {

struct Weight {
  Kind kind;
  uint32_t weight;
};

// How often each kind of step is drawn, all in all. Each seed makes some kinds rarer or leaves them out, so
// that the others meet more often (swarm testing).
constexpr std::array kWeights = {
    Weight{Kind::report, 60},      Weight{Kind::reportAgain, 10}, Weight{Kind::reportCopied, 8},
    Weight{Kind::withdraw, 25},    Weight{Kind::reachJoin, 20},   Weight{Kind::reachAlike, 6},
    Weight{Kind::reachSame, 5},    Weight{Kind::reachWrong, 5},   Weight{Kind::reachLeave, 10},
    Weight{Kind::reachReturn, 5},  Weight{Kind::reachOutside, 5}, Weight{Kind::wire, 40},
    Weight{Kind::unwire, 15},      Weight{Kind::topoJoin, 15},    Weight{Kind::topoAlike, 5},
    Weight{Kind::topoSame, 4},     Weight{Kind::topoLeave, 6},    Weight{Kind::ifIndex, 45},
    Weight{Kind::ifIndexDel, 15},  Weight{Kind::figures, 10},     Weight{Kind::load, 30},
    Weight{Kind::loadAgain, 6},    Weight{Kind::loadDel, 12},     Weight{Kind::mount, 30},
    Weight{Kind::mountAgain, 6},   Weight{Kind::unmount, 12},     Weight{Kind::memory, 15},
    Weight{Kind::memoryAgain, 4},  Weight{Kind::memoryDel, 6},    Weight{Kind::hostJoin, 20},
    Weight{Kind::hostAlike, 5},    Weight{Kind::hostSame, 4},     Weight{Kind::hostWrong, 4},
    Weight{Kind::hostLeave, 8},    Weight{Kind::hostReturn, 4},   Weight{Kind::hostOutside, 4},
    Weight{Kind::mapMount, 15},    Weight{Kind::unmapMount, 5},   Weight{Kind::mapMemory, 10},
    Weight{Kind::unmapMemory, 4},  Weight{Kind::clock, 10},       Weight{Kind::slice, 150},
    Weight{Kind::drain, 12},       Weight{Kind::agentIs, 6},      Weight{Kind::agentDel, 1},
    Weight{Kind::agentRelease, 2}, Weight{Kind::control, 2},      Weight{Kind::startSMs, 3},
    Weight{Kind::pipelineIs, 8},   Weight{Kind::pipelineDel, 4},  Weight{Kind::pipelineRelease, 4},
    Weight{Kind::pause, 6},        Weight{Kind::resume, 10},      Weight{Kind::status, 2},
    Weight{Kind::stale, 3},        Weight{Kind::walkFirst, 25},   Weight{Kind::walkNext, 110},
    Weight{Kind::walkHold, 35},    Weight{Kind::walkRead, 60},    Weight{Kind::walkDrop, 20},
    Weight{Kind::walkEnd, 4},
};

// Some of the places below count.
std::vector<uint32_t> some(Support::Random& random, size_t count, uint32_t most) {
  std::vector<uint32_t> places(count);
  for (uint32_t i = 0; i < count; ++i) places[i] = i;
  random.shuffle(places);
  places.resize(std::min<size_t>(count, 1 + random.below(most)));
  return places;
}

class Drawing {
 public:
  explicit Drawing(uint64_t seed) : random_(seed) {
    aliases_ = random_.percent(40);
    keys_ = some(random_, aliases_ ? kKeys.size() : kPlainKeys, 7);
    members_ = some(random_, kMembers.size(), 6);
    interfaces_ = some(random_, kInterfaces.size(), 8);
    ifIndexes_ = some(random_, kIfIndexes.size(), 10);
    processors_ = some(random_, kProcessors.size(), 5);
    mounts_ = some(random_, kMounts.size(), 5);
    kinds_ = some(random_, kMemoryKinds.size(), 5);
    storageIndexes_ = some(random_, kStorageIndexes.size(), 8);
    // One index for each interface and each mapping, or whichever.
    indexesCollide_ = random_.percent(40);
    nestPercent_ = random_.percent(50) ? 0 : random_.percent(70) ? 8 : 25;
    otherSetPercent_ = random_.percent(50) ? 0 : 25;
    yieldMode_ = random_.below(kYieldModes + 1);
    for (const Weight& weight : kWeights) {
      uint32_t factor = random_.percent(12) ? 0 : random_.percent(20) ? 1 : 5;
      total_ += weight.weight * factor;
      ends_.push_back(total_);
    }
  }

  std::vector<Step> steps() {
    std::vector<Step> steps;
    // Often there is a cluster before there is an agent, and sometimes rows.
    uint32_t before = random_.percent(70) ? random_.below(60) : 0;
    while (steps.size() < before) {
      Step step = draw();
      if (step.kind < Kind::clock || step.kind == Kind::stale) steps.push_back(step);
    }
    steps.push_back({.kind = Kind::agentIs, .value = agentBits()});
    if (random_.percent(75)) steps.push_back({.kind = Kind::status, .value = 1});
    if (random_.percent(60))
      steps.push_back({.kind = Kind::drain, .key = mode(), .item = 400, .value = any()});
    size_t count = 200 + random_.below(1800);
    while (steps.size() < count) steps.push_back(draw());
    return steps;
  }

 private:
  uint32_t any() { return static_cast<uint32_t>(random_.any() >> 40); }
  uint32_t of(const std::vector<uint32_t>& places) { return random_.of(places); }
  uint32_t mode() { return yieldMode_ < kYieldModes ? yieldMode_ : random_.below(kYieldModes); }
  uint32_t set() { return random_.percent(otherSetPercent_) ? 1 : 0; }
  // Mostly the first set's.
  uint32_t agentBits() {
    uint32_t bits = 0;
    for (uint32_t bit = 0; bit < 6; ++bit) bits |= set() << bit;
    return random_.percent(70) ? bits & ~1U : bits;
  }
  Kind kind() {
    if (total_ == 0) return Kind::slice;
    uint32_t at = random_.below(total_);
    size_t place = static_cast<size_t>(std::upper_bound(ends_.begin(), ends_.end(), at) - ends_.begin());
    return kWeights[place].kind;
  }

  Step draw() {
    Step step{.kind = kind(), .set = 0, .key = 0, .item = 0, .value = any(), .within = 0};
    if (step.kind < Kind::clock) {
      step.set = set();
      drawState(step);
    } else {
      drawDoing(step);
    }
    // Drawn for all steps that are made on their own account, so that one does not depend on another's kind.
    bool draws = step.kind < Kind::slice || step.kind >= Kind::walkFirst || step.kind == Kind::pause ||
                 step.kind == Kind::resume;
    if (draws && random_.percent(nestPercent_)) {
      uint32_t within = 1 + random_.below(6);
      if (step.kind >= Kind::walkFirst) step.within = within;
    }
    return step;
  }

  void drawState(Step& step) {
    switch (step.kind) {
      case Kind::reportCopied:
        step.value = of(keys_);
        [[fallthrough]];
      case Kind::report:
      case Kind::reportAgain:
      case Kind::withdraw:
      case Kind::reachJoin:
      case Kind::reachAlike:
      case Kind::reachSame:
      case Kind::reachWrong:
      case Kind::reachLeave:
      case Kind::reachReturn:
      case Kind::reachOutside:
        step.key = of(keys_);
        step.item = of(members_);
        break;
      case Kind::wire:
      case Kind::unwire:
        step.item = of(members_);
        step.value = of(interfaces_);
        [[fallthrough]];
      case Kind::topoJoin:
      case Kind::topoAlike:
      case Kind::topoSame:
      case Kind::topoLeave:
        step.key = of(members_);
        break;
      case Kind::ifIndex:
      case Kind::ifIndexDel:
        step.item = of(interfaces_);
        step.value = indexesCollide_ ? of(ifIndexes_) : step.item;
        break;
      case Kind::mapMount:
      case Kind::unmapMount:
        step.item = of(mounts_);
        step.value = indexesCollide_ ? of(storageIndexes_) : step.item;
        break;
      case Kind::mapMemory:
      case Kind::unmapMemory:
        step.item = of(kinds_);
        step.value = indexesCollide_ ? of(storageIndexes_) : kMounts_ + step.item;
        break;
      case Kind::mount:
      case Kind::mountAgain:
      case Kind::unmount:
        step.key = of(keys_);
        step.item = of(mounts_);
        break;
      case Kind::hostOutside:
        step.item = random_.below(kProcessors.size());
        break;
      default:  // of a host's processors, its memory and the host itself
        step.key = of(keys_);
        step.item = of(processors_);
    }
  }

  void drawDoing(Step& step) {
    switch (step.kind) {
      case Kind::clock:
        step.value = random_.below(random_.percent(80) ? 10'000 : 100'000'000);
        break;
      case Kind::slice:
        step.item = random_.below(8);
        step.key = mode();
        break;
      case Kind::drain:
        step.item = 1 + random_.below(60);
        step.key = mode();
        break;
      case Kind::agentIs:
        step.value = agentBits();
        break;
      case Kind::agentDel:
        step.item = random_.below(2);
        step.value = 0;
        break;
      case Kind::pipelineIs:
        step.key = random_.below(kPipelines_);
        step.value = agentBits();
        step.item = random_.below(1U << 16);
        break;
      case Kind::pipelineDel:
      case Kind::pipelineRelease:
      case Kind::pause:
      case Kind::resume:
        step.key = random_.below(kPipelines_);
        step.item = random_.below(2);
        step.value = 0;
        break;
      case Kind::status:
        step.set = set();
        step.value = random_.below(2);
        break;
      case Kind::stale:
        step.set = random_.below(2);
        step.key = random_.below(kTables_);
        break;
      case Kind::walkFirst:
        step.key = random_.below(kTables_);
        [[fallthrough]];
      case Kind::walkNext:
      case Kind::walkHold:
      case Kind::walkRead:
      case Kind::walkDrop:
      case Kind::walkEnd:
        step.item = random_.below(4);
        if (step.kind == Kind::walkHold) step.value = random_.below(3);
        break;
      default:
        break;
    }
  }

  static constexpr uint32_t kPipelines_ = 4;
  static constexpr uint32_t kTables_ = 5;
  static constexpr uint32_t kMounts_ = kMounts.size();

  Support::Random random_;
  bool aliases_;
  std::vector<uint32_t> keys_, members_, interfaces_, ifIndexes_, processors_, mounts_, kinds_,
      storageIndexes_;
  bool indexesCollide_;
  uint32_t nestPercent_;
  uint32_t otherSetPercent_;
  uint32_t yieldMode_;
  std::vector<uint32_t> ends_;
  uint32_t total_ = 0;
};

}  // namespace

Conditions conditionsOf(uint64_t seed) {
  // Of eight groups, five have both toggles on.
  uint64_t group = seed / kSeedsOfGroup % 8;
  return {.storageToggle = group != 5 && group != 7,
          .memoryToggle = group != 6 && group != 7,
          .keepRecords = Support::mixed(seed) % 2 == 0};
}

Scenario scenarioOf(uint64_t seed) {
  return {.conditions = conditionsOf(seed), .steps = Drawing(seed).steps()};
}

}  // namespace Simulation
