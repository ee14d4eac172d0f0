#include "kelstore/etcd/EtcdSource.h"

#include <system_error>
#include <utility>

#include "kelstore/Trace.h"

namespace Kelstore::Etcd {
namespace {

using Lumalog::kErrorLevel;

}  // namespace

EtcdSource::EtcdSource(std::string name, const FollowSettings& settings, LayeredState& layers,
                       Runtime::Io& io, const Zavro::Clock& clock, Runtime::Threads& threads)
    : name_(std::move(name)),
      settings_(settings),
      layers_(layers),
      io_(io),
      clock_(clock),
      layer_(layers.addLayer()),
      waker_(io.waker([this] { take(); })),
      mailbox_([this] { waker_->wake(); }),
      session_(settings, clock, mailbox_, threads) {}

EtcdSource::~EtcdSource() {
  if (!thread_.joinable()) return;
  session_.stop();
  thread_.join();
}

void EtcdSource::start() {
  patience_ = io_.after(kPatienceMs, [this] {
    settled_ = true;
    outOfPatienceUtcNs_ = clock_.utcNs();
    if (mailbox_.status().lastError.empty()) {
      traceHandle.trace(
          {name_, ""}, kErrorLevel,
          "{}: nothing read within {} s: neither the servers nor the file system of what --etcd-... names "
          "may have answered; still trying",
          name_, kPatienceMs / 1000);
    }
    layers_.settledIs(layer_);
  });
  startThread();
}

void EtcdSource::startThread() {
  try {
    thread_ = std::thread([this] { session_.run(); });
  } catch (const std::system_error& error) {
    traceHandle.trace(kErrorLevel, "{}: no thread: {}", name_, error.what());
    retry_ = io_.after(kRetryThreadMs, [this] { startThread(); });
  }
}

void EtcdSource::take() {
  Mailbox::Update update = mailbox_.take();
  for (const Line& line : update.lines) {
    traceHandle.trace({name_, line.key}, line.level, "{}: {}", name_, line.text);
  }
  if (update.snapshot != nullptr) {
    if (mirrored()) mirrored_ = taken_;
    taken_ = update.revision;
    if (update.news) lastChangeUtcNs_ = clock_.utcNs();
    mailbox_.discard(layers_.snapshot(layer_));
    layers_.snapshotIs(layer_, std::move(update.snapshot), std::move(update.changed));
  }
  if (update.leasesAsked) {
    refreshedNs_ = clock_.monotonicNs();
    refreshed();
  }
  if (!update.settled || settled_) return;
  settled_ = true;
  patience_.reset();
  layers_.settledIs(layer_);
}

void EtcdSource::refresh(std::function<void()> done) {
  if (refreshedNs_ && clock_.monotonicNs() - *refreshedNs_ < kRefreshAgainMs * 1'000'000) return done();
  refreshing_.push_back(std::move(done));
  if (refreshing_.size() > 1) return;
  refreshBy_ = io_.after(kRefreshMs, [this] { refreshed(); });
  session_.askForLeases();
}

void EtcdSource::refreshed() {
  refreshBy_.reset();
  for (const auto& done : std::exchange(refreshing_, {})) done();
}

bool EtcdSource::accept() {
  if (mailbox_.status().otherStore.empty()) return false;
  session_.accept();
  return true;
}

SourceStatus EtcdSource::status() const {
  using State = SourceStatus::State;
  SourceStatus status;
  StoreStatus store = mailbox_.status();
  store.mirroredRevision = mirrored() ? taken_ : mirrored_;
  bool listed = store.revision != 0;
  if (!listed && store.staleSinceUtcNs == 0) store.staleSinceUtcNs = outOfPatienceUtcNs_;
  status.name = name_;
  status.paths = layers_.snapshot(layer_)->size();
  status.setAside = store.setAside;
  status.lastChangeUtcNs = lastChangeUtcNs_;
  status.staleSinceUtcNs = store.staleSinceUtcNs;
  if (store.staleSinceUtcNs != 0) {
    status.state = State::stale;
  } else if (store.heldSinceUtcNs != 0) {
    status.state = State::held;
  } else if (store.setAside != 0) {
    status.state = State::partial;
  } else {
    status.state = listed ? State::current : State::loading;
  }
  if (status.state == State::stale || status.state == State::held || status.state == State::loading) {
    status.error = store.otherStore.empty() ? store.lastError : store.otherStore;
    if (status.state == State::stale && status.error.empty())
      status.error = "its keys have not been read yet";
  } else if (!store.examples.empty()) {
    status.error = "key " + store.examples.front().key + ": " + store.examples.front().error;
  }
  status.store = std::move(store);
  return status;
}

}  // namespace Kelstore::Etcd
