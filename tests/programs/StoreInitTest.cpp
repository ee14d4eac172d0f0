// trelctl store init: what its users may do at a real server, and how it is called again.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>

#include "programs/trelctl/StoreInit.h"
#include "tests/programs/TrelmemberdFixture.h"
#include "tests/support/EtcdAccess.h"

namespace Member {
namespace {

using testing::ElementsAre, testing::HasSubstr;

class StoreInitTest : public TrelmemberdTest {
 protected:
  Support::Result init(Support::Argv more) {
    Support::Argv command{TRELCTL, "store", "init", "--store", "etcd:" + etcd_->endpointList() + "/trel"};
    command.insert(command.end(), more.begin(), more.end());
    return Support::run(command);
  }
  std::string file(const std::string& user) const { return directory_.file("users/" + user + ".json"); }
  std::string content(const std::string& user) const {
    std::ifstream in(file(user));
    return {std::istreambuf_iterator<char>(in), {}};
  }
  Client as(const std::string& user) {
    return Client(etcd_->endpoints(), Kelstore::Etcd::Access{.credentialsFile = file(user)});
  }
};

TEST_F(StoreInitTest, EachMemberWritesItsOwnValues_AgentsReadAll_NobodyElseReads) {
  Support::Result done = init({"--members", "1,2", "--credentials", directory_.file("users"), "--enable"});
  ASSERT_EQ(done.status, 0) << done.err;
  EXPECT_THAT(done.out, HasSubstr("trel-member-2: reads trel/*, writes trel/members/2/* trel/topology/2/* "
                                  "trel/interfaces/Backplane2%2F*; its password is in "));
  struct stat about {};
  ASSERT_EQ(stat(file("trel-member-1").c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777U, 0600U);
  EXPECT_NE(content("trel-member-1"), content("trel-member-2"));

  // A publisher does all that it does.
  access_ = {{"credentials", file("trel-member-1")}};
  client_ = std::make_unique<Client>(etcd_->endpoints(),
                                     Kelstore::Etcd::Access{.credentialsFile = file("trel-agent")});
  auto process = start(config(1, loopback(2, "Backplane1/1")));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  EXPECT_TRUE(awaitKey("interfaces/Backplane1%2F1")) << process->err();
  EXPECT_EQ(process->stop(), 0) << process->err();
  EXPECT_TRUE(waitUntil([&] { return keys().empty(); })) << process->err();

  for (const char* own : {"trel/members/2/figures", "trel/topology/2/x", "trel/interfaces/Backplane2%2F1"}) {
    EXPECT_TRUE(as("trel-member-2").put(own, "{}").ok()) << own;
    EXPECT_TRUE(absl::IsPermissionDenied(as("trel-member-1").put(own, "{}").status())) << own;
    EXPECT_TRUE(absl::IsPermissionDenied(as("trel-agent").put(own, "{}").status())) << own;
  }
  EXPECT_TRUE(absl::IsPermissionDenied(as("trel-member-2").put("trel/members/20/x", "{}").status()));
  EXPECT_TRUE(as("root").put("trel/cluster", R"({"name": "lab"})").ok());
  EXPECT_FALSE(Client(etcd_->endpoints(), {}).get("trel/cluster").ok());
}

TEST_F(StoreInitTest, CalledAgain_AddsMembersAndKeepsPasswords) {
  Support::Argv first{"--members", "1", "--credentials", directory_.file("users")};
  ASSERT_EQ(init(first).status, 0);
  std::string known = content("trel-member-1");
  // Without enabling, anybody may still do anything.
  EXPECT_TRUE(client_->put("other/a", "1").ok());
  Support::Result again = init({"--members", "1-2", "--credentials", directory_.file("users"), "--enable"});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(content("trel-member-1"), known);
  EXPECT_TRUE(as("trel-member-1").put("trel/members/1/x", "{}").ok());
  EXPECT_TRUE(as("trel-member-2").put("trel/members/2/x", "{}").ok());
  // From now on it takes root, and a password that was lost is not made up.
  Support::Result nobody = init({"--members", "3"});
  EXPECT_EQ(nobody.status, 1);
  EXPECT_EQ(nobody.err, "trelctl: " + etcd_->endpoint() + ": etcdserver: user name is empty\n");
  std::filesystem::remove(file("trel-member-1"));
  Support::Result lost =
      init({"--members", "1", "--credentials", directory_.file("users"), "--etcd-credentials", file("root")});
  EXPECT_EQ(lost.status, 0) << lost.err;
  EXPECT_THAT(lost.out, HasSubstr("trel-member-1: reads trel/*, writes trel/members/1/* trel/topology/1/* "
                                  "trel/interfaces/Backplane1%2F*; the user is there already, with a "
                                  "password that is not known here\n"));
  EXPECT_FALSE(std::filesystem::exists(file("trel-member-1")));
}

// It used to say that the file has the password, without a look.
TEST_F(StoreInitTest, FileWithAnotherPassword_IsNotSaidToBeTheUsers) {
  std::string users = directory_.file("users");
  ASSERT_EQ(init({"--members", "1", "--credentials", users, "--enable"}).status, 0);
  std::ofstream(file("trel-member-1")) << R"({"user": "trel-member-1", "password": "other"})";
  Support::Argv again{"--members", "1", "--credentials", users, "--etcd-credentials", file("root")};
  Support::Result refused = init(again);
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("user \"trel-member-1\" of " + file("trel-member-1") + " was refused"));
  EXPECT_THAT(refused.err, HasSubstr("; the user has another password there: set this one by etcdctl user "
                                     "passwd trel-member-1, or move the file away\n"));
  std::ofstream(file("trel-member-1")) << R"({"user": "trel-member-2", "password": "other"})";
  EXPECT_THAT(init(again).err, HasSubstr(": found user \"trel-member-2\", expected \"trel-member-1\""));
}

TEST_F(StoreInitTest, BeforeTheServersAsk_NobodyIsLockedOutByAnOldFile) {
  std::string users = directory_.file("users");
  ASSERT_EQ(init({"--members", "1", "--credentials", users}).status, 0);
  Support::Result again = init({"--members", "1", "--credentials", users});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("; its password is in " + file("trel-member-1") +
                                   ", if it was not changed: the servers do not tell yet\n"));
  etcd_->ctl({"user", "add", "root:another"});
  Support::writeLogin(directory_, "users/root.json", "root", "of another cluster");
  Support::Result enabled = init({"--members", "1", "--credentials", users, "--enable"});
  EXPECT_EQ(enabled.status, 1);
  EXPECT_THAT(enabled.err, HasSubstr("user root is there already, and whether its password is that of " +
                                     file("root") + " cannot be told before"));
  EXPECT_TRUE(client_->put("other/a", "1").ok()) << "the servers ask now";
}

TEST_F(StoreInitTest, InterfacesOfOneMember_AreNoOtherMembers) {
  for (const char* shared : {"", "eth%", "eth", "%0/", "P%x%"}) {
    Support::Result refused = init({"--members", "1,10", "--interfaces", shared});
    EXPECT_EQ(refused.status, 2) << shared;
    EXPECT_THAT(refused.err, HasSubstr("--interfaces: found \"" + std::string(shared) +
                                       "\", expected % with "
                                       "a character that is no digit behind it, such as Backplane%/"));
  }
  EXPECT_EQ(etcd_->ctl({"user", "list"}), "");
  EXPECT_THAT(init({"--members", "1", "--interfaces", "P%x%/", "--dry-run"}).out,
              HasSubstr(" trel/interfaces/P1x1%2F*\n"));
}

// Both prefixes used to have the same users, so that a switch of one wrote the other's values.
TEST_F(StoreInitTest, EachPrefixHasUsersOfItsOwn) {
  auto initOf = [&](const std::string& prefix) {
    return Support::run({TRELCTL, "store", "init", "--store", "etcd:" + etcd_->endpointList() + "/" + prefix,
                         "--members", "1", "--dry-run"});
  };
  EXPECT_THAT(initOf("a-b").out, HasSubstr("\na-b-member-1: "));
  EXPECT_THAT(initOf("a/b").out, HasSubstr("\na--b-member-1: "));
  for (const char* twofold : {"a--b", "a-/b", "a/-b"}) {
    Support::Result refused = initOf(twofold);
    EXPECT_EQ(refused.status, 2) << twofold;
    EXPECT_THAT(refused.err, HasSubstr("--store: found prefix \"" + std::string(twofold) +
                                       "\", expected one with single \"-\""));
  }
}

TEST_F(StoreInitTest, DryRunDoesNothing_AndWithoutPasswordsThereAreNoFiles) {
  Support::Result dry =
      init({"--members", "1", "--credentials", directory_.file("users"), "--enable", "--dry-run"});
  EXPECT_EQ(dry.status, 0) << dry.err;
  EXPECT_FALSE(std::filesystem::exists(directory_.file("users")));
  EXPECT_EQ(etcd_->ctl({"user", "list"}), "");
  EXPECT_EQ(etcd_->ctl({"role", "list"}), "");
  Support::Result named = init({"--members", "1", "--interfaces", "port%."});
  EXPECT_EQ(named.status, 0) << named.err;
  EXPECT_EQ(
      named.out,
      "trel-agent: reads trel/*, writes nothing\n"
      "trel-member-1: reads trel/*, writes trel/members/1/* trel/topology/1/* trel/interfaces/port1.*\n");
  EXPECT_EQ(etcd_->ctl({"user", "list"}), "trel-agent\ntrel-member-1\n");
}

TEST_F(StoreInitTest, WithCertificates_TheNamesInThemAreTheUsers) {
  Support::Certificates certificates;
  certificates.authority("ca");
  for (const char* name : {"server", "root", "trel-member-1"}) certificates.certificate(name, "ca");
  etcd_ = std::make_unique<Support::EtcdCluster>(certificates.serverOptions("server", "ca"));
  auto put = [&](const std::string& user, const std::string& key) {
    return Client(etcd_->endpoints(), Kelstore::Etcd::Access{.caFile = certificates.certFile("ca"),
                                                             .certFile = certificates.certFile(user),
                                                             .keyFile = certificates.keyFile(user)})
        .put(key, "{}")
        .status();
  };
  EXPECT_TRUE(put("trel-member-1", "trel/members/2/x").ok());
  Support::Result done =
      init({"--members", "1", "--enable", "--etcd-ca", certificates.certFile("ca"), "--etcd-cert",
            certificates.certFile("root"), "--etcd-key", certificates.keyFile("root")});
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_TRUE(put("trel-member-1", "trel/members/1/x").ok());
  EXPECT_TRUE(absl::IsPermissionDenied(put("trel-member-1", "trel/members/2/x")));
  EXPECT_TRUE(put("root", "trel/members/2/x").ok());
}

TEST_F(StoreInitTest, WithoutTheCertificateThatServersAskFor_SaysWhatToDo) {
  Support::Certificates certificates;
  certificates.authority("ca");
  certificates.certificate("server", "ca");
  etcd_ = std::make_unique<Support::EtcdCluster>(certificates.serverOptions("server", "ca"));
  Support::Result done = init({"--members", "1", "--etcd-ca", certificates.certFile("ca")});
  EXPECT_EQ(done.status, 1);
  EXPECT_THAT(done.err,
              HasSubstr("; if the servers ask for certificates (--client-cert-auth), give one, with "
                        "its key\n"));
  // Of a server that is not there nothing is guessed.
  Support::Result away = Support::run(
      {TRELCTL, "get", "--store", "etcd:127.0.0.1:1/trel", "--etcd-ca", certificates.certFile("ca")});
  EXPECT_EQ(away.status, 1);
  EXPECT_THAT(away.err, testing::Not(HasSubstr("--client-cert-auth")));
}

TEST_F(StoreInitTest, UnusableArguments_NothingIsDone) {
  EXPECT_THAT(TrelCtl::membersOf("3,1-2,255"), ElementsAre(3, 1, 2, 255));
  for (const char* text : {"", "1-", "2-1", "256", "1,,2", "x", "-1", "1,"}) {
    EXPECT_THROW(TrelCtl::membersOf(text), std::invalid_argument) << text;
  }
  Support::Result enabled = init({"--members", "1", "--enable"});
  EXPECT_EQ(enabled.status, 2);
  EXPECT_THAT(enabled.err,
              HasSubstr("--enable: expected --credentials with it, where the password of root is "
                        "written, or --etcd-cert with a certificate of root's"));
  directory_.write("users", "");
  Support::Result file = init({"--members", "1", "--credentials", directory_.file("users")});
  EXPECT_EQ(file.status, 2);
  EXPECT_THAT(file.err, HasSubstr("Not a directory"));
  EXPECT_EQ(etcd_->ctl({"user", "list"}), "");
}

TEST_F(StoreInitTest, Doctor_SaysWhatTheUsersMayWrite_AndWritesNothing) {
  auto doctor = [this](const std::string& agent, const std::string& member) {
    std::string store = "etcd:" + etcd_->endpointList() + "/trel";
    directory_.write("trelsnmpd.json",
                     nlohmann::json({{"state", {store}}, {"etcd-credentials", file(agent)}}).dump());
    directory_.write(
        "trelmemberd.json",
        nlohmann::json({{"member", 1}, {"store", store}, {"access", {{"credentials", file(member)}}}})
            .dump());
    return Support::run(
               {TRELCTL, "doctor", "--config", directory_.path(), "--control", directory_.file("none.sock")})
        .out;
  };
  ASSERT_EQ(init({"--members", "1", "--credentials", directory_.file("users"), "--enable"}).status, 0);
  EXPECT_THAT(doctor("trel-agent", "trel-member-1"),
              AllOf(testing::ContainsRegex("OK    etcd           " + etcd_->endpoint() + " runs [0-9.]+\n"),
                    HasSubstr("OK    roles          trelsnmpd may not write values of members\n"
                              "OK    roles          trelmemberd may not write values of other members\n")));
  EXPECT_THAT(doctor("root", "root"), AllOf(HasSubstr("WARN  roles          trelsnmpd may write"),
                                            HasSubstr("WARN  roles          trelmemberd may write")));
  auto all = as("root").range({"trel/", "trel0"});
  ASSERT_TRUE(all.ok());
  EXPECT_TRUE(all->records.empty());
}

}  // namespace
}  // namespace Member
