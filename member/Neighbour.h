// One neighbour: the state of the interface toward it, and whether it is reachable over that. While there is
// carrier, echoes are sent in intervals. On the event loop's thread; each echo waits on a thread of its own.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "member/Config.h"
#include "member/Echo.h"
#include "member/Links.h"
#include "member/NeighbourReachability.h"
#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Member {

class Neighbour final {
 public:
  // changed: called when the reachability state changes. Io and clock outlive this. An echo that waits may
  // use the probe for longer.
  Neighbour(NeighbourConfig config, std::shared_ptr<EchoProbe> probe, Runtime::Io& io,
            const Zavro::Clock& clock, std::function<void()> changed);
  Neighbour(const Neighbour&) = delete;
  Neighbour& operator=(const Neighbour&) = delete;

  // Sets the configuration; what is known of the neighbour stays. Requires: isSameLink().
  void configIs(const NeighbourConfig& config);
  // Sets the state of the device; nothing: there is none.
  void deviceIs(std::optional<Device> device);

  // As those of NeighbourReachability; not told as a change.
  void lookAtClock() { reachability_.lookAtClock(); }
  void earlierIs(NeighbourReachability::State state, uint64_t lastChangeNs) {
    reachability_.earlierIs(state, lastChangeNs);
  }

  const NeighbourConfig& config() const { return config_; }
  const std::optional<Device>& device() const { return device_; }
  // With which the interface is published; 0: there is no device.
  uint32_t ifIndex() const {
    if (!device_) return 0;
    return config_.ifIndex != 0 ? config_.ifIndex : device_->index;
  }
  const NeighbourReachability& reachability() const { return reachability_; }

 private:
  void ask();
  void asked(const absl::StatusOr<bool>& answer);
  void tellFailure(const absl::Status& status);
  void tellChange(NeighbourReachability::State before);
  void tellHeldBack();
  void tellIndex();

  NeighbourConfig config_;
  std::shared_ptr<EchoProbe> probe_;
  Runtime::Io& io_;
  std::function<void()> changed_;
  std::optional<Device> device_;
  NeighbourReachability reachability_;
  std::unique_ptr<Runtime::Io::Activity> next_;
  uint64_t round_ = 0;  // counts changes of the device; answers of earlier rounds do not count
  bool asking_ = false;
  int overdue_ = 0;       // intervals since the echo was sent
  bool failing_ = false;  // echoes have no result, or too few have had one since
  uint32_t resultsSinceFailure_ = 0;
  bool toldHeldBack_ = false;
  std::pair<uint32_t, uint32_t> toldIndexes_;  // as published, and of the device
  Runtime::OffLoop offLoop_{io_};
};

}  // namespace Member
