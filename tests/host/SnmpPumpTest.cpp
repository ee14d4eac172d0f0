// net-snmp's sessions on the event loop, over real sockets.
#include "host/SnmpPump.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "snmp-modules/NetSnmp.h"
#include "tests/runtime/Turning.h"
#include "tests/support/Network.h"

namespace Host {
namespace {

// A session that waits for requests at a free port and counts them.
class Listener {
 public:
  Listener() : address_("udp:127.0.0.1:" + std::to_string(Support::freeUdpPort())) {
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.callback = &Listener::arrived;
    session.callback_magic = this;
    netsnmp_transport* transport = netsnmp_transport_open_server("pump", address_.c_str());
    fd_ = transport == nullptr ? -1 : transport->sock;
    session_ = transport == nullptr ? nullptr : snmp_add(&session, transport, nullptr, nullptr);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() {
    if (session_ != nullptr) snmp_close(session_);
  }

  const std::string& address() const { return address_; }
  int fd() const { return fd_; }
  int requests() const { return requests_; }

 private:
  static int arrived(int, netsnmp_session*, int, netsnmp_pdu*, void* self) {
    ++static_cast<Listener*>(self)->requests_;
    return 1;
  }

  std::string address_;
  netsnmp_session* session_ = nullptr;
  int fd_ = -1;
  int requests_ = 0;
};

// Sends requests, and hears when one is given up.
class Sender {
 public:
  explicit Sender(const std::string& peer) : peer_(peer) {
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.peername = peer_.data();
    static u_char community[] = "public";
    session.community = community;
    session.community_len = 6;
    session.retries = 0;
    session.timeout = 20'000;
    session_ = snmp_open(&session);
  }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  ~Sender() { snmp_close(session_); }

  void send() {
    netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_GET);
    const oid name[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
    snmp_add_null_var(pdu, name, OID_LENGTH(name));
    auto heard = [](int operation, netsnmp_session*, int, netsnmp_pdu*, void* self) {
      if (operation == NETSNMP_CALLBACK_OP_TIMED_OUT) ++static_cast<Sender*>(self)->timeouts_;
      return 1;
    };
    EXPECT_NE(snmp_async_send(session_, pdu, heard, this), 0);
  }
  int timeouts() const { return timeouts_; }

 private:
  std::string peer_;
  netsnmp_session* session_ = nullptr;
  int timeouts_ = 0;
};

class SnmpPumpTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("MIBS", "", 1);
    setenv("SNMPCONFPATH", "/nonexistent", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    init_snmp("pump");
  }

  Runtime::EventLoop loop_;
  SnmpPump pump_{loop_};
};

TEST_F(SnmpPumpTest, RequestArrives_ItsSessionGetsIt) {
  Listener listener;
  Sender sender(listener.address());
  sender.send();
  EXPECT_TRUE(turnUntil(loop_, [&] { return listener.requests() == 1; }));
}

TEST_F(SnmpPumpTest, NoAnswerComes_TheTimeoutIsTold) {
  Listener listener;
  Sender sender(listener.address());
  sender.send();
  EXPECT_TRUE(turnUntil(loop_, [&] { return sender.timeouts() == 1; }));
}

TEST_F(SnmpPumpTest, AlarmIsDue_ItIsRung) {
  int rung = 0;
  timeval soon{0, 10'000};
  snmp_alarm_register_hr(
      soon, 0, [](unsigned, void* count) { ++*static_cast<int*>(count); }, &rung);
  EXPECT_TRUE(turnUntil(loop_, [&] { return rung == 1; }));
}

TEST_F(SnmpPumpTest, SocketIsClosedAndItsNumberReused_TheNewOneIsHeard) {
  int number = -1;
  for (int round = 0; round < 5; ++round) {
    Listener listener;
    EXPECT_TRUE(number < 0 || listener.fd() == number) << "the test needs the number to be reused";
    number = listener.fd();
    Sender sender(listener.address());
    sender.send();
    ASSERT_TRUE(turnUntil(loop_, [&] { return listener.requests() == 1; })) << round;
  }
}

TEST_F(SnmpPumpTest, DescriptorsAbove1023_AreServed) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  rlimit wanted = limit;
  wanted.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2048);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &wanted), 0);
  ASSERT_GT(wanted.rlim_cur, 1200u);
  std::vector<int> ballast;
  while (ballast.empty() || ballast.back() < 1100) {
    ballast.push_back(open("/dev/null", O_RDONLY));
    ASSERT_GE(ballast.back(), 0);
  }
  {
    Listener listener;
    EXPECT_GT(listener.fd(), 1023);
    Sender sender(listener.address());
    sender.send();
    EXPECT_TRUE(turnUntil(loop_, [&] { return listener.requests() == 1; }));
    sender.send();
    EXPECT_TRUE(turnUntil(loop_, [&] { return listener.requests() == 2; }));
  }
  for (int fd : ballast) close(fd);
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
}  // namespace Host
