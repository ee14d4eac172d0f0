#include "tests/simulation/AgentSteps.h"

#include <fmt/format.h>

namespace Simulation {
namespace {

namespace A = TrelSnmp::Agent;

PipelineId pipelineIn(const Step& step) { return static_cast<PipelineId>(step.key % kPipelines); }

Wiring agentWiring(uint32_t bits) {
  auto bit = [bits](int place) { return static_cast<uint8_t>(bits >> place & 1); };
  return {.mib = bit(0),
          .ifMib = bit(2),
          .topology = bit(3),
          .reachabilityDir = bit(4),
          .hostResourcesDir = bit(5),
          .mappings = 0};
}

Zavro::Ptr<A::Pipeline> pipelineOf(const A::Agent& agent, PipelineId id) {
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

Zavro::Ptr<A::Pipeline> takePipeline(A::Agent& agent, PipelineId id) {
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

bool sameInputs(PipelineId id, const Wiring& a, const Wiring& b) {
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

bool ownsTable(PipelineId id, TableId table) {
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

}  // namespace

bool AgentSteps::apply(const Step& step) {
  switch (step.kind) {
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
    default:
      return stale(step);
  }
}

void AgentSteps::resumeAll() {
  for (PipelineId id : kAllPipelines) pause(id, false);
}

void AgentSteps::dropAll() {
  for (PipelineId id : kAllPipelines) release(id);
  agentDel(false);
  agentRelease();
}

A::AgentInputs AgentSteps::inputs(uint32_t bits) const {
  auto of = [&](int bit) -> const InputSet& { return state_.set(bits >> bit & 1); };
  return {of(0).mib,      of(1).status,          of(2).ifMib,
          of(3).topology, of(4).reachabilityDir, of(5).hostResourcesDir};
}

// A pipeline that is held has its rows no more when another is made for the same MIB state object.
void AgentSteps::making(PipelineId id, const Wiring& wiring) {
  Detached& held = detached_[static_cast<size_t>(id)];
  if (held.life && held.life->wiring.mib == wiring.mib) observer_.handedOver(std::move(held.life));
  observer_.making(id, wiring);
}

void AgentSteps::bind(PipelineId id) {
  if (observer_.current(id) == nullptr) return;
  auto pipeline = pipelineOf(*agent(), id);
  if (!pipeline) return observer_.fail(fmt::format("{} was not made", nameOf(id)));
  observer_.made(id, pipeline.get());
}

bool AgentSteps::agentIs(uint32_t bits) {
  agentRelease();
  A::AgentInputs in = inputs(bits);
  Zavro::Ptr<A::Agent> before = root_->agent();
  bool same = before && before->inputs() == in;
  if (!same) {
    unregister_();
    trelDir_->entityPtrIs("trelMib", in.trelMib);
    expectAgent(bits);
  }
  const A::Agent* beforeRaw = before.get();
  before.reset();
  auto after = root_->agentIs(in.trelMib, in.snmpStatus, in.ifMib, in.topologyConfig, in.reachabilityDir,
                              in.hostResourcesDir);
  if (same) {
    if (after.get() != beforeRaw) observer_.fail("another agent for the same inputs");
    return true;
  }
  agentBits_ = bits;
  for (PipelineId id : kAllPipelines) {
    observer_.left(id);
    bind(id);
  }
  return true;
}

// Tells the observer of the pipelines that a new agent makes, and of those that it replaces.
void AgentSteps::expectAgent(uint32_t bits) {
  Wiring wiring = agentWiring(bits);
  const A::Agent* old = agent();
  for (PipelineId id : kAllPipelines) {
    Life* life = observer_.current(id);
    bool made = id != PipelineId::storage || makesStorage();
    if (life != nullptr && (!made || life->wiring.mib != wiring.mib)) {
      observer_.leaving(id, [this, old] { return agent() != old; });
    }
    if (made) making(id, wiring);
  }
}

bool AgentSteps::agentDel(bool hold) {
  if (heldAgent_) return false;
  Zavro::Ptr<A::Agent> gone = root_->agentDel();
  if (!gone) return false;
  heldAgent_ = std::move(gone);
  return hold || agentRelease();
}

bool AgentSteps::agentRelease() {
  if (!heldAgent_) return false;
  for (PipelineId id : kAllPipelines) {
    if (Life* life = observer_.current(id)) observer_.dropping(*life);
  }
  heldAgent_.reset();
  for (PipelineId id : kAllPipelines) observer_.dropped(id);
  return true;
}

bool AgentSteps::control(uint32_t value) {
  if (agent() == nullptr) return false;
  Kor::attributeIs(*agent(), "rvxSmControl",
                   fmt::format("(taskName=t, priority={}, mode={})", value >> 8 & 0xff, value % 3));
  return true;
}

bool AgentSteps::startSMs() {
  if (agent() == nullptr) return false;
  Wiring wiring = agentWiring(agentBits_);
  std::vector<PipelineId> made;
  // Those that are replaced over another MIB state object are held until the new ones are there: so it is
  // clear whose the events are.
  std::vector<Detached> leaving;
  for (PipelineId id : kAllPipelines) {
    if (id == PipelineId::storage && !makesStorage()) continue;
    const Life* life = observer_.current(id);
    if (life != nullptr && sameInputs(id, life->wiring, wiring)) continue;
    made.push_back(id);
    if (life != nullptr && life->wiring.mib != wiring.mib)
      leaving.push_back({pipelineOf(*agent(), id), observer_.detached(id)});
  }
  for (PipelineId id : made) making(id, wiring);
  Kor::invoke(*agent(), "startSMs");
  for (PipelineId id : made) bind(id);
  for (Detached& gone : leaving) drop(std::move(gone));
  return true;
}

bool AgentSteps::pipelineIs(PipelineId id, uint32_t bits, uint32_t mode) {
  if (agent() == nullptr) return false;
  auto bit = [bits](int place) { return static_cast<uint8_t>(bits >> place & 1); };
  Wiring wiring{.mib = bit(0),
                .ifMib = bit(1),
                .topology = bit(2),
                .reachabilityDir = bit(3),
                .hostResourcesDir = bit(4),
                .mappings = bit(5)};
  Life* life = observer_.current(id);
  bool same = life != nullptr && sameInputs(id, life->wiring, wiring);
  auto before = pipelineOf(*agent(), id);
  // For another MIB state object, the old pipeline is held until the new one is there: so it is clear whose
  // the events are.
  std::unique_ptr<Life> leaving;
  if (!same) {
    if (life != nullptr && life->wiring.mib != wiring.mib) leaving = observer_.detached(id);
    making(id, wiring);
  }
  setPipeline(id, wiring, mode);
  if (same) {
    if (pipelineOf(*agent(), id) != before) observer_.fail("another pipeline for the same inputs");
    return true;
  }
  bind(id);
  if (leaving) drop({std::move(before), std::move(leaving)});
  return true;
}

void AgentSteps::setPipeline(PipelineId id, const Wiring& wiring, uint32_t mode) {
  Rvx::SmControl control;
  if (mode & 4) control.scheduler = scheduler_;
  control.mode = static_cast<Rvx::Mode>(mode % 3);
  control.priority = static_cast<Vem::TaskPriority>(mode >> 8);
  const auto& mib = state_.set(wiring.mib).mib;
  switch (id) {
    case PipelineId::ifTable:
      agent()->trelSnmpIfTableSmIs(state_.set(wiring.topology).topology, state_.set(wiring.ifMib).ifMib, mib,
                                   control);
      break;
    case PipelineId::reachability:
      agent()->trelSnmpReachabilityTableSmIs(state_.set(wiring.reachabilityDir).reachabilityDir,
                                             state_.set(wiring.ifMib).ifMib, mib, control);
      break;
    case PipelineId::host:
      agent()->trelSnmpHostResourcesSmIs(state_.set(wiring.hostResourcesDir).hostResourcesDir, mib, control);
      break;
    default:
      agent()->trelSnmpHrStorageTableSmIs(state_.set(wiring.hostResourcesDir).hostResourcesDir, mib,
                                          state_.set(wiring.mappings).mappings, control);
  }
}

bool AgentSteps::pipelineDel(PipelineId id, bool hold) {
  Detached& held = detached_[static_cast<size_t>(id)];
  if (agent() == nullptr || held.pipeline) return false;
  auto pipeline = takePipeline(*agent(), id);
  if (!pipeline) return false;
  held = {std::move(pipeline), observer_.detached(id)};
  return hold || release(id);
}

bool AgentSteps::release(PipelineId id) {
  Detached& held = detached_[static_cast<size_t>(id)];
  if (!held.pipeline) return false;
  drop(std::move(held));
  return true;
}

void AgentSteps::drop(Detached gone) {
  if (gone.pipeline->useCount() != 1)
    observer_.fail(fmt::format("{} is held by somebody", gone.pipeline->name()));
  if (gone.life) observer_.dropping(*gone.life);
  gone.pipeline.reset();
  observer_.dropped(std::move(gone.life));
}

bool AgentSteps::pause(PipelineId id, bool pause) {
  // One that is held and has no rows any more does nothing, active or not.
  const Detached& held = detached_[static_cast<size_t>(id)];
  if (held.pipeline && !held.life) held.pipeline->hasNotificationActiveIs(!pause);
  Life* life = observer_.current(id);
  if (life == nullptr || life->pipeline == nullptr || life->active != pause || agent() == nullptr)
    return false;
  auto pipeline = pipelineOf(*agent(), id);
  if (pipeline.get() != life->pipeline) return false;
  if (pause) {
    pipeline->hasNotificationActiveIs(false);
    observer_.paused(id);
  } else {
    observer_.resumed(id);
    pipeline->hasNotificationActiveIs(true);
  }
  return true;
}

bool AgentSteps::stale(const Step& step) {
  size_t set = step.set % kSets;
  auto table = static_cast<TableId>(step.key % kTables);
  for (PipelineId id : kAllPipelines) {
    const Life* life = observer_.current(id);
    const Detached& held = detached_[static_cast<size_t>(id)];
    bool writes = (life != nullptr && life->wiring.mib == set) || (held.life && held.life->wiring.mib == set);
    if (writes && ownsTable(id, table)) return false;
  }
  observer_.ownWrites(true);
  bool made = state_.stale(step);
  observer_.ownWrites(false);
  return made;
}

}  // namespace Simulation
