// The steps of a run that make, replace, pause and drop the agent and its pipelines. Each tells the observer
// beforehand what is going to be whose.
#pragma once

#include <array>
#include <functional>
#include <memory>

#include "agent/TrelSnmpAgent.h"
#include "tests/simulation/Observer.h"
#include "tests/simulation/State.h"
#include "tests/simulation/Step.h"

namespace Simulation {

class AgentSteps {
 public:
  // trelDir: gets the MIB state object of the agent. unregister: takes back what SNMP was given of the one
  // before.
  AgentSteps(const Conditions& conditions, State& state, Observer& observer, Zavro::Ptr<Kor::Dir> trelDir,
             Zavro::Ptr<Vem::TaskScheduler> scheduler, std::function<void()> unregister)
      : conditions_(conditions),
        state_(state),
        observer_(observer),
        trelDir_(std::move(trelDir)),
        scheduler_(std::move(scheduler)),
        unregister_(std::move(unregister)) {}

  // False when the step did nothing. Requires: a step from Kind::agentIs to Kind::stale, but Kind::status.
  bool apply(const Step& step);
  void resumeAll();
  // All pipelines go, and the agent.
  void dropAll();

 private:
  using Agent = TrelSnmp::Agent::Agent;
  using Pipeline = TrelSnmp::Agent::Pipeline;

  // A pipeline that was taken from the agent and is still held.
  struct Detached {
    Zavro::Ptr<Pipeline> pipeline;
    std::unique_ptr<Life> life;  // null once another pipeline has its rows
  };

  // The agent that stands, held or not.
  Agent* agent() const { return root_->agent().get(); }
  TrelSnmp::Agent::AgentInputs inputs(uint32_t bits) const;
  bool makesStorage() const { return conditions_.storageToggle && conditions_.memoryToggle; }

  bool agentIs(uint32_t bits);
  void expectAgent(uint32_t bits);
  void making(PipelineId id, const Wiring& wiring);
  void bind(PipelineId id);
  bool agentDel(bool hold);
  bool agentRelease();
  bool control(uint32_t value);
  bool startSMs();
  bool pipelineIs(PipelineId id, uint32_t bits, uint32_t mode);
  void setPipeline(PipelineId id, const Wiring& wiring, uint32_t mode);
  bool pipelineDel(PipelineId id, bool hold);
  bool release(PipelineId id);
  void drop(Detached gone);
  bool pause(PipelineId id, bool pause);
  bool stale(const Step& step);

  const Conditions& conditions_;
  State& state_;
  Observer& observer_;
  const Zavro::Ptr<Kor::Dir> trelDir_;
  const Zavro::Ptr<Vem::TaskScheduler> scheduler_;
  const std::function<void()> unregister_;
  Zavro::Ptr<TrelSnmp::Agent::Root> root_ = TrelSnmp::Agent::rootFactory("root");
  uint32_t agentBits_ = 0;
  Zavro::Ptr<Agent> heldAgent_;
  std::array<Detached, kPipelines> detached_;
};

}  // namespace Simulation
