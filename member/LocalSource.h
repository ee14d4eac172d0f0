// The source `local`: this machine, as one member of the cluster, looked at in intervals.
//
// It alone speaks for the host resources of its member: what sources before it say of them does not count, so
// that a processor that goes offline is gone, whatever an example says of it. The storage mappings that it
// makes up, on the other hand, count only where no other source has one. What could not be read at a look
// stays as it was last known. On the event loop's thread; what is read is read off it.
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

  // Layers, io and clock outlive the source; the machine may be in use for longer, by a question that hangs.
  LocalSource(const Settings& settings, std::shared_ptr<LocalMachine> machine, Kelstore::LayeredState& layers,
              Runtime::Io& io, const Zavro::Clock& clock);

  void start() override { figures_.start(); }
  // Current while every collector works, partial while one does not.
  Kelstore::SourceStatus status() const override;

 private:
  void publish();
  void publish(Kelstore::LayeredState::Layer layer, Kelstore::Snapshot snapshot);
  Kelstore::Snapshot mappings();

  Kelstore::LayeredState& layers_;
  const Zavro::Clock& clock_;
  const Kelstore::LayeredState::Layer layer_;
  // The mappings are below what other sources say, so that a mapping of theirs is respected.
  const Kelstore::LayeredState::Layer mappingsLayer_;
  bool settled_ = false;
  uint64_t lastChangeUtcNs_ = 0;
  std::set<int32_t> leftOut_;  // kinds of memory whose index is another source's, of which was told
  MachineFigures figures_;
};

}  // namespace Member
