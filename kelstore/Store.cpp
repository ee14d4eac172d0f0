#include "Store.h"

#include <algorithm>

#include "zavro/Assert.h"

namespace Kelstore {

Store::Store(Zavro::Ptr<Vem::TaskScheduler> scheduler, Mirror& mirror) : mirror_(mirror) {
  task_ = Zavro::makePtr<Vem::Task>(std::move(scheduler), Vem::kDefaultPriority, "kelstore-mirror",
                                    [this] { applySlice(); });
}

Store::~Store() { task_->cancel(); }

Store::Layer Store::layerIs(Claim claim) {
  layers_.emplace_back().claim = std::move(claim);
  order_.push_back(layers_.size() - 1);
  return order_.back();
}

Store::Layer Store::lowestLayerIs() {
  layers_.emplace_back();
  order_.insert(order_.begin(), layers_.size() - 1);
  return order_.front();
}

void Store::snapshotIs(Layer layer, std::shared_ptr<const Snapshot> snapshot, std::vector<Path> changed) {
  zavroAssert(snapshot != nullptr);
  layers_[layer].snapshot = std::move(snapshot);
  if (!changed.empty()) batches_.push_back({std::move(changed), 0});
  schedule();
}

void Store::settledIs(Layer layer) {
  layers_[layer].settled = true;
  schedule();
}

const Value* Store::find(const Path& path) const {
  for (auto at = order_.rbegin(); at != order_.rend(); ++at) {
    const LayerState& layer = layers_[*at];
    if (const Value* value = layer.snapshot->find(path)) return value;
    if (layer.claims(path.kind, path.first)) break;
  }
  return nullptr;
}

bool Store::any(Kind kind, std::string_view first) const {
  for (auto at = order_.rbegin(); at != order_.rend(); ++at) {
    const LayerState& layer = layers_[*at];
    if (layer.snapshot->any(kind, first)) return true;
    if (layer.claims(kind, first)) break;
  }
  return false;
}

bool Store::settled() const {
  return std::all_of(layers_.begin(), layers_.end(), [](const LayerState& layer) { return layer.settled; });
}

void Store::schedule() {
  task_->taskWorkPendingIs(pending());
  if (!batches_.empty() && settled()) task_->scheduleTask();
}

void Store::applySlice() {
  uint64_t applied = 0;
  while (!batches_.empty()) {
    Path path = takeFirst();
    mirror_.apply(path, *this);
    ++applied;
    if (task_->taskShouldYield()) break;
  }
  task_->taskWorkCountInc(applied);
  schedule();
}

// The first path of all batches: what others build on comes first, also when it came with a later batch.
Path Store::takeFirst() {
  auto first = std::min_element(batches_.begin(), batches_.end(), [](const Batch& a, const Batch& b) {
    return a.paths[a.next] < b.paths[b.next];
  });
  Path path = std::move(first->paths[first->next]);
  if (++first->next == first->paths.size()) batches_.erase(first);
  return path;
}

size_t Store::pending() const {
  size_t paths = 0;
  for (const Batch& batch : batches_) paths += batch.paths.size() - batch.next;
  return paths;
}

}  // namespace Kelstore
