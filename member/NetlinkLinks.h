// The network devices over netlink: a listing at the start, then every change. When the kernel had to drop
// messages, all devices are listed again.
//
// On the event loop's thread. The owner watches fd() and calls readable().
#pragma once

#include <libmnl/libmnl.h>

#include <functional>
#include <memory>
#include <string>

#include "member/Links.h"

namespace Member {

class NetlinkLinks final : public Links {
 public:
  // changed: called once all devices are known, and after changes from then on. Throws std::runtime_error,
  // one line, if the kernel gives no socket.
  explicit NetlinkLinks(std::function<void()> changed);

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
  void logOnce(int error);

  std::function<void()> changed_;
  std::unique_ptr<mnl_socket, Close> socket_;
  LinkTable table_;
  uint32_t sequence_ = 0;  // of the last listing
  bool listing_ = false;   // it has not ended
  bool missed_ = false;    // a message was lost since it began
  bool news_ = false;      // changed_ is to be called
  int lastError_ = 0;      // that was logged
};

}  // namespace Member
