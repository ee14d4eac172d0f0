#include "member/NetlinkLinks.h"

#include <fcntl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "member/Trace.h"
#include "runtime/Errors.h"

namespace Member {
namespace {

using Lumalog::kErrorLevel;

constexpr int kWorksAgainLevel = 1;
constexpr size_t kBufferBytes = 1 << 15;  // as much as the kernel puts into one answer

// The attributes of a link that are used. They point into the message.
struct Attributes {
  const char* name = nullptr;
  const nlattr* carrier = nullptr;
};

int attributeIs(const nlattr* attribute, void* target) {
  auto* attributes = static_cast<Attributes*>(target);
  switch (mnl_attr_get_type(attribute)) {
    case IFLA_IFNAME:
      if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0)
        attributes->name = mnl_attr_get_str(attribute);
      break;
    case IFLA_CARRIER:
      if (mnl_attr_validate(attribute, MNL_TYPE_U8) >= 0) attributes->carrier = attribute;
      break;
    default:
      break;
  }
  return MNL_CB_OK;
}

}  // namespace

NetlinkLinks::NetlinkLinks(Runtime::Io& io, std::function<void()> changed)
    : io_(io),
      changed_(std::move(changed)),
      socket_(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK)) {
  if (!socket_) throw std::runtime_error(Runtime::textOf(Runtime::errorOf("netlink", errno)));
  // Bound before the listing begins, so that no change is missed in between.
  if (mnl_socket_bind(socket_.get(), RTMGRP_LINK, MNL_SOCKET_AUTOPID) < 0) {
    throw std::runtime_error(Runtime::textOf(Runtime::errorOf("netlink", errno)));
  }
  listAll();
}

void NetlinkLinks::listAll() {
  std::array<char, 256> buffer{};
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETLINK;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = ++sequence_;
  auto* link = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
  link->ifi_family = AF_UNSPEC;
  retry_.reset();
  missed_ = false;
  listing_ = true;
  table_.listingBegins();
  if (mnl_socket_sendto(socket_.get(), request, request->nlmsg_len) >= 0) return;
  refused(errno);
}

void NetlinkLinks::readable() {
  while (receive()) {
  }
  if (missed_ && !listing_ && !retry_) listAll();
  if (!news_ || !table_.known()) return;
  news_ = false;
  changed_();
}

bool NetlinkLinks::receive() {
  alignas(nlmsghdr) std::array<char, kBufferBytes> buffer;
  ssize_t received = mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
  if (received < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return false;
    if (errno == EINTR) return true;
    // The kernel dropped messages, or one did not fit.
    missed_ = true;
    if (errno == ENOBUFS || errno == ENOSPC) return true;
    refused(errno);
    return false;
  }
  int left = static_cast<int>(received);
  for (const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(message, left);
       message = mnl_nlmsg_next(message, &left)) {
    take(message);
  }
  return true;
}

void NetlinkLinks::take(const nlmsghdr* message) {
  bool answer = listing_ && message->nlmsg_seq == sequence_ && message->nlmsg_pid != 0;
  // The devices changed while they were listed.
  if (answer && (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) missed_ = true;
  switch (message->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return takeLink(message);
    case NLMSG_DONE:
      if (answer) listed();
      return;
    case NLMSG_ERROR:
      if (answer) takeError(message);
      return;
    default:
      return;
  }
}

void NetlinkLinks::listed() {
  listing_ = false;
  if (!missed_) {
    table_.listingEnds();
    if (std::exchange(lastError_, 0) != 0) traceHandle.trace(kWorksAgainLevel, "netlink: works again");
  }
  news_ = true;
}

void NetlinkLinks::takeError(const nlmsghdr* message) {
  if (mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr)) return;
  refused(-static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message))->error);
}

// Only messages without an address family count: when a port leaves a bridge, the kernel reports a link of
// the bridge family as deleted, and the device stays.
void NetlinkLinks::takeLink(const nlmsghdr* message) {
  if (mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg)) return;
  const auto* link = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message));
  if (link->ifi_family != AF_UNSPEC) return;
  auto index = static_cast<uint32_t>(link->ifi_index);
  if (message->nlmsg_type == RTM_DELLINK) {
    news_ = table_.deviceIsGone(index) || news_;
    return;
  }
  Attributes attributes;
  mnl_attr_parse(message, sizeof(ifinfomsg), attributeIs, &attributes);
  if (attributes.name == nullptr) return;
  bool carrier = attributes.carrier == nullptr ? (link->ifi_flags & IFF_LOWER_UP) != 0
                                               : mnl_attr_get_u8(attributes.carrier) != 0;
  Device device{index, (link->ifi_flags & IFF_UP) != 0, carrier};
  news_ = table_.deviceIs(attributes.name, device) || news_;
}

// Not at once, since the kernel would refuse it as fast as it is asked.
void NetlinkLinks::refused(int error) {
  listing_ = false;
  missed_ = true;
  retry_ = io_.after(kRetryMs, [this] { listAll(); });
  if (error == lastError_) return;
  lastError_ = error;
  traceHandle.trace(kErrorLevel, "{}", Runtime::textOf(Runtime::errorOf("netlink", error)));
}

}  // namespace Member
