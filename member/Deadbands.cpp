#include "member/Deadbands.h"

#include <algorithm>
#include <cmath>

#include "kelstore/Document.h"
#include "member/Figures.h"

namespace Member {
namespace {

using Kelstore::Memory;
using Kelstore::Processor;
using Kelstore::Storage;
using Kelstore::System;
using Kelstore::Value;

bool within(double deadband, double before, double now) { return std::abs(now - before) <= deadband; }

bool isSmall(const System& before, const System& now, double seconds, const Deadbands& deadbands) {
  auto startOf = [](const System& system) { return system.currentTimeUtc - system.systemUptime; };
  bool known = (before.systemUptime > 0) == (now.systemUptime > 0);
  bool started = now.systemUptime > 0 && !within(kClockStepSeconds, startOf(before), startOf(now));
  return known && !started &&
         within(kClockStepSeconds, before.currentTimeUtc + seconds, now.currentTimeUtc) &&
         within(deadbands.users, before.systemNumUsers, now.systemNumUsers) &&
         within(deadbands.processes, before.systemProcesses, now.systemProcesses) &&
         before.memorySize == now.memorySize;
}

// free: whether reaching or leaving 0 is no small change.
bool isSmall(double deadband, uint64_t before, uint64_t now, bool free) {
  if (before == now) return true;
  if (free && (before == 0 || now == 0)) return false;
  return within(deadband, static_cast<double>(before), static_cast<double>(now));
}

bool isSmall(const Memory& before, const Memory& now, double /*seconds*/, const Deadbands& deadbands) {
  if (before.total != now.total) return false;
  double deadband = now.total.value_or(0) * deadbands.memory / 100;
  auto small = [deadband](const std::optional<uint32_t>& was, const std::optional<uint32_t>& is) {
    return was.has_value() == is.has_value() && isSmall(deadband, was.value_or(0), is.value_or(0), true);
  };
  return small(before.free, now.free) && small(before.available, now.available) &&
         small(before.nonBuffer, now.nonBuffer) && small(before.nonCache, now.nonCache);
}

bool isSmall(const Processor& before, const Processor& now, double /*seconds*/, const Deadbands& deadbands) {
  bool known = (before.load == kUnknownLoad) == (now.load == kUnknownLoad);
  return known && within(deadbands.load, before.load, now.load);
}

bool isSmall(const Storage& before, const Storage& now, double /*seconds*/, const Deadbands& deadbands) {
  double deadband = static_cast<double>(now.size) * deadbands.storage / 100;
  return before.allocationUnits == now.allocationUnits && before.size == now.size &&
         isSmall(deadband, before.free, now.free, true);
}

template <class Other>
bool isSmall(const Other& before, const Other& now, double /*seconds*/, const Deadbands& /*deadbands*/) {
  return before == now;
}

bool isSmallChangeOf(const Value& before, const Value& now, double seconds, const Deadbands& deadbands) {
  return now.visit([&](const auto& is) {
    const auto* was = before.find<std::decay_t<decltype(is)>>();
    return was != nullptr && isSmall(*was, is, seconds, deadbands);
  });
}

Kelstore::Snapshot valuesIn(const Kelstore::Path& path, const std::string& text) {
  return Kelstore::Snapshot(Kelstore::parseValue(path, text).values);
}

}  // namespace

bool isSmallChange(const Kelstore::Path& path, const std::string& written, const std::string& now,
                   double seconds, const Deadbands& deadbands) {
  Kelstore::Snapshot before = valuesIn(path, written);
  Kelstore::Snapshot values = valuesIn(path, now);
  return before.size() == values.size() &&
         std::all_of(values.begin(), values.end(), [&](const Kelstore::Snapshot::Entry& entry) {
           const Value* was = before.find(entry.first);
           return was != nullptr && isSmallChangeOf(*was, entry.second, seconds, deadbands);
         });
}

void SmallChanges::written(const Kelstore::Path& path, uint64_t nowNs) {
  if (Kelstore::specOf(path.kind).packed()) writtenNs_[path] = nowNs;
}

std::optional<LeaseStore::Change> SmallChanges::takeOut(std::vector<LeaseStore::Change>& changes,
                                                        const LeaseStore::Holdings& holdings,
                                                        LeaseStore::Lease lease, uint64_t nowNs) const {
  auto waiting = std::stable_partition(changes.begin(), changes.end(), [&](const LeaseStore::Change& change) {
    return !canWait(change, holdings, lease, nowNs);
  });
  auto first = std::min_element(waiting, changes.end(), [this](const auto& a, const auto& b) {
    return writtenNs_.at(a.path) < writtenNs_.at(b.path);
  });
  std::optional<LeaseStore::Change> longest;
  if (first != changes.end()) longest = std::move(*first);
  changes.erase(waiting, changes.end());
  return longest;
}

bool SmallChanges::canWait(const LeaseStore::Change& change, const LeaseStore::Holdings& holdings,
                           LeaseStore::Lease lease, uint64_t nowNs) const {
  auto at = writtenNs_.find(change.path);
  auto held = holdings.find(change.path);
  if (at == writtenNs_.end() || held == holdings.end() || held->second.lease != lease || !change.text) {
    return false;
  }
  double seconds = static_cast<double>(nowNs - at->second) / 1e9;
  return seconds < deadbands_.longest &&
         isSmallChange(change.path, held->second.text, *change.text, seconds, deadbands_);
}

}  // namespace Member
