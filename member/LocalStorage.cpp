#include "member/LocalStorage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "kelstore/Path.h"
#include "member/Figures.h"
#include "member/Trace.h"
#include "runtime/Text.h"

namespace Member {
namespace {

using Lumalog::kErrorLevel;
using Lumalog::kWarningLevel;

std::string descriptionOf(const std::string& mountPoint) {
  if (mountPoint.size() <= Kelstore::kMaxTextBytes) return mountPoint;
  return Runtime::shortened(mountPoint, Kelstore::kMaxTextBytes - std::strlen("..."));
}

}  // namespace

LocalStorage::LocalStorage(std::shared_ptr<LocalMachine> machine, std::string indexFile, Runtime::Io& io,
                           const Zavro::Clock& clock, std::function<void()> told)
    : machine_(std::move(machine)),
      indexFile_(std::move(indexFile)),
      io_(io),
      clock_(clock),
      told_(std::move(told)) {
  mounts_ = collector("mounts",
                      asking<std::vector<Mount>>([asked = machine_] { return asked->mounts(); },
                                                 [this](auto mounts) { mountsAre(mounts); }),
                      io_);
  if (indexFile_.empty()) return;
  keeper_ = collector("indexes",
                      asking<KeptIndexes>([path = indexFile_] { return readIndexes(path); },
                                          [this](auto kept) { keptAre(kept); }),
                      io_);
}

void LocalStorage::start() {
  if (keeper_) keeper_->collect();
}

std::unique_ptr<Collector> LocalStorage::collector(std::string name, Collector::Ask ask, Runtime::Io& io) {
  return std::make_unique<Collector>(std::move(name), std::move(ask), io, clock_, [this] { told_(); });
}

void LocalStorage::look() {
  mounts_->collect();
  for (auto& [point, area] : areas_) area.collector->collect();
  // Indexes that could not be written are tried again.
  if (keeper_ && !keeper_->asking()) attempted_ = kept_;
}

// A mount that is gone loses its collector, and with it a late answer.
void LocalStorage::mountsAre(std::vector<Mount> mounts) {
  known_ = true;
  std::set<std::string> mounted;
  for (const Mount& mount : mounts) mounted.insert(mount.point);
  std::erase_if(areas_, [&](const auto& entry) { return !mounted.contains(entry.first); });
  std::erase_if(unnameable_, [&](const auto& point) { return !mounted.contains(point); });
  for (const Mount& mount : mounts) {
    if (takes(mount.point)) areaIs(mount);
  }
}

// A new mount has a new collector, since the old one may hang for ever.
void LocalStorage::areaIs(const Mount& mount) {
  auto [at, appears] = areas_.try_emplace(mount.point);
  Area& area = at->second;
  if (!appears && area.mount == mount) return;
  area.mount = mount;
  area.figures.reset();
  area.collector = collector("mount " + mount.point,
                             asking<Room>([asked = machine_, mount] { return asked->room(mount); },
                                          [this, mount](Room room) { roomIs(mount, room); }),
                             pool_);
  area.collector->collect();
}

void LocalStorage::roomIs(const Mount& mount, const Room& room) {
  Area& area = areas_.at(mount.point);
  area.figures = storageOf(room);
  if (area.figures) area.row = mount.kind;
}

// Whether the state can name the mount point, in JSON and on one line. Logs one that it cannot, once.
bool LocalStorage::takes(const std::string& mountPoint) {
  std::string found;
  if (mountPoint.size() > Kelstore::kMaxNameBytes) {
    found = fmt::format("{} bytes, expected at most {}", mountPoint.size(), Kelstore::kMaxNameBytes);
  } else if (!Runtime::isPlain(mountPoint) || !Runtime::isUtf8(mountPoint)) {
    found = "a control character, or no UTF-8";
  }
  if (!found.empty() && unnameable_.insert(mountPoint).second) {
    traceHandle.trace(kWarningLevel, "mount point {} is left out: found {}", Runtime::inQuotes(mountPoint),
                      found);
  }
  return found.empty();
}

std::map<std::string, Kelstore::Storage> LocalStorage::figures() const {
  std::map<std::string, Kelstore::Storage> all;
  for (const auto& [point, area] : areas_) {
    if (area.figures) all[point] = *area.figures;
  }
  return all;
}

std::vector<std::pair<std::string, Kelstore::Mapping>> LocalStorage::mappings(
    const StorageIndexes::Taken& taken) {
  std::vector<std::pair<std::string, Kelstore::Mapping>> all;
  if (keeper_ && !keeper_->heard()) return all;
  for (const auto& [point, area] : areas_) {
    if (!area.row) continue;
    auto had = indexes_.all().find(point);
    std::optional<uint32_t> before;
    if (had != indexes_.all().end()) before = had->second;
    uint32_t index = indexes_.indexOf(point, taken);
    if (before && *before != index) {
      traceHandle.trace(kWarningLevel, "storage index {} is another source's now: {} gets {}", *before,
                        Runtime::inQuotes(point), index);
    }
    all.push_back({point, {storageType(*area.row), descriptionOf(point), index}});
  }
  if (known_) indexes_.forget([this](const std::string& point) { return !areas_.contains(point); });
  return all;
}

void LocalStorage::keptAre(KeptIndexes kept) {
  if (!kept.damage.empty()) traceHandle.trace(kErrorLevel, "{}", kept.damage);
  if (!indexes_.all().empty()) {
    traceHandle.trace(kErrorLevel, "{}: took too long to be read, new indexes were given and are not kept",
                      indexFile_);
    return;
  }
  keptRead_ = true;
  kept_ = attempted_ = kept.indexes;
  indexes_.known(std::move(kept.indexes));
}

void LocalStorage::keepIndexes() {
  if (!keptRead_ || keeper_->asking() || indexes_.all() == attempted_) return;
  attempted_ = indexes_.all();
  keeper_->askIs([this, path = indexFile_, indexes = attempted_]() -> absl::StatusOr<Collector::Take> {
    if (absl::Status written = writeIndexes(path, indexes); !written.ok()) return written;
    return Collector::Take([this, indexes] { kept_ = indexes; });
  });
  keeper_->collect();
}

std::vector<const Collector*> LocalStorage::collectors() const {
  std::vector<const Collector*> all = {mounts_.get()};
  if (keeper_) all.push_back(keeper_.get());
  for (const auto& [point, area] : areas_) all.push_back(area.collector.get());
  return all;
}

}  // namespace Member
