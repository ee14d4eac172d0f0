#include "kelstore/LayeredState.h"

#include <algorithm>
#include <iterator>

#include "platform/zavro/Assert.h"

namespace Kelstore {

LayeredState::LayeredState(Zavro::Ptr<Vem::TaskScheduler> scheduler, Mirror& mirror) : mirror_(mirror) {
  task_ = Zavro::makePtr<Vem::Task>(std::move(scheduler), Vem::kDefaultPriority, "kelstore-mirror",
                                    [this] { applySlice(); });
}

LayeredState::~LayeredState() { task_->cancel(); }

LayeredState::Layer LayeredState::addLayer(Claim claim) {
  layers_.emplace_back().claim = std::move(claim);
  order_.push_back(layers_.size() - 1);
  return order_.back();
}

LayeredState::Layer LayeredState::addLowestLayer() {
  layers_.emplace_back();
  order_.insert(order_.begin(), layers_.size() - 1);
  return order_.front();
}

void LayeredState::snapshotIs(Layer layer, std::shared_ptr<const Snapshot> snapshot,
                              std::vector<Path> changed) {
  zavroAssert(snapshot != nullptr);
  layers_[layer].snapshot = std::move(snapshot);
  if (!changed.empty()) add(std::move(changed));
  schedule();
}

// Joins batches of similar size, so that there are few, and a path that keeps changing takes no more room
// however far the mirror is behind.
void LayeredState::add(std::vector<Path> changed) {
  while (!batches_.empty() && batches_.back().size() <= 2 * changed.size()) {
    Batch last = std::move(batches_.back());
    batches_.pop_back();
    std::vector<Path> both;
    both.reserve(last.size() + changed.size());
    auto next = last.paths.begin() + static_cast<std::ptrdiff_t>(last.next);
    std::set_union(std::make_move_iterator(next), std::make_move_iterator(last.paths.end()),
                   std::make_move_iterator(changed.begin()), std::make_move_iterator(changed.end()),
                   std::back_inserter(both));
    changed = std::move(both);
  }
  batches_.push_back({std::move(changed), 0});
}

void LayeredState::settledIs(Layer layer) {
  layers_[layer].settled = true;
  schedule();
}

std::optional<LayeredState::Layer> LayeredState::deciding(const Path& path) const {
  auto decides = [&](Layer layer) {
    return layers_[layer].snapshot->find(path) != nullptr || layers_[layer].claims(path.kind, path.first());
  };
  auto at = std::find_if(order_.rbegin(), order_.rend(), decides);
  return at == order_.rend() ? std::nullopt : std::optional(*at);
}

const Value* LayeredState::find(const Path& path) const {
  std::optional<Layer> layer = deciding(path);
  return layer ? layers_[*layer].snapshot->find(path) : nullptr;
}

bool LayeredState::any(std::span<const Kind> kinds, std::string_view first) const {
  return std::any_of(kinds.begin(), kinds.end(), [&](Kind kind) { return any(kind, first); });
}

bool LayeredState::any(Kind kind, std::string_view first) const {
  for (auto at = order_.rbegin(); at != order_.rend(); ++at) {
    const LayerState& layer = layers_[*at];
    if (layer.snapshot->any(kind, first)) return true;
    if (layer.claims(kind, first)) break;
  }
  return false;
}

bool LayeredState::settled() const {
  return std::all_of(layers_.begin(), layers_.end(), [](const LayerState& layer) { return layer.settled; });
}

void LayeredState::schedule() {
  task_->taskWorkPendingIs(pending());
  if (!batches_.empty() && settled()) task_->scheduleTask();
}

void LayeredState::applySlice() {
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

// The least path of all batches, so that kinds are applied in their order across batches.
Path LayeredState::takeFirst() {
  auto first = std::min_element(batches_.begin(), batches_.end(), [](const Batch& a, const Batch& b) {
    return a.paths[a.next] < b.paths[b.next];
  });
  Path path = std::move(first->paths[first->next]);
  if (++first->next == first->paths.size()) batches_.erase(first);
  return path;
}

size_t LayeredState::pending() const {
  size_t paths = 0;
  for (const Batch& batch : batches_) paths += batch.size();
  return paths;
}

}  // namespace Kelstore
