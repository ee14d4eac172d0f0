// As subagent of the distribution's own snmpd, which is set up as docs/agentx.md says.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <vector>

#include "runtime/File.h"
#include "tests/e2e/Daemon.h"
#include "tests/e2e/Hosts.h"
#include "tests/e2e/Links.h"
#include "tests/e2e/Reports.h"
#include "tests/e2e/StockSnmpd.h"
#include "tests/support/Network.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using namespace std::chrono_literals;

// AgentX's library reads sub-identifiers from 2^31 on with a sign: rows that follow such a row show it.
const Links kLinks = {
    {1002, {1, 2}}, {2147483647, {2, 1}}, {2147483648, {1, 3}}, {2147483649, {3, 1}}, {4294967295, {2, 3}}};

class Agentx : public testing::Test {
 protected:
  Agentx() {
    auto document = nlohmann::json::parse(documentOf(kReports));
    document.merge_patch(nlohmann::json::parse(documentOf(kLinks)));
    document.merge_patch(nlohmann::json::parse(hostsDocument()));
    daemon_.stateIs(document.dump()).listensAt({"--agentx", master_.socket()});
  }

  testing::AssertionResult tablesAppear(Support::Millis deadline = 20s) {
    std::string walked;
    bool there = Support::waitUntil([&] { return (walked = walk()).starts_with(expected()); }, deadline);
    return there ? testing::AssertionSuccess()
                 : testing::AssertionFailure() << walked << daemon_.process().err();
  }
  uint32_t upTime() const { return master_.manager().upTime(); }
  static uint64_t utcNs() {
    auto since = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::nanoseconds(since).count());
  }
  std::string walk() const { return master_.manager().bulkWalk(); }
  static std::vector<Varbind> tree() {
    std::vector<Varbind> all;
    for (const auto& part : {treeOf(kLinks), treeOf(kReports), hostsTree()}) {
      all.insert(all.end(), part.begin(), part.end());
    }
    return all;
  }
  static std::string expected() { return walkOf(tree()); }

  StockSnmpd master_;
  Daemon daemon_;
};

TEST_F(Agentx, DocumentedMaster_ServesTheTables) {
  master_.start(documentedView());
  daemon_.start();
  EXPECT_TRUE(tablesAppear());
  EXPECT_EQ(daemon_.status().at("mode"), "agentx");
  EXPECT_EQ(daemon_.status().at("connected"), true);
}

// Why the documentation asks for a view.
TEST_F(Agentx, DistributionsViewAlone_TablesStayHidden) {
  master_.start("");
  daemon_.start();
  EXPECT_THAT(walk(), Not(HasSubstr("reach.")));
  EXPECT_THAT(master_.writer().bulkWalk(), StartsWith(expected()));
}

class AgentxBy : public Agentx, public testing::WithParamInterface<By> {
 protected:
  AgentxBy() { daemon_.answersBy(GetParam()); }
  ~AgentxBy() override { EXPECT_EQ(daemon_.directAnswers() != 0, GetParam() == By::direct); }
};
INSTANTIATE_TEST_SUITE_P(With, AgentxBy, testing::Values(By::direct, By::chain),
                         [](const auto& by) { return textOf(by.param); });

TEST_P(AgentxBy, GetNextAndGet_AreAsInTheStandaloneAgent) {
  master_.start(documentedView());
  daemon_.start();
  ASSERT_TRUE(tablesAppear());
  const Manager& manager = master_.manager();
  EXPECT_EQ(manager.get({"reach.4.2.1", "reach.4.1.2"}),
            "reach.4.2.1 = INTEGER: 4\nreach.4.1.2 = INTEGER: 3\n");
  EXPECT_EQ(manager.getNext({"reach.4.1.2", "reach.3.1.2", "reach.4.1"}),
            "reach.4.2.1 = INTEGER: 4\nreach.3.2.1 = INTEGER: 0\nreach.4.1.2 = INTEGER: 3\n");
  EXPECT_THAT(manager.get({"reach.4.9.9"}), HasSubstr("No Such Instance"));
  EXPECT_THAT(manager.get({"reach.1.1.2"}), HasSubstr("No Such Object"));
}

TEST_P(AgentxBy, EveryInstance_ByGetByGetNextAndByWalk) {
  master_.start(documentedView());
  daemon_.start();
  ASSERT_TRUE(tablesAppear());
  const Manager& manager = master_.manager();
  EXPECT_THAT(manager.walk(), StartsWith(expected()));
  Varbind before{"baif.2", ""};
  for (const Varbind& varbind : tree()) {
    EXPECT_EQ(manager.get({varbind.name}), varbind.line());
    EXPECT_EQ(manager.getNext({before.name}), varbind.line());
    before = varbind;
  }
  EXPECT_THAT(daemon_.errors(), IsEmpty());
}

TEST_F(Agentx, ChangeInTheState_IsSeenThroughTheMaster) {
  master_.start(documentedView());
  daemon_.start();
  ASSERT_TRUE(tablesAppear());
  Reports changed = kReports;
  changed[{1, 2}].state = "unreachable";
  daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  EXPECT_TRUE(Support::waitUntil(
      [&] { return master_.manager().get({"reach.4.1.2"}) == "reach.4.1.2 = INTEGER: 5\n"; }));
}

