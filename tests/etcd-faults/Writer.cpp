#include "tests/etcd-faults/Writer.h"

#include <fmt/format.h>

#include <chrono>
#include <stdexcept>

#include "tests/etcd-faults/StoreState.h"

namespace Faults {
namespace {

using Kelstore::Etcd::KeyRange;
using Kelstore::Etcd::Op;
using nlohmann::json;

constexpr auto kPause = std::chrono::milliseconds(15);
constexpr auto kDeadline = std::chrono::seconds(2);

constexpr int kMembers = 6;     // 1 to 6, who stay
constexpr int kProcessors = 4;  // 1 to 4 stay, 5 to 8 come and go
constexpr int kFirstGuest = 20;
constexpr int kGuests = 4;
const std::vector<std::string> kMounts = {"/", "/var/log"};
constexpr const char* kGuestMount = "/mnt/usb stick";

std::string intf(int member, int neighbour) { return fmt::format("Backplane{}/{}", member, neighbour); }

Op put(const std::string& path, const json& value) {
  return {Op::What::put, std::string(kPrefix) + "/" + path, value.dump()};
}
Op del(const std::string& path) { return {Op::What::del, std::string(kPrefix) + "/" + path}; }

json mapping(int index, const std::string& description) {
  return {{"index", index}, {"type", "1.3.6.1.2.1.25.2.1.4"}, {"description", description}};
}

}  // namespace

Writer::Writer(std::vector<std::string> endpoints, Kelstore::Etcd::Access access, uint64_t seed)
    : client_(std::move(endpoints), std::move(access), {.deadline = kDeadline}), random_(seed) {
  Ops ops;
  for (int index : {1, 2, 3, 100}) {
    ops.push_back(put(fmt::format("storageMappings/memory/{}", index), mapping(index, "memory")));
  }
  int index = 31;
  for (const std::string& mount : kMounts) {
    ops.push_back(put("storageMappings/mounts/" + spelt(mount), mapping(index++, mount)));
  }
  ops.push_back(put("storageMappings/mounts/" + spelt(kGuestMount), mapping(index, kGuestMount)));
  done(client_.txn(ops));
  for (int member = 1; member <= kMembers; ++member) {
    ops.clear();
    addMember(ops, member, kMembers);
    done(client_.txn(ops));
  }
  auto listing = client_.range(kAll);
  if (!listing.ok()) throw std::runtime_error(std::string(listing.status().message()));
  lasting_ = documentOf(*listing);
  thread_ = std::thread([this] { run(); });
}

Writer::~Writer() {
  {
    std::lock_guard lock(mutex_);
    ends_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Writer::goOn() {
  std::lock_guard lock(mutex_);
  wanted_ = true;
  changed_.notify_all();
}

void Writer::pause() {
  std::unique_lock lock(mutex_);
  wanted_ = false;
  changed_.notify_all();
  changed_.wait(lock, [this] { return !writing_; });
}

void Writer::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return wanted_ || ends_; });
    if (ends_) return;
    writing_ = true;
    lock.unlock();
    step();
    lock.lock();
    writing_ = false;
    changed_.notify_all();
    changed_.wait_for(lock, kPause, [this] { return !wanted_ || ends_; });
  }
}

void Writer::step() {
  if (random_.percent(5)) {
    // Somebody else's keys, whose revisions are none of ours.
    static_cast<void>(client_.put("other/key", std::to_string(random_.any())));
    return;
  }
  if (random_.percent(4)) {
    std::string stem = fmt::format("{}/members/{}", kPrefix, kFirstGuest + random_.below(kGuests));
    auto deletion = client_.del(KeyRange{stem + "/", stem + "0"});
    if (deletion.ok() && deletion->keys > 0) done(deletion->revision);
    return;
  }
  auto revision = client_.txn(next());
  if (revision.ok()) done(revision);
}

void Writer::done(const absl::StatusOr<int64_t>& revision) {
  if (!revision.ok()) throw std::runtime_error(std::string(revision.status().message()));
  revision_ = *revision;
  ++written_;
}

