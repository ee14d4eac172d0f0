// Devices and echoes as the kernel has them, in a network of the test's own: veth pairs, whose far ends are
// here or in another network.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <future>
#include <thread>

#include "member/Echo.h"
#include "member/NetlinkLinks.h"
#include "runtime/File.h"
#include "tests/runtime/ManualIo.h"
#include "tests/support/OwnNetwork.h"
#include "tests/support/TraceLog.h"
#include "tests/support/WaitUntil.h"

namespace Member {
namespace {

using namespace std::chrono_literals;
using Support::ip;

class NetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string why = Support::enterOwnNetwork(); !why.empty()) GTEST_SKIP() << why;
  }
};

class NetlinkTest : public NetworkTest {
 protected:
  // Takes what the kernel tells until the devices are as they are expected to be.
  bool awaits(const std::string& name, const std::string& expected) {
    auto end = std::chrono::steady_clock::now() + 10s;
    while (shown(name) != expected && std::chrono::steady_clock::now() < end) {
      pollfd one{links_->fd(), POLLIN, 0};
      if (poll(&one, 1, 1000) > 0) links_->readable();
    }
    EXPECT_EQ(shown(name), expected) << name;
    return shown(name) == expected;
  }
  // "up", "down" (no carrier), "off" or "none".
  std::string shown(const std::string& name) const {
    auto device = links_->find(name);
    if (!device) return "none";
    return !device->switchedOn ? "off" : device->carrier ? "up" : "down";
  }
  void start() {
    links_.emplace(io_, [this] { ++changes_; });
    ASSERT_TRUE(awaits("lo", "up"));
  }

  Zavro::ManualClock clock_;
  Runtime::ManualIo io_{clock_};
  std::optional<NetlinkLinks> links_;
  int changes_ = 0;
};

