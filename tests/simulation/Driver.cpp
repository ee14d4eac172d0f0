#include "Driver.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>

#include "Follower.h"
#include "Random.h"
#include "Universe.h"
#include "Walker.h"
#include "snmp/AsnConversions.h"
#include "snmp/KelstoreUtil.h"
#include "snmp/RegVoidCollByContext.h"
#include "toggles/Toggles.h"
#include "veldaTrelHostResourcesMIB.h"
#include "veldaTrelMIB.h"

namespace Simulation {
namespace {

namespace A = TrelSnmp::Agent;
using HostResourcesMib::StorageEntryMappings;

constexpr size_t kWalks = 4;
constexpr int kDeepest = 3;             // changes from within changes
constexpr size_t kMostSlices = 100000;  // until all is at rest
constexpr uint64_t kMsNs = 1'000'000;

// Decides when a slice ends: as a step says, or as production does, on a clock that each item moves.
class Yields final : public Vem::YieldPolicy {
 public:
  explicit Yields(Zavro::ManualClock& clock) : clock_(clock), slice_(clock) {}
  void are(YieldMode mode, uint64_t draw) {
    mode_ = mode;
    random_ = Random(draw);
  }
  void sliceStarts() override { slice_.sliceStarts(); }
  bool shouldYield() override {
    switch (mode_) {
      case YieldMode::never:
        return false;
      case YieldMode::always:
        return true;
      case YieldMode::sometimes:
        return random_.chance(40);
      case YieldMode::rarely:
        return random_.chance(5);
      default:
        clock_.advanceNs(random_.below(3 * kMsNs));
        return slice_.shouldYield();
    }
  }

 private:
  Zavro::ManualClock& clock_;
  Vem::TimeSlice slice_;
  YieldMode mode_ = YieldMode::never;
  Random random_{0};
};

// A pipeline that was taken from the agent and is still held.
struct Detached {
  Zavro::Ptr<A::Pipeline> pipeline;
  std::unique_ptr<Life> life;
};

struct Armed {
  uint64_t at;  // the publication
  Step step;
};

class Driver {
 public:
  Driver(const Scenario& scenario, const std::function<void(std::string_view)>& log)
      : conditions_(scenario.conditions),
        log_(log),
        mappings_(mappings()),
        state_(conditions_, clock_, mappings_) {
    follower_ = std::make_unique<Follower>(state_, log);
    follower_->onPublication([this] { fireArmed(); });
    state_.onMapping([this](size_t set, uint32_t index) { follower_->remapped(set, index); });
    Lumalog::clockIs(&clock_);
    Vem::TaskSchedulerRoot::schedulerIs(scheduler_);
    snmpDir_->entityPtrIs(trelDir_);
    stateRoot_->entityPtrIs(snmpDir_);
    Snmp::KelstoreUtil::rootIs(stateRoot_, Zavro::makePtr<const Snmp::Config>("switch-1"));
    Snmp::agentStartUtcIs(Zavro::Duration(static_cast<double>(kAgentStart)));
  }
  ~Driver() {
    if (!ended_) std::abort();  // run() leaves through end() or not at all
  }

  Outcome run(const std::vector<Step>& steps) {
    Outcome outcome;
    for (const Step& step : steps) {
      if (failed()) break;
      ++outcome.failedAt;
      make(step);
    }
    if (!failed()) end();
    ended_ = true;
    outcome.failure = follower_ ? follower_->failure() : failure_;
    outcome.events = events_;
    outcome.publications = publications_;
    outcome.digest = digest_;
    return outcome;
  }

 private:
  static Zavro::Ptr<StorageEntryMappings> mappings() {
    return boost::static_pointer_cast<StorageEntryMappings>(
        Kor::Entity::singletonIs(StorageEntryMappings::kTypeName));
  }
  bool failed() const { return !follower_->failure().empty(); }
  bool due() const {
    auto tasks = scheduler_->tasks();
    return std::any_of(tasks.begin(), tasks.end(), [](const Vem::Task* task) { return task->scheduled(); });
  }

  // -- Steps

  void make(const Step& step) {
    if (step.within != 0) {
      armed_.push_back({follower_->publications() + step.within, step});
      return;
    }
    if (!apply(step)) return;
    ++events_;
    follower_->stepEnds(!scheduler_->runnable());
  }

