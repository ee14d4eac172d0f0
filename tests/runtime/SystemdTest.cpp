// What systemd gets to hear, on a socket that stands in for systemd's.
#include "runtime/Systemd.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/runtime/Turning.h"
#include "tests/support/TempDir.h"

namespace Runtime {
namespace {

class SystemdTest : public testing::Test {
 protected:
  SystemdTest() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    dir_.file("notify").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", address.sun_path, /*overwrite=*/1);
  }
  ~SystemdTest() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
    ::close(socket_);
  }
  static void watchdogWants(const char* microseconds) {
    setenv("WATCHDOG_USEC", microseconds, /*overwrite=*/1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), /*overwrite=*/1);
  }
  // The next message; empty when there is none.
  std::string told() const {
    char bytes[256];
    ssize_t count = ::recv(socket_, bytes, sizeof bytes, 0);
    return count < 0 ? "" : std::string(bytes, static_cast<size_t>(count));
  }

  Support::TempDir dir_;
  int socket_;
  EventLoop loop_;
};

TEST_F(SystemdTest, ReadyStatusAndStopping_AreToldWhenTheyAre) {
  {
    Systemd systemd(loop_, [] { return true; });
    EXPECT_EQ(told(), "");
    systemd.ready();
    EXPECT_EQ(told(), "READY=1");
    systemd.statusIs("stands by\nREADY=0");
    EXPECT_EQ(told(), "STATUS=stands by\\x0aREADY=0") << "one line, whatever it holds";
    EXPECT_EQ(told(), "");
  }
  EXPECT_EQ(told(), "STOPPING=1");
}

TEST_F(SystemdTest, WatchdogIsWanted_ItIsFedAtOnceAndAgainWhileTheLoopTurns) {
  watchdogWants("20000");
  Systemd systemd(loop_, [] { return true; });
  EXPECT_EQ(told(), "") << "the loop has not turned yet";
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(turnUntil(loop_, [&] { return told() == "WATCHDOG=1"; })) << i;
}

TEST_F(SystemdTest, AnotherThreadHangs_TheWatchdogIsNotFedUntilItGoesOn) {
  watchdogWants("20000");
  int asked = 0;
  bool alive = false;
  Systemd systemd(loop_, [&] {
    ++asked;
    return alive;
  });
  EXPECT_TRUE(turnUntil(loop_, [&] { return asked == 3; }));
  EXPECT_EQ(told(), "");
  alive = true;
  EXPECT_TRUE(turnUntil(loop_, [&] { return told() == "WATCHDOG=1"; }));
}

TEST_F(SystemdTest, WatchdogIsNotWanted_TheLoopIsNotKeptAlive) {
  Systemd systemd(loop_, [] { return true; });
  EXPECT_EQ(uv_loop_alive(loop_.uv()), 0);
}

}  // namespace
}  // namespace Runtime
