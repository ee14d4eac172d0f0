// Whether systemd is told that the daemon is alive, on a socket that stands in for systemd's.
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "runtime/File.h"
#include "tests/e2e/Daemon.h"
#include "tests/support/Network.h"
#include "tests/support/WaitUntil.h"

namespace E2e {
namespace {

using Support::waitUntil;
using namespace std::chrono_literals;

// Holds all threads of a process but the first, as long as it lives.
class HeldThreads final {
 public:
  explicit HeldThreads(pid_t process) {
    for (const auto& one :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
      pid_t thread = std::stoi(one.path().filename());
      if (thread == process) continue;
      if (ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) != 0) continue;
      threads_.push_back(thread);
      ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr);
      waitpid(thread, nullptr, __WALL);
    }
  }
  ~HeldThreads() {
    for (pid_t thread : threads_) ptrace(PTRACE_DETACH, thread, nullptr, nullptr);
  }
  size_t count() const { return threads_.size(); }

 private:
  std::vector<pid_t> threads_;
};

class Watchdog : public testing::Test {
 protected:
  Watchdog() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    dir_.file("notify").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  // Whether it was fed since the last call.
  bool fed() const {
    bool any = false;
    char bytes[256];
    for (ssize_t count = 0; (count = ::recv(socket_.get(), bytes, sizeof bytes, 0)) >= 0;) {
      any = any || std::string(bytes, static_cast<size_t>(count)) == "WATCHDOG=1";
    }
    return any;
  }
  // Ten times the interval.
  bool starves() const {
    auto last = std::chrono::steady_clock::now();
    return waitUntil([&] {
      auto now = std::chrono::steady_clock::now();
      if (fed()) last = now;
      return now - last > 1s;
    });
  }

  Support::TempDir dir_;
  Runtime::Descriptor socket_;
};

TEST_F(Watchdog, ThreadsThatFollowAStoreHang_ItIsNotFedUntilTheyGoOn) {
  Daemon daemon;
  daemon.with({"--state", "etcd:127.0.0.1:" + std::to_string(Support::freeTcpPort()) + "/trel"})
      .runBy({"env", "NOTIFY_SOCKET=" + dir_.file("notify"), "WATCHDOG_USEC=200000"})
      .start();
  ASSERT_TRUE(waitUntil([this] { return fed(); }));
  {
    HeldThreads held(daemon.process().pid());
    if (held.count() == 0) GTEST_SKIP() << "this system lets nobody hold threads";
    EXPECT_TRUE(starves());
  }
  EXPECT_TRUE(waitUntil([this] { return fed(); }));
}

}  // namespace
}  // namespace E2e