  void fireArmed() {
    if (noNesting_ || follower_->depth() >= kDeepest) return;
    for (size_t i = 0; i < armed_.size(); ++i) {
      if (armed_[i].at > follower_->publications()) continue;
      Step step = armed_[i].step;
      armed_.erase(armed_.begin() + static_cast<long>(i--));
      if (!canNest(step.kind)) continue;
      size_t frames = follower_->nestedBegins();
      if (apply(step)) ++events_;
      follower_->nestedEnds(frames);
      if (failed()) return;
    }
  }

  static bool canNest(Kind kind) {
    return kind < Kind::slice || kind == Kind::pause || kind == Kind::resume || kind >= Kind::walkFirst;
  }

  // False when the step did nothing.
  bool apply(const Step& step) {
    if (log_) log_(fmt::format("{:{}}== {}", "", 4 * follower_->depth(), step.text()));
    if (step.kind < Kind::clock) {
      stateChanges(step.kind);
      return state_.apply(step);
    }
    switch (step.kind) {
      case Kind::clock:
        clock_.advanceNs(step.value * kMsNs);
        return true;
      case Kind::slice:
        return slice(step.item, step);
      case Kind::drain:
        return drain(step);
      case Kind::agentIs:
        return agentIs(step.value);
      case Kind::agentDel:
        return agentDel(step.item != 0);
      case Kind::agentRelease:
        return agentRelease();
      case Kind::control:
        return control(step.value);
      case Kind::startSMs:
        return startSMs();
      case Kind::pipelineIs:
        return pipelineIs(pipelineIn(step), step.value, step.item);
      case Kind::pipelineDel:
        return pipelineDel(pipelineIn(step), step.item != 0);
      case Kind::pipelineRelease:
        return release(pipelineIn(step));
      case Kind::pause:
      case Kind::resume:
        return pause(pipelineIn(step), step.kind == Kind::pause);
      case Kind::status:
        state_.set(step.set % kSets).status->initializedIs(step.value != 0);
        return true;
      case Kind::stale:
        return stale(step);
      default:
        return walk(step);
    }
  }

  static PipelineId pipelineIn(const Step& step) { return static_cast<PipelineId>(step.key % kPipelines); }

  void stateChanges(Kind kind) {
    if (kind <= Kind::reachOutside) {
      follower_->stateChanged(PipelineId::reachability);
    } else if (kind <= Kind::ifIndexDel) {
      follower_->stateChanged(PipelineId::ifTable);
    } else {
      follower_->stateChanged(PipelineId::host);
      follower_->stateChanged(PipelineId::storage);
    }
  }

  // -- Tasks

  bool slice(uint32_t which, const Step& step) {
    auto tasks = scheduler_->tasks();
    std::erase_if(tasks, [](const Vem::Task* task) { return !task->scheduled(); });
    if (tasks.empty()) return false;
    yields_.are(static_cast<YieldMode>(step.key % kYieldModes), step.value);
    return scheduler_->run(*tasks[which % tasks.size()]);
  }

  bool drain(const Step& step) {
    Random random(step.value);
    bool any = false;
    for (uint32_t i = 0; i < step.item && !failed(); ++i) {
      Step one = step;
      one.value = static_cast<uint32_t>(random.next());
      if (!slice(static_cast<uint32_t>(random.next()), one)) break;
      any = true;
      ++events_;
      follower_->stepEnds(!scheduler_->runnable());
    }
    return any;
  }

  void rest() {
    for (size_t i = 0; !failed() && scheduler_->runnable(); ++i) {
      if (i == kMostSlices) return follower_->fail("the tasks do not come to an end");
      drain({.kind = Kind::drain,
             .key = static_cast<uint32_t>(YieldMode::rarely),
             .item = 100,
             .value = static_cast<uint32_t>(i)});
    }
  }

  // -- The agent and its pipelines

  // The agent that stands, held or not.
  A::Agent* agent() const { return root_->agent().get(); }

