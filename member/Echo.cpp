#include "member/Echo.h"

#include <fmt/format.h>
#include <oping.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

namespace Member {
namespace {

struct Destroy {
  void operator()(pingobj_t* ping) const { ping_destroy(ping); }
};

absl::Status failedIn(const EchoTarget& target, pingobj_t* ping) {
  std::string_view why = ping_get_error(ping);
  const char* hint = why == strerrordesc_np(EPERM) ? " (it takes CAP_NET_RAW)" : "";
  return absl::UnavailableError(
      fmt::format("echo to {} on {}: {}{}", target.address, target.device, why, hint));
}

// Under a lock, since liboping makes identifiers from state that all its objects share.
int addHost(pingobj_t* ping, const std::string& address) {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  return ping_host_add(ping, address.c_str());
}

}  // namespace

// Each request has an object of its own, since the socket is bound to the device that has the name now.
// Answers to earlier requests have other identifiers.
absl::StatusOr<bool> PingProbe::ask(const EchoTarget& target) {
  std::unique_ptr<pingobj_t, Destroy> ping(ping_construct());
  if (!ping) return absl::ResourceExhaustedError("echo: out of memory");
  double seconds = std::chrono::duration<double>(target.timeout).count();
  std::string device = target.device;
  bool set = ping_setopt(ping.get(), PING_OPT_TIMEOUT, &seconds) == 0 &&
             ping_setopt(ping.get(), PING_OPT_DEVICE, device.data()) == 0 &&
             addHost(ping.get(), target.address) == 0;
  if (!set || ping_send(ping.get()) < 0) return failedIn(target, ping.get());
  pingobj_iter_t* host = ping_iterator_get(ping.get());
  double milliseconds = -1;
  size_t size = sizeof milliseconds;
  if (host == nullptr || ping_iterator_get_info(host, PING_INFO_LATENCY, &milliseconds, &size) != 0) {
    return failedIn(target, ping.get());
  }
  return milliseconds >= 0;
}

}  // namespace Member
