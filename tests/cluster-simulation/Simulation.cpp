#include "tests/cluster-simulation/Simulation.h"

#include <fmt/format.h>

#include <algorithm>

#include "tests/cluster-simulation/Faults.h"

namespace ClusterSimulation {
namespace {

using Kelstore::Kind;
using Kelstore::Path;

constexpr size_t kFullSize = 255;
constexpr uint64_t kStartMs = 20'000;    // until the first fault
constexpr uint64_t kFaultsMs = 200'000;  // within which faults begin
// After all faults have ended: a watch that was dead is found by a resync, leases that were granted run out,
// and who was on standby looks again.
constexpr uint64_t kSettleMs = 100'000;
constexpr uint64_t kQuietMs = 10'000;  // without changes
constexpr uint64_t kLookMs = 250;

Size drawnSize(uint64_t seed) {
  if (seed % kFullSizeEvery == 0) return {kFullSize, 12, 20'000};
  World world(seed);
  return {world.between(1, 6), world.between(1, 4), world.between(2000, 8000)};
}

std::string interfaceOf(uint8_t member) { return fmt::format("Backplane{}", member); }

}  // namespace

Simulation::Simulation(uint64_t seed, Sabotage sabotage) : Simulation(seed, drawnSize(seed), sabotage) {}

Simulation::Simulation(uint64_t seed, const Size& size, Sabotage sabotage)
    : sabotage_(sabotage),
      world_(seed),
      size_(size),
      judge_(world_, followers_, members_, size.members == kFullSize ? 16 : 1),
      store_(
          world_,
          [this](int64_t revision, const std::vector<Etcd::Event>& events, Store::Cause cause) {
            judge_.committed(revision, events, cause);
          },
          [this](int64_t lease) { judge_.lapsed(lease); }) {}

void Simulation::note(const std::string& what) {
  double seconds = static_cast<double>(world_.nowMs() - World::kStartMs) / 1000;
  history_ += fmt::format("{:9.3f} s  {}  [servers:{}]\n", seconds, what, store_.healthText());
}

void Simulation::startProcess(uint8_t member) {
  bool handover = world_.chance(30);
  members_.push_back(
      std::make_unique<MemberHost>(member, interfaceOf(member), handover, world_, store_, sabotage_));
  members_.back()->contentIs(content_[member]);
}

// The youngest that runs and does not stand still.
MemberHost* Simulation::running(uint8_t member) const {
  auto found = std::find_if(members_.rbegin(), members_.rend(), [member](const auto& process) {
    return process->member() == member && process->running() && !process->suspended();
  });
  return found == members_.rend() ? nullptr : found->get();
}

// Every value that can change is another one each time, so that its text tells when it was published.
void Simulation::change(uint8_t member) {
  std::string name = std::to_string(member);
  MemberHost::Content& content = content_[member];
  content[{Kind::interface, interfaceOf(member), ""}] = Kelstore::Interface{member};
  auto link = [&](size_t neighbour) {
    return Path{Kind::link, name, std::to_string((member + neighbour) % kFullSize + 1)};
  };
  Kelstore::Link value{Lanix::IntfId(fmt::format("{}/{}", interfaceOf(member), ++version_))};
  content[link(0)] = value;
  if (!content.contains(link(1)) || world_.chance(30)) content[link(1)] = value;
  if (world_.chance(20)) {
    content.erase(link(2));
  } else if (world_.chance(20)) {
    content[link(2)] = value;
  }
}

void Simulation::keepChanging(uint8_t member) {
  if (changing_) change(member);
  for (const auto& process : members_) {
    if (process->member() == member) process->contentIs(content_[member]);
  }
  world_.in(world_.between(size_.changeMs / 2, size_.changeMs), [this, member] { keepChanging(member); });
}

void Simulation::look() {
  judge_.look(store_);
  world_.in(kLookMs, [this] { look(); });
}

Outcome Simulation::run() {
  for (size_t i = 0; i < size_.followers; ++i) {
    followers_.push_back(std::make_unique<FollowerHost>(
        i, world_, store_, sabotage_,
        [this, i](const std::vector<Path>& paths) { judge_.changed(*followers_[i], paths); }));
  }
  for (size_t member = 1; member <= size_.members; ++member) {
    auto number = static_cast<uint8_t>(member);
    change(number);
    world_.in(world_.between(0, 5000), [this, number] {
      startProcess(number);
      keepChanging(number);
    });
  }
  for (const auto& follower : followers_) {
    world_.in(world_.between(0, 5000), [&follower] { follower->start(); });
  }
  look();
  world_.runUntil(World::kStartMs + kStartMs);
  Faults faults(*this);
  faults.draw(world_.between(1, 10 + size_.members / 10), kFaultsMs);
  uint64_t at = world_.nowMs() + kFaultsMs + Faults::kLongestMs;
  while (judge_.verdict().empty() && world_.nowMs() < at) world_.runUntil(world_.nowMs() + 1000);
  note("all faults have ended");
  at += kSettleMs;
  while (judge_.verdict().empty() && world_.nowMs() < at) world_.runUntil(world_.nowMs() + 1000);
  note("nothing changes any more");
  changing_ = false;
  if (judge_.verdict().empty()) world_.runUntil(world_.nowMs() + kQuietMs);
  if (judge_.verdict().empty()) judge_.atEnd(store_);
  note("the end");
  return {judge_.verdict(), judge_.checks(), store_.revision(), history_};
}

}  // namespace ClusterSimulation