// From now on the kernel takes nothing that the calling thread sends. There is no way back.
void refuseSends() {
  std::array<sock_filter, 4> program = {{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sendto, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOBUFS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  sock_fprog filter{program.size(), program.data()};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

// The devices used to be unknown until one of them changed, and nothing was published.
TEST_F(NetlinkTest, KernelTakesNoRequest_ToldOnce_AndAskedAgainEverySecond) {
  TraceLog trace({"Member"});
  std::thread([&] {
    refuseSends();
    links_.emplace(io_, [this] { ++changes_; });
    io_.advance(3 * NetlinkLinks::kRetryMs);
  }).join();
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{"Member/0 netlink: No buffer space available"}));
  io_.advance(NetlinkLinks::kRetryMs);
  EXPECT_TRUE(awaits("lo", "up"));
  EXPECT_EQ(trace.count("Member/1 netlink: works again"), 1u);
  io_.advance(10 * NetlinkLinks::kRetryMs);
  links_->readable();
  EXPECT_EQ(changes_, 1);
}

TEST_F(NetlinkTest, DevicesThatAreThere_AreKnownAtOnce) {
  ip("link add name bp type veth peer name far");
  links_.emplace(io_, [this] { ++changes_; });
  EXPECT_FALSE(links_->known());
  EXPECT_EQ(shown("bp"), "none");
  EXPECT_TRUE(awaits("bp", "off"));
  EXPECT_TRUE(links_->known());
  EXPECT_EQ(links_->find("bp")->index, if_nametoindex("bp"));
  EXPECT_EQ(changes_, 1);
}

TEST_F(NetlinkTest, Changes_AreToldAsTheyHappen) {
  start();
  ip("link add name bp type veth peer name far");
  EXPECT_TRUE(awaits("bp", "off"));
  ip("link set bp up");
  EXPECT_TRUE(awaits("bp", "down"));
  ip("link set far up");
  EXPECT_TRUE(awaits("bp", "up"));
  ip("link set far down");
  EXPECT_TRUE(awaits("bp", "down"));
  ip("link set bp down");
  EXPECT_TRUE(awaits("bp", "off"));
  ip("link set bp name bq");
  EXPECT_TRUE(awaits("bp", "none"));
  EXPECT_EQ(shown("bq"), "off");
  int before = changes_;
  ip("link delete bq");
  EXPECT_TRUE(awaits("bq", "none"));
  EXPECT_GT(changes_, before);
}

TEST_F(NetlinkTest, DeviceIsReplacedByOneOfTheSameName_HasTheNewNumber) {
  start();
  ip("link add name bp type veth peer name far");
  EXPECT_TRUE(awaits("bp", "off"));
  auto before = links_->find("bp")->index;
  ip("link delete bp");
  ip("link add name bp type veth peer name far");
  ip("link set bp up");
  EXPECT_TRUE(awaits("bp", "down"));
  EXPECT_NE(links_->find("bp")->index, before);
  EXPECT_EQ(links_->find("bp")->index, if_nametoindex("bp"));
}

// The kernel tells of it in three messages, the second of which could be taken for the end of the device; one
// that reads fast reads them one by one.
TEST_F(NetlinkTest, PortLeavesItsBridge_TheDeviceIsNeverGone) {
  start();
  ip("link add name bp type veth peer name far");
  ip("link add name br type bridge");
  EXPECT_TRUE(awaits("bp", "off"));
  for (int i = 0; i < 50; ++i) {
    ip("link set bp master br");
    Support::Process leaving({"ip", "link", "set", "bp", "nomaster"});
    while (leaving.running()) {
      links_->readable();
      ASSERT_EQ(shown("bp"), "off");
    }
  }
}

TEST_F(NetlinkTest, MoreHappenedThanTheKernelKeeps_AllIsAskedForAnew) {
  start();
  int smallest = 1;
  ASSERT_EQ(setsockopt(links_->fd(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest), 0);
  ip("link add name bp type veth peer name far");
  for (int i = 0; i < 30; ++i) {
    ip("link set far mtu " + std::to_string(1000 + i));
  }
  ip("link set bp up");
  ip("link set far up");
  ip("link delete far");
  ip("link add name bp type veth peer name far");
  ip("link set bp up");
  ip("link set far up");
  EXPECT_TRUE(awaits("bp", "up"));
  EXPECT_EQ(links_->find("bp")->index, if_nametoindex("bp"));
  EXPECT_EQ(shown("far"), "up");
}

// Answers all echo requests in the other network, from the address that is given.
class Answerer final {
 public:
  Answerer(const Support::OtherNetwork& network, const std::string& from) {
    std::promise<void> listening;
    thread_ = std::thread([this, &network, from, &listening] {
      network.enter();
      Runtime::Descriptor socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
      Runtime::Descriptor sender(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
      sockaddr_in address{AF_INET, 0, {inet_addr(from.c_str())}, {}};
      EXPECT_EQ(bind(sender.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
      listening.set_value();
      while (!ended_) answerOne(socket.get(), sender.get());
    });
    listening.get_future().wait();
  }
  ~Answerer() {
    ended_ = true;
    thread_.join();
  }
  bool answered() const { return answered_; }

 private:
  void answerOne(int socket, int sender) {
    pollfd one{socket, POLLIN, 0};
    if (poll(&one, 1, 10) <= 0) return;
    std::array<unsigned char, 1500> packet;
    sockaddr_in from{};
    socklen_t size = sizeof from;
    ssize_t bytes =
        recvfrom(socket, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&from), &size);
    constexpr ssize_t kIpHeader = 20;
    if (bytes < kIpHeader + 8 || packet[kIpHeader] != ICMP_ECHO) return;
    // The type is a part of the sum that the checksum is of.
    packet[kIpHeader] = ICMP_ECHOREPLY;
    unsigned sum = packet[kIpHeader + 2] * 256u + packet[kIpHeader + 3] + ICMP_ECHO * 256u;
    sum = (sum & 0xffff) + (sum >> 16);
    packet[kIpHeader + 2] = static_cast<unsigned char>(sum >> 8);
    packet[kIpHeader + 3] = static_cast<unsigned char>(sum & 0xff);
    sendto(sender, packet.data() + kIpHeader, static_cast<size_t>(bytes - kIpHeader), 0,
           reinterpret_cast<const sockaddr*>(&from), size);
    answered_ = true;
  }

  std::atomic<bool> ended_ = false;
  std::atomic<bool> answered_ = false;
  std::thread thread_;
};

// A cable: the device bp here, with the addresses 10.1.0.1 and fe80::1, and far there, with .2.
class EchoTest : public NetworkTest {
 protected:
  void SetUp() override {
    NetworkTest::SetUp();
    if (IsSkipped()) return;
    other_ = std::make_unique<Support::OtherNetwork>();
    ip("link add name bp type veth peer name far");
    other_->take("far");
    ip("addr add 10.1.0.1/24 dev bp");
    ip("link set bp up");
    other_->ip("addr add 10.1.0.2/24 dev far");
    other_->ip("link set far up");
    // Without waiting for proof that nobody else has the address.
    ip("addr add fe80::1/64 dev bp nodad");
    other_->ip("addr add fe80::2/64 dev far nodad");
  }
  // "answered", "lost", or why it was not sent.
  std::string ask(const std::string& address, const std::string& device = "bp") {
    absl::StatusOr<bool> answer = probe_.ask({address, device, 300ms});
    if (!answer.ok()) return std::string(answer.status().message());
    return *answer ? "answered" : "lost";
  }

  // Until the first answer: the kernel takes its time to use a cable that has just been plugged in.
  bool answers(const std::string& address) {
    return Support::waitUntil([&] { return ask(address) == "answered"; });
  }

  std::unique_ptr<Support::OtherNetwork> other_;
  PingProbe probe_;
};

TEST_F(EchoTest, NeighbourAnswers_OverIpv4AndIpv6) {
  EXPECT_TRUE(answers("10.1.0.2"));
  EXPECT_TRUE(answers("fe80::2"));
}

TEST_F(EchoTest, NobodyHasTheAddress_LostAfterTheTimeout) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ask("10.1.0.3"), "lost");
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, 290ms);
  EXPECT_EQ(ask("fe80::3"), "lost");
}

// The kernel finds out that nobody has the address, and says so to the socket: the neighbour's fault.
TEST_F(EchoTest, NobodyHasTheAddress_LostEachTime) {
  ip("neigh add 10.1.0.3 dev bp nud failed");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(ask("10.1.0.3"), "lost");
}

TEST_F(EchoTest, NoRoute_IsAFailureOfThisMachine_AndNothingIsWritten) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(ask("2001:db8::2"), "echo to 2001:db8::2 on bp: Network is unreachable");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// As when the configuration of one end is copied to the other. It would answer whatever becomes of the link.
TEST_F(EchoTest, AddressIsOfThisMachine_IsAFailureThatSaysSo) {
  EXPECT_EQ(ask("10.1.0.1"),
            "echo to 10.1.0.1 on bp: the address is this machine's own, not the neighbour's");
  EXPECT_EQ(ask("fe80::1"), "echo to fe80::1 on bp: the address is this machine's own, not the neighbour's");
}

// A ring that is cabled wrongly: another machine is at the end of the cable, and forwards to the one that is
// asked.
TEST_F(EchoTest, AddressIsThatOfAMachineBehindTheNext_Lost) {
  Support::OtherNetwork behind;
  ip("link add name mid type veth peer name last");
  other_->take("mid");
  behind.take("last");
  other_->ip("addr add 10.3.0.1/24 dev mid");
  other_->ip("link set mid up");
  behind.ip("addr add 10.3.0.2/24 dev last");
  behind.ip("link set last up");
  behind.ip("route add default via 10.3.0.1");
  ip("route add 10.3.0.0/24 via 10.1.0.2 dev bp");
  other_->writeTo("/proc/sys/net/ipv4/ip_forward", "1");
  EXPECT_TRUE(answers("10.3.0.1")) << "an address of the next machine itself";
  EXPECT_EQ(ask("10.3.0.2"), "lost");
}

TEST_F(EchoTest, AnswerFromAnotherAddress_Lost) {
  ASSERT_TRUE(answers("10.1.0.2"));
  other_->ip("addr add 10.1.0.9/24 dev far");
  other_->writeTo("/proc/sys/net/ipv4/icmp_echo_ignore_all", "1");
  EXPECT_EQ(ask("10.1.0.2"), "lost");
  {
    Answerer same(*other_, "10.1.0.2");
    EXPECT_TRUE(answers("10.1.0.2"));
  }
  Answerer another(*other_, "10.1.0.9");
  EXPECT_EQ(ask("10.1.0.2"), "lost");
  EXPECT_TRUE(another.answered());
}

TEST_F(EchoTest, AddressIsReachedOverAnotherDeviceOnly_Lost) {
  EXPECT_EQ(ask("10.1.0.2", "lo"), "lost");
  ip("addr add 10.2.0.1/24 dev lo");
  EXPECT_EQ(ask("10.2.0.1", "bp"), "lost");
}

TEST_F(EchoTest, NoSuchDevice_IsAFailureThatSaysSo) {
  EXPECT_EQ(ask("10.1.0.2", "none"), "echo to 10.1.0.2 on none: No such device");
}

TEST_F(EchoTest, DeviceIsReplaced_TheNewOneIsAsked) {
  EXPECT_TRUE(answers("10.1.0.2"));
  ip("link delete bp");
  ip("link add name bp type veth peer name far");
  other_->take("far");
  ip("addr add 10.1.0.1/24 dev bp");
  ip("link set bp up");
  other_->ip("addr add 10.1.0.2/24 dev far");
  other_->ip("link set far up");
  EXPECT_TRUE(answers("10.1.0.2"));
}

TEST_F(EchoTest, SeveralAtTheSameTime_EachHasItsOwnAnswer) {
  ASSERT_TRUE(answers("10.1.0.2"));
  std::vector<std::future<std::pair<bool, bool>>> all;
  for (int i = 0; i < 20; ++i) {
    bool there = i % 2 == 0;
    all.push_back(std::async(std::launch::async, [this, there] {
      return std::pair(there, ask(there ? "10.1.0.2" : "10.1.0.3") == "answered");
    }));
  }
  for (auto& one : all) {
    auto [there, answered] = one.get();
    EXPECT_EQ(there, answered);
  }
}

TEST_F(EchoTest, WithoutTheRight_IsAFailureThatSaysWhichRight) {
  std::string said;
  std::thread([&] {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    ASSERT_EQ(syscall(SYS_capset, &header, none), 0);
    said = ask("10.1.0.2");
  }).join();
  EXPECT_EQ(said, "echo to 10.1.0.2 on bp: Operation not permitted (it takes CAP_NET_RAW)");
}

}  // namespace
}  // namespace Member