Writer::Ops Writer::next() {
  Ops ops;
  int member = static_cast<int>(1 + random_.below(kMembers));
  std::string stem = fmt::format("members/{}", member);
  if (random_.percent(8)) {
    addMember(ops, static_cast<int>(kFirstGuest + random_.below(kGuests)), 3);
    return ops;
  }
  if (random_.percent(30)) {
    // Guests of a member that stays.
    std::string processorPath =
        fmt::format("{}/processors/{}", stem, kProcessors + 1 + random_.below(kProcessors));
    ops.push_back(random_.percent(50) ? put(processorPath, processor()) : del(processorPath));
    std::string mountPath = stem + "/storage/" + spelt(kGuestMount);
    ops.push_back(random_.percent(50) ? put(mountPath, storage()) : del(mountPath));
    return ops;
  }
  if (random_.percent(10)) {
    int guest = static_cast<int>(kFirstGuest + random_.below(kGuests));
    std::string name = intf(guest, member);
    int ifIndex = static_cast<int>(guest * 1000 + member * 10 + static_cast<int>(random_.below(3)));
    bool there = random_.percent(60);
    std::string link = fmt::format("topology/{}/{}", guest, member);
    ops.push_back(there ? put(link, {{"intf", name}}) : del(link));
    ops.push_back(put("interfaces/" + spelt(name), {{"ifIndex", ifIndex}}));
    return ops;
  }
  ops.push_back(put(stem + "/system", system()));
  for (uint64_t left = random_.below(4); left > 0; --left) {
    ops.push_back(put(fmt::format("{}/processors/{}", stem, left), processor()));
  }
  for (int neighbour = 1; neighbour <= kMembers; ++neighbour) {
    if (neighbour == member || random_.percent(60)) continue;
    ops.push_back(put(fmt::format("{}/reachability/{}", stem, neighbour), report(member, neighbour)));
  }
  if (random_.percent(30)) ops.push_back(put(stem + "/memory", memory()));
  if (random_.percent(30)) ops.push_back(put(stem + "/storage/" + spelt(random_.of(kMounts)), storage()));
  return ops;
}

void Writer::addMember(Ops& ops, int member, int neighbours) {
  std::string stem = fmt::format("members/{}", member);
  ops.push_back(put(stem + "/system", system()));
  ops.push_back(put(stem + "/memory", memory()));
  for (int index = 1; index <= kProcessors; ++index) {
    ops.push_back(put(fmt::format("{}/processors/{}", stem, index), processor()));
  }
  for (const std::string& mount : kMounts) ops.push_back(put(stem + "/storage/" + spelt(mount), storage()));
  for (int neighbour = 1; neighbour <= neighbours; ++neighbour) {
    if (neighbour == member) continue;
    ops.push_back(put(fmt::format("{}/reachability/{}", stem, neighbour), report(member, neighbour)));
    if (member >= kFirstGuest) continue;
    std::string name = intf(member, neighbour);
    ops.push_back(put("interfaces/" + spelt(name), {{"ifIndex", member * 1000 + neighbour}}));
    ops.push_back(put(fmt::format("topology/{}/{}", member, neighbour), {{"intf", name}}));
  }
}

json Writer::system() {
  return {{"uptime", random_.below(1'000'000)},
          {"currentTimeUtc", 1767225600 + random_.below(1'000'000)},
          {"users", random_.below(9)},
          {"processes", random_.below(900)},
          {"memorySize", 8388608}};
}

json Writer::processor() { return {{"load", random_.below(101)}}; }

json Writer::storage() {
  return {{"allocationUnits", 4096}, {"size", 1'000'000}, {"free", random_.below(1'000'000)}};
}

json Writer::memory() {
  json amounts = {{"total", 8388608}};
  for (const char* name : {"free", "available", "nonBuffer", "nonCache"})
    amounts[name] = random_.below(8388608);
  return amounts;
}

json Writer::report(int member, int neighbour) {
  static const std::vector<std::string> kStates = {"unknown",  "initializing", "reachable",
                                                   "degraded", "unreachable",  "disabled"};
  // Before any agent that is asked was started: such times are all served alike.
  return {{"state", random_.of(kStates)},
          {"intf", intf(member, neighbour)},
          {"lastChange", random_.below(1'000'000'000)}};
}

}  // namespace Faults