  A::AgentInputs inputs(uint32_t bits) const {
    auto of = [&](int bit) -> const InputSet& { return state_.set(bits >> bit & 1); };
    return {of(0).mib,      of(1).status,          of(2).ifMib,
            of(3).topology, of(4).reachabilityDir, of(5).hostResourcesDir};
  }
  static Wiring agentWiring(uint32_t bits) {
    auto bit = [bits](int place) { return static_cast<uint8_t>(bits >> place & 1); };
    return {.mib = bit(0),
            .ifMib = bit(2),
            .topology = bit(3),
            .reachabilityDir = bit(4),
            .hostResourcesDir = bit(5),
            .mappings = 0};
  }
  bool makesStorage() const { return conditions_.storageToggle && conditions_.memoryToggle; }

  static Zavro::Ptr<A::Pipeline> pipelineOf(const A::Agent& agent, PipelineId id) {
    switch (id) {
      case PipelineId::ifTable:
        return agent.trelSnmpIfTableSm();
      case PipelineId::reachability:
        return agent.trelSnmpReachabilityTableSm();
      case PipelineId::host:
        return agent.trelSnmpHostResourcesSm();
      default:
        return agent.trelSnmpHrStorageTableSm();
    }
  }
  static Zavro::Ptr<A::Pipeline> takePipeline(A::Agent& agent, PipelineId id) {
    switch (id) {
      case PipelineId::ifTable:
        return agent.trelSnmpIfTableSmDel();
      case PipelineId::reachability:
        return agent.trelSnmpReachabilityTableSmDel();
      case PipelineId::host:
        return agent.trelSnmpHostResourcesSmDel();
      default:
        return agent.trelSnmpHrStorageTableSmDel();
    }
  }
  void bind(PipelineId id) {
    if (follower_->current(id) == nullptr) return;
    auto pipeline = pipelineOf(*agent(), id);
    if (!pipeline) return follower_->fail(fmt::format("{} was not made", nameOf(id)));
    follower_->made(id, pipeline.get());
  }

  bool agentIs(uint32_t bits) {
    agentRelease();
    for (PipelineId id : kAll) release(id);
    A::AgentInputs in = inputs(bits);
    Zavro::Ptr<A::Agent> before = root_->agent();
    bool same = before && before->inputs() == in;
    if (!same) {
      // Pipelines that were wired to another MIB state object than their agent's go first.
      if (before) {
        for (PipelineId id : kAll) {
          Life* life = follower_->current(id);
          if (life != nullptr && life->wiring.mib != agentWiring(agentBits_).mib) pipelineDel(id, false);
        }
      }
      unregister();
      trelDir_->entityPtrIs("trelMib", in.trelMib);
      expectAgent(bits);
    }
    const A::Agent* beforeRaw = before.get();
    before.reset();
    auto after = root_->agentIs(in.trelMib, in.snmpStatus, in.ifMib, in.topologyConfig, in.reachabilityDir,
                                in.hostResourcesDir);
    if (same) {
      if (after.get() != beforeRaw) follower_->fail("another agent for the same inputs");
      return true;
    }
    agentBits_ = bits;
    noNesting_ = false;
    for (PipelineId id : kAll) {
      follower_->left(id);
      bind(id);
    }
    return true;
  }

  // Tells the follower of the pipelines that a new agent makes, and of those that it replaces.
  void expectAgent(uint32_t bits) {
    Wiring wiring = agentWiring(bits);
    const A::Agent* old = agent();
    for (PipelineId id : kAll) {
      Life* life = follower_->current(id);
      if (life != nullptr && life->wiring.mib != wiring.mib) {
        // Which events are whose could not be told.
        noNesting_ = true;
        follower_->leaving(id, [this, old] { return agent() != old; });
      }
      if (id != PipelineId::storage || makesStorage()) {
        follower_->making(id, wiring);
      } else {
        follower_->handedOver(id);
      }
    }
  }

  bool agentDel(bool hold) {
    if (heldAgent_) return false;
    Zavro::Ptr<A::Agent> gone = root_->agentDel();
    if (!gone) return false;
    heldAgent_ = std::move(gone);
    return hold || agentRelease();
  }

  bool agentRelease() {
    if (!heldAgent_) return false;
    for (PipelineId id : kAll) {
      if (Life* life = follower_->current(id)) follower_->dropping(*life);
    }
    heldAgent_.reset();
    for (PipelineId id : kAll) follower_->dropped(id);
    return true;
  }

