// The source `etcd:...`: the keys of an etcd cluster under a prefix. A thread of its own (Session.h) follows
// them and makes the snapshots; the event loop's thread only takes these over.
//
// Its layer settles once all keys are listed, or every server failed, or after kPatienceMs, so that no other
// source waits for a store that is out of reach. It is stale then until it is listed.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "kelstore/LayeredState.h"
#include "kelstore/Source.h"
#include "kelstore/etcd/Mailbox.h"
#include "kelstore/etcd/Session.h"
#include "platform/zavro/Clock.h"
#include "runtime/Io.h"

namespace Kelstore::Etcd {

class EtcdSource final : public Source {
 public:
  static constexpr uint64_t kPatienceMs = 5'000;      // with the first listing, before the source settles
  static constexpr uint64_t kRetryThreadMs = 1'000;   // when the system has no thread left
  static constexpr uint64_t kRefreshMs = 2'000;       // for the store to say what time the leases have left
  static constexpr uint64_t kRefreshAgainMs = 5'000;  // for so long it is not asked again

  // name: in status and log lines. Layers, io, clock and threads outlive the source; the clock is read on two
  // threads.
  EtcdSource(std::string name, const FollowSettings& settings, LayeredState& layers, Runtime::Io& io,
             const Zavro::Clock& clock, Runtime::Threads& threads);
  // Waits for no server and no file.
  ~EtcdSource() override;

  void start() override;
  SourceStatus status() const override;
  void refresh(std::function<void()> done) override;
  bool alive() override { return !thread_.joinable() || session_.alive(); }
  bool accept() override;

 private:
  void startThread();
  void take();
  void refreshed();
  bool mirrored() const { return layers_.idle(); }

  std::string name_;
  FollowSettings settings_;
  LayeredState& layers_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  LayeredState::Layer layer_;
  bool settled_ = false;
  uint64_t outOfPatienceUtcNs_ = 0;  // when kPatienceMs had passed; 0: it settled before
  uint64_t lastChangeUtcNs_ = 0;
  int64_t taken_ = 0;     // revision of the layer's snapshot
  int64_t mirrored_ = 0;  // revision of the last snapshot that was mirrored when the next one came
  std::unique_ptr<Runtime::Io::Activity> patience_;
  std::unique_ptr<Runtime::Io::Activity> retry_;
  std::unique_ptr<Runtime::Io::Activity> refreshBy_;
  std::vector<std::function<void()>> refreshing_;
  std::optional<uint64_t> refreshedNs_;  // when the store has said it last
  std::unique_ptr<Runtime::Io::Waker> waker_;
  Mailbox mailbox_;
  Session session_;
  std::thread thread_;
};

}  // namespace Kelstore::Etcd
