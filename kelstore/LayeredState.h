// The layered state: what every source says, later sources over earlier ones, and the task that brings the
// mirror up to date with it, slice by slice.
//
// Sources hand over whole snapshots with the paths that changed; which value counts at a path is looked up
// only when its turn comes, so that changes that overtake each other end right. On the event loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kelstore/Mirror.h"
#include "kelstore/Snapshot.h"
#include "platform/vem/Vem.h"

namespace Kelstore {

class LayeredState final : private View {
 public:
  using Layer = size_t;
  // Whether a layer alone speaks for the paths of that kind whose first variable segment is `first`.
  using Claim = std::function<bool(Kind kind, std::string_view first)>;

  // The mirror must outlive the layers.
  LayeredState(Zavro::Ptr<Vem::TaskScheduler> scheduler, Mirror& mirror);
  ~LayeredState() override;

  // A new layer over those that there are. Nothing is mirrored before every layer has settled once, so that
  // the order in which sources are heard first does not show. What layers below it say of a path that it
  // claims does not count, whether it says something there or not. Requires: called before any layer settles.
  Layer layerIs(Claim claim = {});
  // A new layer below those that there are, for what counts where nobody else says something. As above.
  Layer lowestLayerIs();
  // What the layer says from now on. `changed`: the sorted paths at which it differs from what it said. All
  // of it counts from this call on, whatever has been applied.
  void snapshotIs(Layer layer, std::shared_ptr<const Snapshot> snapshot, std::vector<Path> changed);
  // The layer's source has said what it has to say for now, if only that it has nothing.
  void settledIs(Layer layer);

  const std::shared_ptr<const Snapshot>& snapshot(Layer layer) const { return layers_[layer].snapshot; }
  // The layers are 0 up to, not including, this one.
  Layer layers() const { return layers_.size(); }
  // Paths that are not applied yet; one that changed again meanwhile may count more than once.
  size_t pending() const;
  // Whether every layer has settled and the mirror is up to date.
  bool idle() const { return settled() && batches_.empty(); }

 private:
  struct LayerState {
    Claim claim;
    std::shared_ptr<const Snapshot> snapshot = std::make_shared<const Snapshot>();
    bool settled = false;

    bool claims(Kind kind, std::string_view first) const { return claim && claim(kind, first); }
  };
  struct Batch {
    std::vector<Path> paths;
    size_t next = 0;
    size_t size() const { return paths.size() - next; }
  };

  const Value* find(const Path& path) const override;
  bool any(std::span<const Kind> kinds, std::string_view first) const override;
  bool any(Kind kind, std::string_view first) const;
  bool settled() const;
  void schedule();
  void applySlice();
  void add(std::vector<Path> changed);
  Path takeFirst();

  Mirror& mirror_;
  std::vector<LayerState> layers_;
  std::vector<Layer> order_;    // the lowest first
  std::vector<Batch> batches_;  // each more than twice as large as the next
  Zavro::Ptr<Vem::Task> task_;
};

}  // namespace Kelstore
