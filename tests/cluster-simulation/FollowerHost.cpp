#include "tests/cluster-simulation/FollowerHost.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace ClusterSimulation {
namespace {

constexpr uint64_t kLateMs = 15'000;  // longer than any answer may take
constexpr uint64_t kHomeAnswerMs = 1000;
constexpr uint64_t kPromptMs = 100;  // an event that takes longer is late
constexpr uint64_t kNoLeaderAnswerMs = 7'000;

Etcd::Follower::Settings settingsOf(size_t number, Sabotage sabotage) {
  Etcd::Follower::Settings settings;
  settings.prefix = Etcd::KeySpace(kPrefix).all().first;
  for (size_t i = 0; i < Store::kServers; ++i)
    settings.endpoints.push_back(endpointOf((number + i) % Store::kServers));
  settings.place = number;
  settings.holdMs = sabotage == Sabotage::noHold ? 0 : FollowerHost::kHoldMs;
  settings.resyncMs = sabotage == Sabotage::noResync ? 1'000'000'000 : FollowerHost::kResyncMs;
  settings.groupOf = Etcd::KeySpace(kPrefix).groups(Kelstore::Limits());
  return settings;
}

Etcd::Feed::Settings feedSettings(Sabotage sabotage) {
  Etcd::Feed::Settings settings;
  settings.graceMs = sabotage == Sabotage::noGrace ? 0 : FollowerHost::kGraceMs;
  return settings;
}

}  // namespace

std::string endpointOf(size_t server) { return fmt::format("server{}:1", server); }
size_t serverOf(const std::string& endpoint) { return static_cast<size_t>(endpoint[6] - '0'); }

FollowerHost::FollowerHost(size_t number, World& world, Store& store, const Sabotage& sabotage,
                           Changed changed)
    : number_(number),
      world_(world),
      store_(store),
      sabotage_(sabotage),
      changed_(std::move(changed)),
      mailbox_([this] {
        Etcd::Mailbox::Update update = mailbox_.take();
        if (update.snapshot == nullptr) return;
        tables_ = std::move(update.snapshot);
        changed_(update.changed);
      }),
      feed_(Etcd::KeySpace(kPrefix), feedSettings(sabotage), world.clock(), mailbox_),
      follower_(settingsOf(number, sabotage), world.random()) {}

std::string FollowerHost::text(const Kelstore::Path& path) const {
  const Kelstore::Value* value = tables_->find(path);
  return value == nullptr ? std::string() : Kelstore::encode(*value).dump();
}

void FollowerHost::start() {
  follower_.start(world_.nowMs());
  turn();
}

// As Session's thread does after each event.
void FollowerHost::turn() {
  for (auto commands = follower_.takeCommands(); !commands.empty(); commands = follower_.takeCommands()) {
    for (const Etcd::Command& command : commands) {
      std::visit([this](const auto& one) { carryOut(one); }, command);
    }
  }
  feed_.follow(follower_);
  bool watching = follower_.state() == Etcd::Follower::State::watching;
  if (!watching) watchingSinceMs_ = Etcd::Follower::kNever;
  if (watching && watchingSinceMs_ == Etcd::Follower::kNever) watchingSinceMs_ = world_.nowMs();
  uint64_t at = std::min(follower_.wakeAtMs(), feed_.wakeAtMs());
  if (at == Etcd::Follower::kNever) return;
  uint64_t wake = ++wake_;
  world_.in(at - std::min(at, world_.nowMs()), [this, wake] {
    if (wake != wake_) return;
    if (world_.nowMs() >= follower_.wakeAtMs()) follower_.elapsed(world_.nowMs());
    turn();
  });
}

// Results that come after the connection was left are ignored.
template <class Call>
void FollowerHost::later(uint64_t ms, uint64_t connection, Call call) {
  world_.in(ms, [this, connection, call = std::move(call)] {
    if (connected_ && connection == connection_) call();
  });
}

