#include "tests/cluster-simulation/MemberHost.h"

#include <algorithm>
#include <utility>

#include "kelstore/Schema.h"

namespace ClusterSimulation {
namespace {

// Of a call, over all servers, and how the client divides it.
constexpr uint64_t kDeadlineMs = 5000;
constexpr uint64_t kNoLeaderMs = 300;  // until a server without a leader says so

}  // namespace

// What the publisher calls. `fails` is set by the process before each call.
class MemberHost::Client final : public Member::LeaseStore {
 public:
  explicit Client(MemberHost& host) : host_(host) {}

  bool fails = false;

  absl::StatusOr<Lease> grant(std::chrono::seconds ttl) override {
    if (fails) return unavailable();
    if (host_.refused_) return refused();
    auto lease = host_.store_.grant(static_cast<uint64_t>(ttl.count()) * 1000);
    if (lease.ok()) host_.leases_.insert(*lease);
    return lease;
  }
  absl::Status renew(Lease lease) override {
    if (host_.sabotage_ == Sabotage::noRenewal) return absl::OkStatus();
    return fails ? unavailable() : host_.store_.renew(lease);
  }
  absl::Status revoke(Lease lease, Why why) override {
    if (fails) return unavailable();
    if (why == Why::leaves && host_.sabotage_ != Sabotage::noMark && !host_.refused_) {
      std::string mark = keys_.leavingKey(host_.member_);
      host_.store_.txn({{Etcd::Op::What::put, mark, "{}", lease}}, {}).IgnoreError();
    }
    absl::Status status =
        host_.store_.revoke(lease, why == Why::leaves && !host_.store_.full() && !host_.refused_);
    return absl::IsNotFound(status) ? absl::OkStatus() : status;
  }
  absl::StatusOr<Holdings> list(uint8_t member, const std::vector<std::string>& interfaces) override {
    if (fails) return unavailable();
    Holdings holdings;
    Etcd::Page page = host_.store_.read(host_.server_, keys_.all().first, 0, 1'000'000).page;
    for (Etcd::Record& record : page.records) {
      absl::StatusOr<Kelstore::Path> path = keys_.path(record.key);
      if (!path.ok()) continue;
      bool shared = path->kind == Kelstore::Kind::interface;
      bool wanted = shared ? std::count(interfaces.begin(), interfaces.end(), path->first()) != 0
                           : path->first() == std::to_string(member);
      bool foreign = record.lease != 0 && !host_.owns(record.lease);
      if (host_.sabotage_ == Sabotage::noStandby && foreign && !shared) continue;
      if (wanted) holdings[*path] = {record.value, record.lease, record.modRevision};
    }
    return holdings;
  }
  absl::StatusOr<int64_t> write(const std::vector<Change>& changes,
                                const std::vector<Precondition>& preconditions, Lease lease) override {
    if (fails) return unavailable();
    if (host_.refused_) {
      if (host_.sabotage_ == Sabotage::renewsForEver) return host_.store_.revision();
      return refused();
    }
    std::vector<Etcd::Op> ops;
    for (const Change& change : changes) {
      std::string key = keys_.key(change.path);
      if (change.text) {
        ops.push_back({Etcd::Op::What::put, key, *change.text, lease});
      } else {
        ops.push_back({Etcd::Op::What::del, key});
      }
    }
    std::vector<Etcd::Precondition> conditions;
    for (const Precondition& one : preconditions) conditions.push_back({keys_.key(one.path), one.revision});
    return host_.store_.txn(ops, conditions);
  }
  std::string endpoint() const override { return std::to_string(host_.server_); }

 private:
  static absl::Status unavailable() { return absl::UnavailableError("no answer in time"); }
  static absl::Status refused() { return absl::PermissionDeniedError("permission denied"); }

