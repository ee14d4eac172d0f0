// One neighbour: what is known of the interface toward it, and whether it is reachable over that, found out
// with echoes in intervals for as long as there is carrier. On the event loop's thread; echoes are waited for
// off it, each on a thread of its own.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "member/Config.h"
#include "member/Echo.h"
#include "member/Links.h"
#include "member/NeighbourReachability.h"
#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Member {

class Neighbour final {
 public:
  // `changed` is called when the state is another one. Io and clock outlive this; the probe may be in use for
  // longer, by an echo that is waited for.
  Neighbour(NeighbourConfig config, std::shared_ptr<EchoProbe> probe, Runtime::Io& io,
            const Zavro::Clock& clock, std::function<void()> changed);
  Neighbour(const Neighbour&) = delete;
  Neighbour& operator=(const Neighbour&) = delete;

  // From now on this counts; what is known of the neighbour stays. Requires: it is the same link.
  void configIs(const NeighbourConfig& config);
  // The device toward it, as it is now; nothing: there is none.
  void deviceIs(std::optional<Device> device);

  const NeighbourConfig& config() const { return config_; }
  const std::optional<Device>& device() const { return device_; }
  const NeighbourReachability& reachability() const { return reachability_; }

 private:
  void ask();
  void asked(const absl::StatusOr<bool>& answer);
  void tellChange(NeighbourReachability::State before);

  NeighbourConfig config_;
  std::shared_ptr<EchoProbe> probe_;
  Runtime::Io& io_;
  std::function<void()> changed_;
  std::optional<Device> device_;
  NeighbourReachability reachability_;
  std::unique_ptr<Runtime::Io::Activity> next_;
  uint64_t round_ = 0;  // a new one with each change of the device; answers of earlier ones do not count
  bool asking_ = false;
  int overdue_ = 0;  // intervals since it was asked for
  bool toldFailure_ = false;
  Runtime::OffLoop offLoop_{io_};
};

}  // namespace Member