void FollowerHost::leave() {
  connected_ = false;
  if (watch_) store_.unwatch(*watch_);
  watch_.reset();
}

void FollowerHost::carryOut(const Etcd::Disconnect& /*command*/) { leave(); }

void FollowerHost::carryOut(const Etcd::Connect& command) {
  leave();
  connected_ = true;
  ++connection_;
  server_ = serverOf(command.endpoint);
  lastDeliveryMs_ = 0;
}

void FollowerHost::lostAfter(uint64_t ms, const std::string& why) {
  later(ms, connection_, [this, why] {
    follower_.lost(world_.nowMs(), endpointOf(server_) + ": " + why);
    turn();
  });
}

void FollowerHost::carryOut(const Etcd::ReadPage& command) {
  if (!store_.alive(server_)) {
    later(wayMs(), connection_, [this, command] {
      follower_.pageFailed(world_.nowMs(), command.number, Etcd::PageFailure::other, "connection refused");
      turn();
    });
    return;
  }
  later(wayMs(), connection_, [this, command, connection = connection_] { answerRead(connection, command); });
}

void FollowerHost::answerRead(uint64_t connection, const Etcd::ReadPage& command) {
  if (!reaches(server_) || store_.silent(server_)) return;
  bool serves = store_.wiped(server_) || store_.serves(server_);
  Store::Read read;
  if (serves) read = store_.read(server_, command.from, command.revision, command.limit);
  uint64_t takes = serves ? wayMs() + store_.answerMs(server_) : kNoLeaderAnswerMs;
  if (late_) takes = kLateMs;
  int copies = twice_ ? 2 : 1;
  for (int copy = 0; copy < copies; ++copy) {
    uint64_t after = takes + (copy == 0 ? 0 : world_.between(1, 3000));
    later(after, connection, [this, command, read, serves] {
      if (serves && !read.noRevision) {
        follower_.pageRead(world_.nowMs(), command.number, read.page);
      } else {
        follower_.pageFailed(world_.nowMs(), command.number,
                             read.noRevision ? Etcd::PageFailure::noRevision : Etcd::PageFailure::other,
                             "no such revision, or no leader");
      }
      turn();
    });
  }
}

void FollowerHost::carryOut(const Etcd::OpenWatch& command) {
  if (!store_.alive(server_)) return lostAfter(wayMs(), "connection refused");
  if (!(sabotage_ == Sabotage::watchStaysDead && deafWatch_)) deafWatch_ = false;
  later(wayMs(), connection_,
        [this, from = command.fromRevision, connection = connection_] { openWatch(connection, from); });
}

void FollowerHost::openWatch(uint64_t connection, int64_t from) {
  if (!reaches(server_) || store_.silent(server_)) return;
  if (!store_.alive(server_)) return lostAfter(wayMs(), "connection refused");
  Store::Listener listener;
  listener.said = [this, connection](Etcd::WatchResponse response) { said(connection, std::move(response)); };
  listener.lost = [this, connection](const std::string& why) {
    if (connection == connection_) watch_.reset();
    if (connected_ && connection == connection_ && reaches(server_)) lostAfter(wayMs(), why);
  };
  watch_ = store_.watch(server_, from, std::move(listener));
}

void FollowerHost::carryOut(const Etcd::RequestProgress& /*command*/) {
  later(wayMs(), connection_, [this] {
    if (watch_ && reaches(server_) && !store_.silent(server_)) store_.progress(*watch_);
  });
}

