// The layered state: the values of all sources, later sources over earlier ones, and the task that applies
// changes to the mirror in slices.
//
// A source hands over whole snapshots, with the paths that changed. The task looks up the value at a path
// when it applies the path, so the order in which changes arrive does not matter. On the event loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelstore/Mirror.h"
#include "kelstore/Snapshot.h"
#include "platform/vem/Vem.h"

namespace Kelstore {

class LayeredState final : private View {
 public:
  using Layer = size_t;
  // Whether a layer hides the layers below it at the paths of that kind whose first variable segment is
  // `first`, even where it has no value.
  using Claim = std::function<bool(Kind kind, std::string_view first)>;

  // The mirror must outlive the layers.
  LayeredState(Zavro::Ptr<Vem::TaskScheduler> scheduler, Mirror& mirror);
  ~LayeredState() override;

  // Adds a layer above all others. Nothing is mirrored before every layer has settled, so that nobody sees
  // the order in which sources load. Requires: no layer has settled yet.
  Layer addLayer(Claim claim = {});
  // Adds a layer below all others, for values that count only where no source has one. The same holds.
  Layer addLowestLayer();
  // Sets the layer's values. `changed`: the paths at which they differ from the last ones, sorted. The mirror
  // sees all of them from now on, also when it applies an older change. Requires: the snapshot is not null.
  void snapshotIs(Layer layer, std::shared_ptr<const Snapshot> snapshot, std::vector<Path> changed);
  // The layer's source has loaded its values, or has none for now.
  void settledIs(Layer layer);

  const std::shared_ptr<const Snapshot>& snapshot(Layer layer) const { return layers_[layer].snapshot; }
  // The layer whose value counts at the path, or that hides what the layers below it have there. Nothing: no
  // layer has or hides anything.
  std::optional<Layer> deciding(const Path& path) const;
  // How many there are; they are numbered from 0.
  Layer layers() const { return layers_.size(); }
  // Paths to be applied. One that changed several times may count several times.
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
  std::vector<Batch> batches_;  // each was more than twice as large as the next when that was added
  Zavro::Ptr<Vem::Task> task_;
};

}  // namespace Kelstore
