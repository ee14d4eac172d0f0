// Which AgentX master is found, and what is said of it.
#include "programs/trelsnmpd/MasterAddress.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "runtime/File.h"
#include "tests/support/TempDir.h"

namespace Trelsnmpd {
namespace {

using testing::HasSubstr;
using testing::Not;

class MasterAddressTest : public testing::Test {
 protected:
  MasterAddressTest() {
    for (const char* name : {"conf.d", "first", "second"}) std::filesystem::create_directory(dir_.file(name));
  }
  // Back to who this was.
  ~MasterAddressTest() override { EXPECT_EQ(seteuid(getuid()), 0); }
  MasterAddress find() const { return findMaster(places_); }
  void socketAt(const std::string& path) {
    sockets_.emplace_back(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(sockets_.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  // From now on, as a user who owns nothing here.
  void asNobody() {
    std::filesystem::permissions(dir_.path(), std::filesystem::perms(0755));
    ASSERT_EQ(seteuid(65534), 0);
  }

  Support::TempDir dir_;
  const std::string first_ = dir_.file("first/master");
  const std::string second_ = dir_.file("second/master");
  const MasterPlaces places_{dir_.file("snmpd.conf"), dir_.file("conf.d"), {first_, second_}};
  std::vector<Runtime::Descriptor> sockets_;
};

TEST_F(MasterAddressTest, Nothing_TheDefault) {
  EXPECT_EQ(find().address, "unix:" + first_);
  EXPECT_EQ(find().why, "chose unix:" + first_ + ", net-snmp's default, as no master runs yet");
}

TEST_F(MasterAddressTest, SocketElsewhere_IsFound) {
  dir_.write("first/master", "a file that is no socket");
  socketAt(second_);
  EXPECT_EQ(find().why, "chose unix:" + second_ + ", where a master's socket is");
}

TEST_F(MasterAddressTest, Configured_WinsOverASocket) {
  socketAt(first_);
  dir_.write("snmpd.conf", "# agentXSocket /a\nmaster agentx\n  AgentXsocket unix:/b\n");
  EXPECT_EQ(find().address, "unix:/b");
  EXPECT_THAT(find().why, HasSubstr(", as agentXSocket in " + dir_.file("snmpd.conf:3") + " says"));
}

TEST_F(MasterAddressTest, ConfiguredMoreThanOnce_TheLastOneCounts) {
  dir_.write("snmpd.conf", "agentXSocket /b\nincludeDir " + dir_.file("conf.d") + "\n");
  dir_.write("conf.d/2.conf", "agentXSocket tcp:192.0.2.1:705,tcp:127.0.0.1:705\n");
  dir_.write("conf.d/1.conf", "agentXSocket /c\n");
  dir_.write("conf.d/3.conf.old", "agentXSocket /d\n");
  EXPECT_EQ(find().address, "tcp:127.0.0.1:705");
}

TEST_F(MasterAddressTest, ConfiguredForOtherMachines_IsSaidAndASocketTaken) {
  dir_.write("snmpd.conf", "agentXSocket tcp:192.0.2.1:705\n");
  EXPECT_EQ(find().address, "unix:" + first_);
  EXPECT_THAT(find().why, HasSubstr("; agentXSocket \"tcp:192.0.2.1:705\" in " + dir_.file("snmpd.conf:1") +
                                    " is no socket of this machine that can be used"));
}

// As snmpd listens there, tried with the one of Debian 12.
TEST_F(MasterAddressTest, WithoutAHostOrWithAny_ThisMachinesAddress) {
  for (const char* host : {"", "localhost:", "0.0.0.0:", "127.0.0.1:"}) {
    dir_.write("snmpd.conf", fmt::format("agentXSocket tcp:{}705\n", host));
    EXPECT_EQ(find().address, "tcp:127.0.0.1:705") << host;
  }
  for (const char* host : {"", "localhost:", "[::]:", "[::1]:"}) {
    dir_.write("snmpd.conf", fmt::format("agentXSocket tcp6:{}705\n", host));
    EXPECT_EQ(find().address, "tcp6:[::1]:705") << host;
  }
}

// It cannot use them either: it takes quotes as a part of the path.
TEST_F(MasterAddressTest, QuotedOrNoSocketOfAgentX_IsSaid) {
  for (const char* address : {"\"/b\"", "'unix:/b'", "705", "localhost:705", "tcp:*:705"}) {
    dir_.write("snmpd.conf", fmt::format("agentXSocket {}\n", address));
    EXPECT_EQ(find().address, "unix:" + first_) << address;
    EXPECT_THAT(find().why, HasSubstr("is no socket of this machine that can be used")) << address;
  }
}

TEST_F(MasterAddressTest, Sections_OnlySnmpdsCounts) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"[snmp] agentXSocket /b\n", ""},
      {"[snmp]\nagentXSocket /b\n", ""},
      {"[snmpd] agentXSocket /b\n", "/b"},
      {"[snmp]\n[snmpd]\nagentXSocket /b\n", "/b"},
      {"[snmp]\n[snmpd] agentXSocket /b\nagentXSocket /c", "/b"},
      {"[other]\nagentXSocket /b\n", "/b"}};
  for (const auto& [conf, address] : cases) {
    dir_.write("snmpd.conf", conf);
    EXPECT_EQ(find().address, *address == '\0' ? "unix:" + first_ : address) << conf;
  }
}

TEST_F(MasterAddressTest, IncludedFiles_AreFollowedInTheirPlace) {
  dir_.write("part", "agentXSocket /b\n");
  dir_.write("snmpd.conf", "includeFile part\n");
  EXPECT_THAT(find().why, HasSubstr("chose /b, as agentXSocket in " + dir_.file("part:1") + " says"));
  dir_.write("snmpd.conf", "agentXSocket /a\nincludeFile " + dir_.file("part") + "\n");
  EXPECT_EQ(find().address, "/b");
  dir_.write("snmpd.conf", "includeFile part\nagentXSocket /a\nincludeFile none\n");
  EXPECT_EQ(find().address, "/a");
}

TEST_F(MasterAddressTest, FileThatIncludesItself_Ends) {
  dir_.write("snmpd.conf", "includeFile snmpd.conf\nincludeFile snmpd.conf\nagentXSocket /b\n");
  EXPECT_EQ(find().address, "/b");
}

TEST_F(MasterAddressTest, DirectoryThatIsNotIncluded_DoesNotCount) {
  dir_.write("snmpd.conf", "master agentx\n");
  dir_.write("conf.d/1.conf", "agentXSocket /b\n");
  EXPECT_EQ(find().address, "unix:" + first_);
}

TEST_F(MasterAddressTest, ConfigurationThatIsClosed_ItsDirectoryIsRead) {
  if (getuid() != 0) GTEST_SKIP() << "only root can become another user";
  dir_.write("snmpd.conf", "");
  std::filesystem::permissions(dir_.file("snmpd.conf"), std::filesystem::perms(0600));
  dir_.write("conf.d/1.conf", "agentXSocket /b\n");
  asNobody();
  EXPECT_EQ(find().address, "/b");
}

TEST_F(MasterAddressTest, NoPermissions_AreSaidWithWhatToDo) {
  if (getuid() != 0) GTEST_SKIP() << "only root can become another user";
  dir_.write("snmpd.conf", "agentXSocket /b\n");
  std::filesystem::permissions(dir_.file("snmpd.conf"), std::filesystem::perms(0600));
  socketAt(second_);
  std::filesystem::permissions(dir_.file("second"), std::filesystem::perms(0700));
  asNobody();
  MasterAddress found = find();
  EXPECT_EQ(found.address, "unix:" + second_);
  EXPECT_THAT(found.why, HasSubstr(dir_.file("snmpd.conf") + ": Permission denied, so an agentXSocket there "
                                                             "does not count: give the address instead"));
  EXPECT_THAT(found.why, HasSubstr("user 65534 may not connect: put \"agentXPerms 0660 0711 root GROUP\""));
  EXPECT_THAT(found.why, HasSubstr("\"chmod 0711 " + dir_.file("second") + "\""));
  EXPECT_THAT(found.why, Not(HasSubstr("\n")));
}

TEST_F(MasterAddressTest, SocketThatMayBeUsed_NothingIsToBeDone) {
  if (getuid() != 0) GTEST_SKIP() << "only root can become another user";
  socketAt(first_);
  std::filesystem::permissions(dir_.file("first"), std::filesystem::perms(0711));
  std::filesystem::permissions(first_, std::filesystem::perms(0666));
  asNobody();
  EXPECT_EQ(find().why, "chose unix:" + first_ + ", where a master's socket is");
}

}  // namespace
}  // namespace Trelsnmpd