void FollowerHost::carryOut(const Etcd::AskHome& command) {
  size_t home = serverOf(command.endpoint);
  bool answers = reaches(home) && !store_.silent(home) && (store_.wiped(home) || store_.serves(home));
  Store::Read read;
  if (answers) read = store_.read(home, command.key, command.revision, 1);
  std::erase_if(read.page.records, [&command](const Etcd::Record& one) { return one.key != command.key; });
  bool comes = answers && !read.noRevision && store_.answerMs(home) < kHomeAnswerMs;
  world_.in(comes ? wayMs() + store_.answerMs(home) : kHomeAnswerMs,
            [this, read, comes, asked = ++homeAsked_] {
              if (asked != homeAsked_) return;
              if (comes) {
                follower_.homeSaid(world_.nowMs(), read.page);
              } else {
                follower_.homeFailed(world_.nowMs());
              }
              turn();
            });
}

void FollowerHost::missesSomething() {
  troubled();
  missesUntilMs_ = world_.nowMs() + kRepairMs;
}

// At the server. What the watch loses is lost here.
void FollowerHost::said(uint64_t connection, Etcd::WatchResponse response) {
  if (!connected_ || connection != connection_) return;
  if (!reaches(server_) || store_.silent(server_)) return troubled();
  bool events = !response.events.empty();
  if (events && (deafWatch_ || toLose_ > 0)) {
    missesSomething();
    if (toLose_ > 0) --toLose_;
    return;
  }
  if (events && repeats_ && world_.chance(30)) {
    Etcd::WatchResponse again = response;
    again.events = lastEvents_;
    if (!lastEvents_.empty()) deliver(connection, std::move(again), true);
  }
  if (events) lastEvents_ = response.events;
  if (events && fragments_ && response.events.size() > 1) {
    auto middle = static_cast<std::ptrdiff_t>(world_.between(1, response.events.size() - 1));
    Etcd::WatchResponse first = response;
    first.fragment = true;
    first.events.erase(first.events.begin() + middle, first.events.end());
    response.events.erase(response.events.begin(), response.events.begin() + middle);
    deliver(connection, std::move(first), true);
  }
  // An answer to a progress request may overtake events.
  bool inOrder = events || response.created || response.canceled || !world_.chance(30);
  deliver(connection, std::move(response), inOrder);
}

void FollowerHost::deliver(uint64_t connection, Etcd::WatchResponse response, bool inOrder) {
  uint64_t at = world_.nowMs() + wayMs() + store_.answerMs(server_) - 1;
  if (inOrder) at = lastDeliveryMs_ = std::max(at, lastDeliveryMs_);
  if (at > world_.nowMs() + kPromptMs) troubleMs_ = std::max(troubleMs_, at);
  if (sabotage_ == Sabotage::fragmentsAreWhole) response.fragment = false;
  later(at - world_.nowMs(), connection, [this, response = std::move(response)] {
    if (!reaches(server_)) return;
    follower_.watchSaid(world_.nowMs(), response);
    turn();
  });
}

// Faults.

void FollowerHost::cut(size_t server, bool is) {
  cut_[server] = is;
  if (connected_ && server == server_) reset();
}

void FollowerHost::cutAll(bool is) {
  cutAll_ = is;
  reset();
}

void FollowerHost::reset() {
  troubled();
  if (!connected_ || !reaches(server_)) return;
  if (watch_) store_.unwatch(*watch_);
  watch_.reset();
  lostAfter(wayMs(), "the connection was reset");
}

void FollowerHost::late(bool is) {
  late_ = is;
  troubled();
}

void FollowerHost::twice(bool is) { twice_ = is; }

void FollowerHost::loseNext(size_t events) { toLose_ = events; }

void FollowerHost::deaf(bool is) {
  deafWatch_ = is;
  if (is) missesSomething();
}

uint64_t FollowerHost::soundSinceMs() const {
  bool excused = watchingSinceMs_ == Etcd::Follower::kNever || cutAll_ || cut_[server_] || late_ ||
                 deafWatch_ || toLose_ > 0 || mayMissSomething() || !store_.healthy(server_);
  if (excused) return Etcd::Follower::kNever;
  return std::max({watchingSinceMs_, troubleMs_ + 1, missesUntilMs_, store_.healthySinceMs(server_)});
}

}  // namespace ClusterSimulation
