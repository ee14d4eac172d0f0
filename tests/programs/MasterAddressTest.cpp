// Which AgentX master is found, and what is said of it.
#include "programs/trelsnmpd/MasterAddress.h"

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
  dir_.write("snmpd.conf", "agentXSocket /b\n");
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