// sysUpTime is the master's, so times of last changes go by it.
TEST_F(Agentx, ChangeAfterTheStart_LastUpdateIsTheMastersUptimeOfTheChange) {
  constexpr uint32_t kMostDisagreement = 100;  // hundredths of a second
  master_.start(documentedView());
  ASSERT_TRUE(Support::waitUntil([&] { return upTime() > 4 * kMostDisagreement; }));
  daemon_.start();
  ASSERT_TRUE(tablesAppear());
  uint32_t before = upTime();
  Reports changed = kReports;
  changed[{1, 2}].lastChangeNs = utcNs();
  uint32_t after = upTime();
  daemon_.dir().replace(Daemon::kStateName, documentOf(changed));
  std::string answer;
  ASSERT_TRUE(Support::waitUntil([&] {
    answer = master_.manager().get({"reach.5.1.2"});
    return answer.find("Timeticks: (") != std::string::npos && answer.find("(0)") == std::string::npos;
  })) << answer;
  unsigned long ticks = std::stoul(answer.substr(answer.find('(') + 1));
  EXPECT_GE(ticks + kMostDisagreement, before);
  EXPECT_LE(ticks, after + kMostDisagreement);
}

TEST_F(Agentx, WriterThroughTheMaster_SetIsNotWritable) {
  master_.start(documentedView());
  daemon_.start();
  ASSERT_TRUE(tablesAppear());
  EXPECT_THAT(master_.writer().set("reach.4.1.2", 1), HasSubstr("Reason: notWritable"));
  EXPECT_THAT(master_.writer().set("sys.3.1", 'x', "07E80B0C0D0E0F05"), HasSubstr("Reason: notWritable"));
  EXPECT_THAT(master_.writer().set("sys.4.1", 1), HasSubstr("Reason: notWritable"));
}

TEST_F(Agentx, MasterRestarts_SubagentComesBack) {
  master_.start(documentedView());
  daemon_.start();
  ASSERT_TRUE(tablesAppear());
  for (int round = 0; round < 2; ++round) {
    master_.stop();
    ASSERT_TRUE(Support::waitUntil([&] { return daemon_.status().at("connected") == false; }, 20s));
    EXPECT_EQ(daemon_.ctl({"wait", "--timeout", "0.1"}).status, 1);
    master_.start(documentedView());
    EXPECT_TRUE(tablesAppear());
    EXPECT_EQ(daemon_.ctl({"wait", "--timeout", "10"}).status, 0);
  }
}

TEST_F(Agentx, MasterComesLater_SubagentConnectsThen) {
  daemon_.launch();
  ASSERT_TRUE(Support::waitUntil([&] { return std::filesystem::exists(daemon_.controlPath()); }));
  EXPECT_EQ(daemon_.ctl({"wait", "--timeout", "0.2"}).status, 1);
  EXPECT_EQ(daemon_.status().at("connected"), false);
  master_.start(documentedView());
  EXPECT_TRUE(tablesAppear());
}

TEST_F(Agentx, SubagentEnds_MasterGoesOnWithoutTheTables) {
  master_.start(documentedView());
  daemon_.start();
  ASSERT_TRUE(tablesAppear());
  EXPECT_EQ(daemon_.process().stop(), 0);
  EXPECT_TRUE(Support::waitUntil([&] { return walk().find("reach.") == std::string::npos; }, 20s));
  EXPECT_THAT(master_.manager().getNext({".1.3.6.1.2.1.1"}), StartsWith(".1.3.6.1.2.1.1.1.0"));
}

// A master that answers the first few messages of each connection, all of them well, and then nothing more.
class FallingSilent {
 public:
  FallingSilent(const std::string& path, size_t answers)
      : answers_(answers), listener_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_.get(), 8), 0);
    timeval deadline{30, 0};
    EXPECT_EQ(::setsockopt(listener_.get(), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline), 0);
  }

  // How many messages came on the next connection until its other end closed it.
  size_t serve() const {
    Runtime::Descriptor client(::accept(listener_.get(), nullptr, nullptr));
    size_t messages = 0;
    for (std::array<char, 20> header{}; whole(client, header); ++messages) {
      uint32_t size = 0;
      std::memcpy(&size, &header[16], sizeof size);
      if ((header[2] & 0x10) != 0) size = ntohl(size);
      std::vector<char> body(size);
      if (!whole(client, body)) break;
      if (messages < answers_) answer(client, header);
    }
    return messages;
  }

 private:
  template <class Bytes>
  static bool whole(const Runtime::Descriptor& client, Bytes& bytes) {
    return ::recv(client.get(), bytes.data(), bytes.size(), MSG_WAITALL) == ssize_t(bytes.size());
  }
  // A response without an error, in the order of bytes that was asked in.
  static void answer(const Runtime::Descriptor& client, std::array<char, 20> header) {
    bool networkOrder = (header[2] & 0x10) != 0;
    header[1] = 18;
    header[4] = 1;  // the session
    header[16] = header[17] = header[18] = header[19] = 0;
    header[networkOrder ? 19 : 16] = 8;
    std::array<char, 28> response{};
    std::copy(header.begin(), header.end(), response.begin());
    ::send(client.get(), response.data(), response.size(), MSG_NOSIGNAL);
  }

  const size_t answers_;
  Runtime::Descriptor listener_;
};

// For each message that it is asked the whole daemon would wait.
TEST(AgentxHang, MasterFallsSilentAtTheStart_IsAskedNothingMoreBeforeTheNextSession) {
  Daemon daemon;
  std::string socket = daemon.dir().file("master");
  for (size_t answers : {0, 1, 3}) {
    FallingSilent master(socket, answers);
    daemon.listensAt({"--agentx", "unix:" + socket}).launch();
    EXPECT_EQ(master.serve(), answers + 1);
    EXPECT_EQ(master.serve(), answers + 1) << "in the next session";
    EXPECT_EQ(daemon.process().stop(), 0);
    std::filesystem::remove(socket);
  }
}

}  // namespace
}  // namespace E2e
