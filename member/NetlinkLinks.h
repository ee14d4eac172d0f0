// The network devices over netlink: a listing at the start, then every change. When the kernel had to drop
// messages, all devices are listed again; when it refuses to list them, it is asked again every second.
//
// On the event loop's thread. The owner watches fd() and calls readable().
#pragma once

#include <libmnl/libmnl.h>

#include <functional>
#include <memory>
#include <string>

#include "member/Links.h"
#include "runtime/Io.h"

namespace Member {

class NetlinkLinks final : public Links {
 public:
  static constexpr uint64_t kRetryMs = 1000;

  // changed: called once all devices are known, and after changes from then on. Io outlives this. Throws
  // std::runtime_error, one line, if the kernel gives no socket.
  NetlinkLinks(Runtime::Io& io, std::function<void()> changed);

  int fd() const { return mnl_socket_get_fd(socket_.get()); }
  // Handles the messages that have arrived. Never waits.
  void readable();

  bool known() const override { return table_.known(); }
  std::optional<Device> find(const std::string& name) const override { return table_.find(name); }

 private:
  struct Close {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
  };

  void listAll();
  // False if there is nothing to read.
  bool receive();
  void take(const nlmsghdr* message);
  void takeLink(const nlmsghdr* message);
  void takeError(const nlmsghdr* message);
  void listed();
  void refused(int error);

  Runtime::Io& io_;
  std::function<void()> changed_;
  std::unique_ptr<mnl_socket, Close> socket_;
  LinkTable table_;
  uint32_t sequence_ = 0;                         // of the last listing
  bool listing_ = false;                          // it has not ended
  bool missed_ = false;                           // a message was lost since it began
  bool news_ = false;                             // changed_ is to be called
  int lastError_ = 0;                             // that was logged
  std::unique_ptr<Runtime::Io::Activity> retry_;  // of a listing that was refused
};

}  // namespace Member
