// Beside Debian's snmpd as its package starts it: its own options, paths and user, in namespaces of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "tests/e2e/StockSnmpd.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// $1: what is added to the configuration. $2: a directory. $3: trelsnmpd. $4: setpriv's options for it, and
// $5: whose its state is. What snmpd's unit sets up is there: /run/agentx. All ends with `unshare`, and that
// with this test.
constexpr const char* kMachine = R"(
set -e
mkdir "$2/snmp"
cp -a /etc/snmp/. "$2/snmp"
cp "$1" "$2/snmp/snmpd.conf.d/trel.conf"
mount -t tmpfs none /run
mount -t tmpfs none /var
mkdir -p /var/lib/snmp /run/agentx
mount --bind "$2/snmp" /etc/snmp
ip link set lo up
/usr/sbin/snmpd -LOw -u Debian-snmp -g Debian-snmp -I -smux,mteTrigger,mteTriggerConf -f &
while [ ! -S /var/agentx/master ]; do sleep 0.05; done
mkdir "$2/state"
chown "$5" "$2/state"
# Not in place of this shell: with another user it would lose the signal by which it ends with `unshare`.
${4:+setpriv $4} env STATE_DIRECTORY="$2/state" "$3" --agentx auto --control "$2/state/control"
exit
)";

class AgentxAuto : public testing::Test {
 protected:
  void SetUp() override {
    if (getuid() != 0) GTEST_SKIP() << "only root can make namespaces of mounts and networks";
    if (Support::run({"unshare", "--mount", "--net", "--pid", "--fork", "true"}).status != 0) {
      GTEST_SKIP() << "no namespaces";
    }
    if (Support::run({"setpriv", "--reuid=65534", "--clear-groups", "test", "-x", TRELSNMPD}).status != 0) {
      GTEST_SKIP() << "other users cannot run what was built";
    }
    std::filesystem::permissions(dir_.path(), std::filesystem::perms(0755));
  }
  // `identity`: options of setpriv.
  void start(const std::string& additions, const std::string& identity, const std::string& owner) {
    machine_ = std::make_unique<Support::Process>(Support::Argv{
        "unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "bash", "-c", kMachine, "machine",
        dir_.write("additions", additions), dir_.path().string(), TRELSNMPD, identity, owner});
  }
  bool logs(const std::string& text) {
    return Support::waitUntil([&] { return machine_->err().find(text) != std::string::npos; });
  }
  Support::Result trelctl(const std::string& command) const {
    return Support::run({TRELCTL, "--control", dir_.file("state/control"), command, "--timeout", "20"});
  }

  Support::TempDir dir_;
  std::unique_ptr<Support::Process> machine_;
};

TEST_F(AgentxAuto, Root_FindsTheMasterAndServesThroughIt) {
  start(documentedView(), "", "root");
  ASSERT_TRUE(logs("chose unix:/var/agentx/master, where a master's socket is")) << machine_->err();
  EXPECT_THAT(machine_->err(), Not(HasSubstr("may not connect")));
  ASSERT_TRUE(Support::waitUntil([&] { return trelctl("wait").status == 0; })) << machine_->err();
  std::string pid = std::to_string(machine_->pid());
  Support::Result walked = Support::run({"nsenter", "--net=/proc/" + pid + "/ns/net", "snmpbulkwalk", "-v2c",
                                         "-c", "public", "-On", "localhost", ".1.3.6.1.4.1"});
  EXPECT_THAT(walked.out, StartsWith(".1.3.6.1.4.1.")) << walked.err << machine_->err();
}

TEST_F(AgentxAuto, GroupThatAgentXPermsNames_Connects) {
  start("agentXPerms 0660 0711 root daemon\n", "--reuid=65534 --regid=daemon --clear-groups", "65534");
  ASSERT_TRUE(Support::waitUntil([&] { return trelctl("wait").status == 0; })) << machine_->err();
  EXPECT_THAT(machine_->err(), Not(HasSubstr("may not connect")));
}

TEST_F(AgentxAuto, OtherUserWithoutAgentXPerms_IsToldWhatToDo) {
  start("", "--reuid=65534 --regid=daemon --clear-groups", "65534");
  ASSERT_TRUE(logs("may not connect")) << machine_->err();
  EXPECT_THAT(machine_->err(), HasSubstr("chose unix:/var/agentx/master"));
  EXPECT_THAT(machine_->err(), HasSubstr("agentXPerms 0660 0711"));
}

}  // namespace
}  // namespace E2e
