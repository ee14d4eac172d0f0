// What is taken out of configurations and logs, and what stays.
#include "programs/trelctl/Secrets.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace TrelCtl {
namespace {

TEST(SecretsTest, Configuration_OnlyKnownValuesAndNamesOfFilesStay) {
  std::string without = Secrets().jsonWithout(R"({"member": 1, "state": ["local", "etcd:me:hush@h:1/p"],
      "handover": true, "etcd-key": "/etc/trel/m.key", "etcd-credentials": "root:hush", "pasword": "hush",
      "pin": 1234, "access": {"ca": "ca.pem", "key": "hush"}, "neighbours": [{"device": "bp1", "x": ["hush"]}]})");
  EXPECT_EQ(nlohmann::json::parse(without), nlohmann::json::parse(R"json({
      "member": 1, "state": ["local", "(removed)"],
      "handover": true, "etcd-key": "/etc/trel/m.key", "etcd-credentials": "(removed)", "pasword": "(removed)",
      "pin": "(removed)", "access": {"ca": "ca.pem", "key": "(removed)"},
      "neighbours": [{"device": "bp1", "x": ["(removed)"]}]})json"));
}

TEST(SecretsTest, ConfigurationThatIsNoJson_IsTakenOutAsAWhole) {
  EXPECT_EQ(Secrets().jsonWithout(R"({"etcd-credentials": "hush)"), "(removed): it is no JSON\n");
}

TEST(SecretsTest, Conf_DirectivesWithSecretsCommentsAndUnknownLinesGo) {
  EXPECT_EQ(Secrets().confWithout("# rocommunity hush\n"
                                  "rocommunity hush 10.0.0.0/8 -V all\n"
                                  "  COM2SEC ops default hush\n"
                                  "createUser ops SHA \"hush hush\" AES \\\n"
                                  "hushhush\n"
                                  "rocomunity hush\n"
                                  "\n"
                                  "trapsess -v 3 -A hush 10.0.0.1\n"
                                  "rouser ops priv\n"
                                  "view all included .1\n"
                                  "sysLocation here"),
            "# (removed)\n"
            "rocommunity (removed)\n"
            "COM2SEC (removed)\n"
            "createUser (removed)\n"
            "(removed)\n"
            "(removed)\n"
            "\n"
            "trapsess (removed)\n"
            "rouser ops priv\n"
            "view all included .1\n"
            "sysLocation here\n");
}

TEST(SecretsTest, Log_WordsThatWereTakenOutAreTakenOutThere_PartsOfWordsAreNot) {
  Secrets secrets;
  secrets.confWithout("rocommunity s3 default\nrocommunity hush-hush\nrocommunity removed\n");
  secrets.jsonWithout(R"({"password": "a b"})");
  EXPECT_EQ(secrets.textWithout("s3: found \"s3\", s33 xs3 default hush-hush, a b, removed hush"),
            "(removed): found \"(removed)\", s33 xs3 default (removed), (removed), (removed) hush");
}

}  // namespace
}  // namespace TrelCtl