  bool control(uint32_t value) {
    if (agent() == nullptr) return false;
    Kor::attributeIs(*agent(), "rvxSmControl",
                     fmt::format("(taskName=t, priority={}, mode={})", value >> 8 & 0xff, value % 3));
    return true;
  }

  bool startSMs() {
    if (agent() == nullptr) return false;
    Wiring wiring = agentWiring(agentBits_);
    std::vector<PipelineId> made;
    for (PipelineId id : kAll) {
      if (id == PipelineId::storage && !makesStorage()) continue;
      const Life* life = follower_->current(id);
      if (life != nullptr && sameInputs(id, life->wiring, wiring)) continue;
      made.push_back(id);
      // It would be replaced; here that is done by hand, so that events can be told apart.
      release(id);
      if (life != nullptr && life->wiring.mib != wiring.mib) pipelineDel(id, false);
    }
    for (PipelineId id : made) follower_->making(id, wiring);
    // They are made one by one, and until its turn the old one of each would handle what is done from within.
    noNesting_ = made.size() > 1;
    Kor::invoke(*agent(), "startSMs");
    noNesting_ = false;
    for (PipelineId id : made) bind(id);
    return true;
  }

  static bool sameInputs(PipelineId id, const Wiring& a, const Wiring& b) {
    if (a.mib != b.mib) return false;
    switch (id) {
      case PipelineId::ifTable:
        return a.topology == b.topology && a.ifMib == b.ifMib;
      case PipelineId::reachability:
        return a.reachabilityDir == b.reachabilityDir && a.ifMib == b.ifMib;
      case PipelineId::host:
        return a.hostResourcesDir == b.hostResourcesDir;
      default:
        return a.hostResourcesDir == b.hostResourcesDir && a.mappings == b.mappings;
    }
  }

  bool pipelineIs(PipelineId id, uint32_t bits, uint32_t mode) {
    if (agent() == nullptr) return false;
    auto bit = [bits](int place) { return static_cast<uint8_t>(bits >> place & 1); };
    Wiring wiring{.mib = bit(0),
                  .ifMib = bit(1),
                  .topology = bit(2),
                  .reachabilityDir = bit(3),
                  .hostResourcesDir = bit(4),
                  .mappings = bit(5)};
    Life* life = follower_->current(id);
    bool same = life != nullptr && sameInputs(id, life->wiring, wiring);
    auto before = pipelineOf(*agent(), id);
    if (!same) releaseOver(id, wiring.mib);
    // For another MIB state object, the old pipeline is held until the new one is there: so it is clear whose
    // the events are.
    std::unique_ptr<Life> leaving;
    if (!same) {
      if (life != nullptr && life->wiring.mib != wiring.mib) leaving = follower_->detached(id);
      follower_->making(id, wiring);
      noNesting_ = leaving != nullptr;
    }
    setPipeline(id, wiring, mode);
    noNesting_ = false;
    if (same) {
      if (pipelineOf(*agent(), id) != before) follower_->fail("another pipeline for the same inputs");
      return true;
    }
    bind(id);
    if (leaving) drop({std::move(before), std::move(leaving)});
    return true;
  }

  void setPipeline(PipelineId id, const Wiring& wiring, uint32_t mode) {
    Rvx::SmControl control;
    if (mode & 4) control.scheduler = scheduler_;
    control.mode = static_cast<Rvx::Mode>(mode % 3);
    control.priority = static_cast<Vem::TaskPriority>(mode >> 8);
    const auto& mib = state_.set(wiring.mib).mib;
    switch (id) {
      case PipelineId::ifTable:
        agent()->trelSnmpIfTableSmIs(state_.set(wiring.topology).topology, state_.set(wiring.ifMib).ifMib,
                                     mib, control);
        break;
      case PipelineId::reachability:
        agent()->trelSnmpReachabilityTableSmIs(state_.set(wiring.reachabilityDir).reachabilityDir,
                                               state_.set(wiring.ifMib).ifMib, mib, control);
        break;
      case PipelineId::host:
        agent()->trelSnmpHostResourcesSmIs(state_.set(wiring.hostResourcesDir).hostResourcesDir, mib,
                                           control);
        break;
      default:
        agent()->trelSnmpHrStorageTableSmIs(state_.set(wiring.hostResourcesDir).hostResourcesDir, mib,
                                            state_.set(wiring.mappings).mappings, control);
    }
  }

