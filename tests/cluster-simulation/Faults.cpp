#include "tests/cluster-simulation/Faults.h"

#include <fmt/format.h>

namespace ClusterSimulation {

void Faults::draw(size_t count, uint64_t withinMs) {
  for (size_t i = 0; i < count; ++i) drawOne(all_.world_.between(0, withinMs));
}

void Faults::drawOne(uint64_t atMs) {
  switch (all_.world_.below(8)) {
    case 0:
    case 1:
      return ofServer(atMs);
    case 2:
      return ofStore(atMs);
    case 3:
    case 4:
    case 5:
      return ofFollower(atMs);
    default:
      return ofMember(atMs);
  }
}

// Half of the faults are short.
void Faults::fault(uint64_t atMs, const std::string& what, std::function<void()> begins,
                   std::function<void()> ends) {
  World& world = all_.world_;
  uint64_t lasts = world.chance(50) ? world.between(50, 10'000) : world.between(10'000, kLongestMs - 1000);
  world.in(atMs, [this, what, begins = std::move(begins)] {
    all_.note(what);
    begins();
  });
  if (!ends) return;
  world.in(atMs + lasts, [this, what, ends = std::move(ends)] {
    all_.note("end of: " + what);
    ends();
  });
}

void Faults::ofServer(uint64_t atMs) {
  Store& store = all_.store_;
  size_t server = all_.world_.below(Store::kServers);
  std::string name = fmt::format("server {} ", server);
  switch (all_.world_.below(6)) {
    case 0:
      return fault(
          atMs, name + "dies", [&store, server] { store.kill(server); },
          [&store, server] { store.restart(server); });
    case 1:
      return fault(
          atMs, name + "is silent", [&store, server] { store.silence(server); },
          [&store, server] { store.unsilence(server); });
    case 2:
      return fault(
          atMs, name + "is cut off from the others", [&store, server] { store.isolate(server); },
          [&store, server] { store.rejoin(server); });
    case 3: {
      uint64_t answerMs = all_.world_.between(200, 4000);
      return fault(
          atMs, fmt::format("{}answers after {} ms", name, answerMs),
          [&store, server, answerMs] { store.slow(server, answerMs); },
          [&store, server] { store.slow(server, 1); });
    }
    case 4:
      return fault(
          atMs, name + "is wiped", [&store, server] { store.wipe(server); },
          [&store, server] { store.unwipe(server); });
    default:
      return fault(
          atMs, name + "is behind a proxy", [&store, server] { store.proxied(server, true); },
          [&store, server] { store.proxied(server, false); });
  }
}

void Faults::ofStore(uint64_t atMs) {
  Store& store = all_.store_;
  switch (all_.world_.below(6)) {
    case 0: {
      uint64_t afterMs = all_.world_.between(200, 20'000);
      return fault(atMs, fmt::format("no leader for {} ms", afterMs),
                   [&store, afterMs] { store.elect(afterMs); });
    }
    case 1:
      return fault(
          atMs, "leases do not end", [&store] { store.stallExpiry(true); },
          [&store] { store.stallExpiry(false); });
    case 2:
    case 3:
      return fault(atMs, "all leases are revoked", [this] {
        all_.judge_.allRevoked();
        all_.store_.revokeAll();
      });
    case 4:
      return fault(atMs, "compaction", [&store] { store.compact(); });
    default:
      return fault(
          atMs, "no space", [&store] { store.noSpace(true); }, [&store] { store.noSpace(false); });
  }
}

void Faults::ofFollower(uint64_t atMs) {
  FollowerHost& follower = *all_.followers_[all_.world_.below(all_.followers_.size())];
  size_t server = all_.world_.below(Store::kServers);
  std::string name = fmt::format("follower {}: ", follower.number());
  auto toggled = [&](const std::string& what, void (FollowerHost::*set)(bool)) {
    fault(
        atMs, name + what, [&follower, set] { (follower.*set)(true); },
        [&follower, set] { (follower.*set)(false); });
  };
  switch (all_.world_.below(9)) {
    case 0:
      return fault(
          atMs, fmt::format("{}cut off from server {}", name, server),
          [&follower, server] { follower.cut(server, true); },
          [&follower, server] { follower.cut(server, false); });
    case 1:
      return toggled("cut off from all", &FollowerHost::cutAll);
    case 2:
      return fault(atMs, name + "its connection is reset", [&follower] { follower.reset(); });
    case 3:
      return toggled("answers come too late", &FollowerHost::late);
    case 4:
      return toggled("answers come twice", &FollowerHost::twice);
    case 5:
      return toggled("answers come in fragments", &FollowerHost::inFragments);
    case 6: {
      size_t events = all_.world_.between(1, 3);
      return fault(atMs, fmt::format("{}its watch loses {} answers", name, events),
                   [&follower, events] { follower.loseNext(events); });
    }
    case 7:
      // Until another watch is opened.
      return fault(atMs, name + "its watch is dead", [&follower] { follower.deaf(true); });
    default:
      return toggled("events come again", &FollowerHost::repeatEvents);
  }
}

void Faults::ofMember(uint64_t atMs) {
  auto member = static_cast<uint8_t>(all_.world_.between(1, all_.size_.members));
  size_t server = all_.world_.below(Store::kServers);
  std::string name = fmt::format("member {}: ", member);
  auto withAll = [this, member](auto call) {
    return [this, member, call] {
      for (const auto& process : all_.members_) {
        if (process->member() == member) call(*process);
      }
    };
  };
  switch (all_.world_.below(7)) {
    case 0:
      return fault(atMs, fmt::format("{}cut off from server {}", name, server),
                   withAll([server](MemberHost& process) { process.cut(server, true); }),
                   withAll([server](MemberHost& process) { process.cut(server, false); }));
    case 1:
      return fault(atMs, name + "cut off from all",
                   withAll([](MemberHost& process) { process.cutAll(true); }),
                   withAll([](MemberHost& process) { process.cutAll(false); }));
    case 2:
      return fault(atMs, name + "its writes are refused",
                   withAll([](MemberHost& process) { process.refuseWrites(true); }),
                   withAll([](MemberHost& process) { process.refuseWrites(false); }));
    case 3:
      return fault(atMs, name + "answers are lost",
                   withAll([](MemberHost& process) { process.loseAnswers(30); }),
                   withAll([](MemberHost& process) { process.loseAnswers(0); }));
    default:
      return ofProcess(atMs, member);
  }
}

void Faults::wakeAll(uint8_t member) {
  for (const auto& process : all_.members_) {
    if (process->member() == member) process->suspend(false);
  }
}

void Faults::ofProcess(uint64_t atMs, uint8_t member) {
  std::string name = fmt::format("member {}: ", member);
  auto starts = [this, member] {
    if (all_.running(member) == nullptr) all_.startProcess(member);
  };
  switch (all_.world_.below(5)) {
    case 0:
      return fault(
          atMs, name + "dies",
          [this, member] {
            if (MemberHost* process = all_.running(member)) process->kill();
          },
          starts);
    case 1:
      return fault(
          atMs, name + "leaves",
          [this, member] {
            if (MemberHost* process = all_.running(member)) process->end();
          },
          starts);
    case 2:
      return fault(
          atMs, name + "stands still",
          [this, member] {
            if (MemberHost* process = all_.running(member)) process->suspend(true);
          },
          [this, member] { wakeAll(member); });
    case 3:
      return fault(
          atMs, name + "is replaced while it stands still",
          [this, member] {
            MemberHost* process = all_.running(member);
            if (process == nullptr) return;
            process->suspend(true);
            all_.startProcess(member);
          },
          [this, member] { wakeAll(member); });
    default:
      return fault(atMs, name + "is restarted", [this, member] {
        MemberHost* process = all_.running(member);
        if (process == nullptr) return;
        process->end([this, member] { all_.startProcess(member); });
      });
  }
}

}  // namespace ClusterSimulation
