// The source `local`: this machine as one member of the cluster.
//
// It hides the host resources that earlier sources give for its member, so that a processor that goes offline
// is gone although an example has it. Its own storage mappings are below all other sources: they count only
// where no other source has one. A figure that cannot be read stays as it was. On the event loop's thread;
// figures are read off it.
#pragma once

#include <memory>
#include <set>

#include "kelstore/LayeredState.h"
#include "kelstore/Source.h"
#include "member/MachineFigures.h"

namespace Member {

class LocalSource final : public Kelstore::Source {
 public:
  using Settings = MachineFigures::Settings;

  // Layers, io and clock outlive the source. A question that hangs may use the machine for longer.
  LocalSource(const Settings& settings, std::shared_ptr<LocalMachine> machine, Kelstore::LayeredState& layers,
              Runtime::Io& io, const Zavro::Clock& clock);

  void start() override { figures_.start(); }
  // Once it is loaded: current while every collector works, else partial.
  Kelstore::SourceStatus status() const override;

 private:
  void publish();
  void publish(Kelstore::LayeredState::Layer layer, Kelstore::Snapshot snapshot);
  Kelstore::Snapshot mappings();

  Kelstore::LayeredState& layers_;
  const Zavro::Clock& clock_;
  const Kelstore::LayeredState::Layer layer_;
  const Kelstore::LayeredState::Layer mappingsLayer_;
  bool settled_ = false;
  uint64_t lastChangeUtcNs_ = 0;
  std::set<int32_t> leftOut_;  // kinds of memory whose index another source has taken; logged
  MachineFigures figures_;
};

}  // namespace Member