  bool pipelineDel(PipelineId id, bool hold) {
    Detached& held = detached_[static_cast<size_t>(id)];
    if (agent() == nullptr || held.pipeline) return false;
    auto pipeline = takePipeline(*agent(), id);
    if (!pipeline) return false;
    held = {std::move(pipeline), follower_->detached(id)};
    return hold || release(id);
  }

  bool release(PipelineId id) {
    Detached& held = detached_[static_cast<size_t>(id)];
    if (!held.pipeline) return false;
    drop(std::move(held));
    return true;
  }
  // What was detached goes before another pipeline is made for the same MIB state object.
  void releaseOver(PipelineId id, size_t mib) {
    const Detached& held = detached_[static_cast<size_t>(id)];
    if (held.pipeline && held.life->wiring.mib == mib) release(id);
  }
  void drop(Detached gone) {
    if (gone.pipeline->useCount() != 1)
      follower_->fail(fmt::format("{} is held by somebody", nameOf(gone.life->id)));
    follower_->dropping(*gone.life);
    gone.pipeline.reset();
    follower_->dropped(std::move(gone.life));
  }

  bool pause(PipelineId id, bool pause) {
    Life* life = follower_->current(id);
    if (life == nullptr || life->pipeline == nullptr || life->active != pause || agent() == nullptr)
      return false;
    auto pipeline = pipelineOf(*agent(), id);
    if (pipeline.get() != life->pipeline) return false;
    if (pause) {
      pipeline->hasNotificationActiveIs(false);
      follower_->paused(id);
    } else {
      follower_->resumed(id);
      pipeline->hasNotificationActiveIs(true);
    }
    return true;
  }

  bool stale(const Step& step) {
    size_t set = step.set % kSets;
    auto table = static_cast<TableId>(step.key % kTables);
    for (PipelineId id : kAll) {
      const Life* life = follower_->current(id);
      const Detached& held = detached_[static_cast<size_t>(id)];
      bool writes =
          (life != nullptr && life->wiring.mib == set) || (held.pipeline && held.life->wiring.mib == set);
      if (writes && ownsTable(id, table)) return false;
    }
    follower_->ownWrites(true);
    noNesting_ = true;
    bool made = state_.stale(step);
    noNesting_ = false;
    follower_->ownWrites(false);
    return made;
  }
  static bool ownsTable(PipelineId id, TableId table) {
    switch (table) {
      case TableId::baIf:
        return id == PipelineId::ifTable;
      case TableId::reachability:
        return id == PipelineId::reachability;
      case TableId::storage:
        return id == PipelineId::storage;
      default:
        return id == PipelineId::host;
    }
  }

  // -- Walks

  static bool registered() {
    return Snmp::RegVoidCollByContext::singleton()->regVoid("", "veldaTrelBaIfTable") != nullptr;
  }
  void unregister() {
    for (auto& walker : walkers_) walker.reset();
    unregister_veldaTrelHostResourcesMIB("");
    unregister_veldaTrelMIB("");
  }

  bool walk(const Step& step) {
    auto& walker = walkers_[step.item % kWalks];
    switch (step.kind) {
      case Kind::walkFirst: {
        if (!registered()) return false;
        auto table = static_cast<TableId>(step.key % kTables);
        if (!walker || walker->table() != table) {
          walker.reset();
          size_t served = trelDir_->entityPtr("trelMib") == state_.set(0).mib ? 0 : 1;
          walker = std::make_unique<Walker>(*follower_, state_, served, table);
        }
        walker->first(step.value);
        return true;
      }
      case Kind::walkNext:
        return walker && walker->next();
      case Kind::walkHold:
        return walker && walker->hold(step.value == 1);
      case Kind::walkRead:
        return walker && walker->read(step.value);
      case Kind::walkDrop:
        return walker && walker->drop(step.value);
      default:
        if (!walker) return false;
        walker.reset();
        return true;
    }
  }