  MemberHost& host_;
  Etcd::KeySpace keys_{kPrefix};
};

class MemberHost::Timer final : public Runtime::Io::Activity {
 public:
  ~Timer() override { *goes = false; }
  std::shared_ptr<bool> goes = std::make_shared<bool>(true);
};

MemberHost::MemberHost(uint8_t member, std::string interface, bool handover, World& world, Store& store,
                       const Sabotage& sabotage)
    : member_(member),
      world_(world),
      store_(store),
      sabotage_(sabotage),
      client_(std::make_shared<Client>(*this)),
      server_(world.below(Store::kServers)) {
  Member::Publisher::Settings settings;
  settings.member = member;
  settings.interfaces = {std::move(interface)};
  settings.ttlSeconds = kTtlSeconds;
  settings.random = world.random();
  settings.handover = handover;
  publisher_ =
      std::make_unique<Member::Publisher>(std::move(settings), client_, *this, world.clock(),
                                          Member::Publisher::Listener{[] {}, [](const std::string&) {}});
}

MemberHost::~MemberHost() { *alive_ = false; }

void MemberHost::contentIs(const Content& content) {
  content_ = content;
  std::erase_if(wantedSinceMs_, [&content](const auto& one) { return !content.contains(one.first); });
  for (const auto& [path, value] : content) wantedSinceMs_.try_emplace(path, world_.nowMs());
  if (running() && !suspended_) tellContent();
}

void MemberHost::tellContent() { publisher_->contentIs({content_.begin(), content_.end()}); }

bool MemberHost::wants(const Kelstore::Path& path, uint64_t ms) const {
  auto since = wantedSinceMs_.find(path);
  return since != wantedSinceMs_.end() && world_.nowMs() >= since->second + ms;
}

void MemberHost::end(std::function<void()> ended) {
  now([this, ended = std::move(ended)] {
    ending_ = true;
    publisher_->end([this, ended] {
      ended_ = true;
      if (ended) ended();
    });
  });
}

void MemberHost::kill() {
  dead_ = true;
  waiting_.clear();
}

void MemberHost::suspend(bool is) {
  bool wakes = std::exchange(suspended_, is) && !is && running();
  if (wakes) tellContent();
  while (!suspended_ && !waiting_.empty()) {
    auto call = std::move(waiting_.front());
    waiting_.pop_front();
    now(std::move(call));
  }
}

bool MemberHost::served() const {
  if (!running() || ending_ || suspended_ || refused_) return false;
  for (size_t i = 0; i < Store::kServers; ++i) {
    if (usable(i)) return true;
  }
  return false;
}

bool MemberHost::servedWell() const {
  bool anyCut = cutAll_ || std::count(cut_.begin(), cut_.end(), true) != 0;
  return served() && !anyCut && lostAnswers_ == 0;
}

void MemberHost::now(std::function<void()> call) {
  if (dead_ || ended_) return;
  if (suspended_) {
    waiting_.push_back(std::move(call));
  } else {
    call();
  }
}

void MemberHost::in(uint64_t ms, std::function<void()> call) {
  world_.in(ms, [this, alive = alive_, call = std::move(call)] {
    if (*alive) now(call);
  });
}

// Its parts ask for neither.
std::unique_ptr<Runtime::Io::Waker> MemberHost::waker(std::function<void()> /*woken*/) { return nullptr; }
std::unique_ptr<Runtime::Io::Activity> MemberHost::watch(const std::string& /*path*/,
                                                         std::function<void()> /*changed*/) {
  return nullptr;
}

std::unique_ptr<Runtime::Io::Activity> MemberHost::after(uint64_t ms, std::function<void()> elapsed) {
  auto timer = std::make_unique<Timer>();
  in(ms, [goes = timer->goes, elapsed = std::move(elapsed)] {
    if (std::exchange(*goes, false)) elapsed();
  });
  return timer;
}

// Calls of the store.

void MemberHost::offLoop(std::function<void()> work, std::function<void()> done) {
  auto job = std::make_shared<Job>(Job{std::move(work), std::move(done)});
  job->untilMs = world_.nowMs() + kDeadlineMs;
  job->server = server_;
  tryServer(job);
}

bool MemberHost::usable(size_t server) const {
  return store_.serves(server) && !cut_[server] && !cutAll_ && store_.answerMs(server) < kDeadlineMs / 5;
}

void MemberHost::tryServer(const JobPtr& job) {
  bool unreachable = cutAll_ || cut_[job->server] || store_.silent(job->server);
  if (!store_.alive(job->server) && !unreachable) return next(job, 2);
  // The first has half of the time, and each of the others an equal part of the rest.
  uint64_t left = job->untilMs - std::min(job->untilMs, world_.nowMs());
  uint64_t share = left / (job->tried == 0 ? 2 : Store::kServers - std::min(job->tried, Store::kServers - 1));
  if (unreachable || store_.wiped(job->server)) return next(job, store_.wiped(job->server) ? 2 : share);
  if (!store_.serves(job->server)) return next(job, std::min(share, kNoLeaderMs));
  uint64_t takes = world_.between(1, 4) + store_.answerMs(job->server);
  if (takes > share) return next(job, share);
  in(takes / 2, [this, job, share, takes] {
    if (!usable(job->server)) return next(job, share);
    client_->fails = false;
    server_ = job->server;
    job->work();
    if (world_.chance(lostAnswers_)) {
      job->answerLost = true;
      return next(job, share);
    }
    in(takes - takes / 2, [job] { job->done(); });
  });
}

void MemberHost::next(const JobPtr& job, uint64_t waitedMs) {
  in(waitedMs, [this, job] {
    server_ = job->server = (job->server + 1) % Store::kServers;
    if (++job->tried < Store::kServers) return tryServer(job);
    if (job->answerLost) answersLostMs_ = world_.nowMs();
    client_->fails = true;
    job->work();
    job->done();
  });
}

}  // namespace ClusterSimulation
