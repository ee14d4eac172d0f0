// The source `etcd:...`: the keys of an etcd cluster under a prefix. Followed on a thread of its own
// (Session.h); on the event loop's thread it takes what that has for it, which costs next to nothing however
// much it is.
//
// It settles once all keys were listed, or every server was tried in vain, or some time has passed: a store
// that is out of reach keeps no other source waiting, as a file that is missing does not. Until it is listed
// it counts as stale then.
#pragma once

#include <memory>
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
  static constexpr uint64_t kPatienceMs = 5'000;     // with the first listing, before the source settles
  static constexpr uint64_t kRetryThreadMs = 1'000;  // when the system has no thread left

  // `name` is what status and log lines call it. Layers, io, clock and threads outlive the source; the clock
  // is read on two threads.
  EtcdSource(std::string name, const FollowSettings& settings, LayeredState& layers, Runtime::Io& io,
             const Zavro::Clock& clock, Runtime::Threads& threads);
  // Does not wait for any server, nor for any file.
  ~EtcdSource() override;

  void start() override;
  SourceStatus status() const override;

 private:
  void startThread();
  void take();
  bool mirrored() const { return layers_.idle(); }

  std::string name_;
  FollowSettings settings_;
  LayeredState& layers_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  LayeredState::Layer layer_;
  bool settled_ = false;
  uint64_t outOfPatienceUtcNs_ = 0;  // 0: it settled before
  uint64_t lastChangeUtcNs_ = 0;
  int64_t taken_ = 0;     // revision that the layer was given
  int64_t mirrored_ = 0;  // the one before, once it was mirrored
  std::unique_ptr<Runtime::Io::Activity> patience_;
  std::unique_ptr<Runtime::Io::Activity> retry_;
  std::unique_ptr<Runtime::Io::Waker> waker_;
  Mailbox mailbox_;
  Session session_;
  std::thread thread_;
};

}  // namespace Kelstore::Etcd
