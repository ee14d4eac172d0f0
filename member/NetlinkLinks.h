// The devices as the kernel tells of them, over netlink: all of them at the start, then every change. What
// the kernel could not tell, since too much happened at once, is made up for by asking for all of them again.
//
// On the event loop's thread: whoever owns it watches fd() and calls readable().
#pragma once

#include <libmnl/libmnl.h>

#include <functional>
#include <memory>
#include <string>

#include "member/Links.h"

namespace Member {

class NetlinkLinks final : public Links {
 public:
  // `changed` is called when all devices are known, and after every change from then on. Throws
  // std::runtime_error, in one line, when the kernel has no such socket for us.
  explicit NetlinkLinks(std::function<void()> changed);

  int fd() const { return mnl_socket_get_fd(socket_.get()); }
  // Takes what the kernel has told until now. Never waits.
  void readable();

  bool known() const override { return table_.known(); }
  std::optional<Device> find(const std::string& name) const override { return table_.find(name); }

 private:
  struct Close {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
  };

  void askForAll();
  // False when there is nothing to be read.
  bool receive();
  void take(const nlmsghdr* message);
  void takeLink(const nlmsghdr* message);
  void takeError(const nlmsghdr* message);
  void allAreTold();
  void told(int error);

  std::function<void()> changed_;
  std::unique_ptr<mnl_socket, Close> socket_;
  LinkTable table_;
  uint32_t sequence_ = 0;  // of the last request for all
  bool asking_ = false;    // its answer is not complete yet
  bool missed_ = false;    // something was missed since it was asked
  bool news_ = false;      // of which was not told yet
  int lastError_ = 0;      // of which was told
};

}  // namespace Member
