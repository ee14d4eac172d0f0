// SNMPv3 with authentication and privacy, set up through --conf as in snmpd.conf.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kConf =
    "createUser operator SHA-256 \"authentication pass\" AES \"privacy pass\"\n"
    "rouser operator authpriv\n";

class SnmpV3 : public testing::Test {
 protected:
  SnmpV3() {
    daemon_.stateIs(documentOf(kReports)).with({"--conf", daemon_.dir().write("trel.conf", kConf)}).start();
  }

  Manager as(const Support::Argv& more) const {
    Support::Argv credentials = {"-v3", "-u", "operator"};
    credentials.insert(credentials.end(), more.begin(), more.end());
    return Manager(daemon_.address(), credentials);
  }
  Manager operatorManager() const {
    return as(
        {"-l", "authPriv", "-a", "SHA-256", "-A", "authentication pass", "-x", "AES", "-X", "privacy pass"});
  }

  Daemon daemon_;
};

TEST_F(SnmpV3, AuthPrivUser_WalksTheTables) {
  EXPECT_THAT(operatorManager().bulkWalk(), StartsWith(walkOf(treeOf(kReports))));
}

TEST_F(SnmpV3, AuthPrivUser_SetIsRefused) {
  EXPECT_THAT(operatorManager().set("reach.4.1.2", 1), HasSubstr("Reason: noAccess"));
}

TEST_F(SnmpV3, WrongAuthenticationPass_Refused) {
  std::string answer =
      as({"-l", "authPriv", "-a", "SHA-256", "-A", "authentication pest", "-x", "AES", "-X", "privacy pass"})
          .get({"reach.4.1.2"});
  EXPECT_THAT(answer, HasSubstr("Authentication failure"));
}

TEST_F(SnmpV3, WrongPrivacyPass_NoAnswer) {
  std::string answer =
      as({"-l", "authPriv", "-a", "SHA-256", "-A", "authentication pass", "-x", "AES", "-X", "privacy pest"})
          .get({"reach.4.1.2"});
  EXPECT_THAT(answer, Not(HasSubstr("INTEGER")));
}

TEST_F(SnmpV3, WithoutPrivacy_Refused) {
  std::string answer =
      as({"-l", "authNoPriv", "-a", "SHA-256", "-A", "authentication pass"}).get({"reach.4.1.2"});
  EXPECT_THAT(answer, HasSubstr("authorizationError"));
}

TEST_F(SnmpV3, UnknownUser_Refused) {
  Manager stranger(daemon_.address(), {"-v3", "-u", "stranger", "-l", "noAuthNoPriv"});
  EXPECT_THAT(stranger.get({"reach.4.1.2"}), HasSubstr("Unknown user name"));
}

TEST_F(SnmpV3, Community_NoAnswer) {
  EXPECT_THAT(daemon_.manager().get({"reach.4.1.2"}), StartsWith("Timeout"));
}

// Otherwise a manager takes the answers of the restarted agent for replayed ones.
TEST_F(SnmpV3, Restart_BootCountGrowsAndTheUserIsServed) {
  auto boots = [this] {
    std::string saved = Support::readFile(daemon_.dir().path() / "persistent" / "trelsnmpd.conf");
    size_t at = saved.find("engineBoots ");
    return at == std::string::npos ? 0 : std::stoi(saved.substr(at + 12));
  };
  ASSERT_EQ(daemon_.process().stop(), 0);
  int before = boots();
  daemon_.start();
  EXPECT_EQ(operatorManager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
  ASSERT_EQ(daemon_.process().stop(), 0);
  EXPECT_EQ(boots(), before + 1);
}

}  // namespace
}  // namespace E2e