  // -- The end

  void end() {
    for (PipelineId id : kAll) pause(id, false);
    rest();
    for (PipelineId id : kAll) follower_->stateChanged(id);
    follower_->stepEnds(true);
    if (failed()) return;
    for (PipelineId id : kAll) release(id);
    agentDel(false);
    agentRelease();
    follower_->stepEnds(false);
    unregister();
    root_.reset();
    if (failed()) return;
    if (!scheduler_->tasks().empty()) {
      return follower_->fail(fmt::format("task {} is left", scheduler_->tasks().front()->name()));
    }
    if (!Rvx::GlobalState::get().registry().empty()) return follower_->fail("declared derivations are left");
    endOfProcessWide();
  }

  void endOfProcessWide() {
    Vem::TaskSchedulerRoot::schedulerIs(nullptr);
    Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
    Kor::Entity::singletonDel(Snmp::RegVoidCollByContext::kTypeName);
    Kor::Entity::singletonDel(StorageEntryMappings::kTypeName);
    trelDir_->entityPtrDel("trelMib");
    publications_ = follower_->publications();
    digest_ = follower_->digest();
    follower_.reset();
    failure_ = state_.leftovers();
    if (scheduler_->useCount() != 1) failure_ += "references to the scheduler are left; ";
    if (mappings_->useCount() != 1) failure_ += "references to the mappings are left; ";
  }

  static constexpr std::array<PipelineId, kPipelines> kAll = {PipelineId::ifTable, PipelineId::reachability,
                                                              PipelineId::host, PipelineId::storage};

  const Conditions conditions_;
  const std::function<void(std::string_view)> log_;
  Zavro::ManualClock clock_{kAgentStart * 1'000'000'000};
  Yields yields_{clock_};
  Zavro::Ptr<Vem::TaskScheduler> scheduler_ = Zavro::makePtr<Vem::TaskScheduler>(yields_);
  Zavro::Ptr<StorageEntryMappings> mappings_;
  State state_;
  std::unique_ptr<Follower> follower_;
  Zavro::Ptr<Kor::Dir> stateRoot_ = Zavro::makePtr<Kor::Dir>("switch-1");
  Zavro::Ptr<Kor::Dir> snmpDir_ = Zavro::makePtr<Kor::Dir>("snmp");
  Zavro::Ptr<Kor::Dir> trelDir_ = Zavro::makePtr<Kor::Dir>("trel");
  Zavro::Ptr<A::Root> root_ = A::rootFactory("root");
  uint32_t agentBits_ = 0;
  Zavro::Ptr<A::Agent> heldAgent_;
  std::array<Detached, kPipelines> detached_;
  std::array<std::unique_ptr<Walker>, kWalks> walkers_;
  std::deque<Armed> armed_;
  bool noNesting_ = false;
  bool ended_ = false;
  uint64_t events_ = 0;
  uint64_t publications_ = 0;
  uint64_t digest_ = 0;
  std::string failure_;
};

// The path of a file of this content that is gone when the process is, however it ends.
std::string unnamedFile(const std::string& content) {
  int file = memfd_create("TrelCore.json", MFD_CLOEXEC);
  if (file < 0 || write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    throw std::runtime_error("cannot write the toggles");
  }
  return fmt::format("/proc/self/fd/{}", file);
}

}  // namespace

void prepareProcess(const Conditions& conditions) {
  static const bool prepared = [&conditions] {
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    init_agent("simulation");
    init_snmp("simulation");
    Toggles::fileIs("TrelCore.json",
                    unnamedFile(fmt::format(R"({{"TrelHrStorageSnmp": {}, "TrelHrMemStorage": {}}})",
                                            conditions.storageToggle, conditions.memoryToggle)));
    return true;
  }();
  static_cast<void>(prepared);
}

Outcome run(const Scenario& scenario, const std::function<void(std::string_view)>& log) {
  // After a failure nothing is what it seems, and its end might never come.
  auto driver = std::make_unique<Driver>(scenario, log);
  Outcome outcome = driver->run(scenario.steps);
  if (!outcome.failure.empty()) static_cast<void>(driver.release());
  return outcome;
}

}  // namespace Simulation
