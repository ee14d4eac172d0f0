// The client against real etcd servers that ask who it is, by a password or by a certificate.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "kelstore/etcd/Channels.h"
#include "kelstore/etcd/Client.h"
#include "kelstore/etcd/rpc.grpc.pb.h"
#include "tests/kelstore-etcd/AsksWhoItIs.h"
#include "tests/support/Etcd.h"
#include "tests/support/EtcdAccess.h"

namespace Kelstore::Etcd {
namespace {

using namespace std::chrono_literals;
using Support::EtcdCluster;
using Support::Millis;
using Support::waitUntil;

// --- authentication

class EtcdAuthTest : public testing::Test {
 protected:
  void start(const Support::Argv& arguments = {}) {
    server = std::make_unique<EtcdCluster>(Support::EtcdOptions{.arguments = arguments});
    Support::enableAuthentication(*server);
  }
  Access login(const std::string& user, const std::string& password) {
    Access access;
    access.credentialsFile = Support::writeLogin(directory, "login", user, password);
    return access;
  }

  Support::TempDir directory;
  std::unique_ptr<EtcdCluster> server;
};

TEST_F(EtcdAuthTest, UserMayDoWhatItsRoleSays_AndNothingElse) {
  start();
  Client client(server->endpoints(), login("trel", "secret"));
  EXPECT_TRUE(client.put("trel/a", "1").ok());
  absl::Status status = client.put("other/a", "1").status();
  EXPECT_TRUE(absl::IsPermissionDenied(status)) << status;
  EXPECT_EQ(status.message(), server->endpoint() + ": etcdserver: permission denied");
  EXPECT_TRUE(client.put("trel/a", "2").ok());
}

TEST_F(EtcdAuthTest, WrongPassword_RefusedUntilTheFileIsMended) {
  start();
  Client client(server->endpoints(), login("trel", "wrong"));
  absl::Status status = client.put("trel/a", "1").status();
  EXPECT_TRUE(absl::IsUnauthenticated(status)) << status;
  EXPECT_EQ(status.message(),
            fmt::format("{}: user \"trel\" of {} was refused", server->endpoint(), directory.file("login")));
  login("trel", "secret");
  EXPECT_TRUE(client.put("trel/a", "1").ok());
  chmod(directory.file("login").c_str(), 0644);
  EXPECT_TRUE(client.put("trel/a", "2").ok());  // the token still holds
  Client late(server->endpoints(), {.credentialsFile = directory.file("login")});
  EXPECT_TRUE(absl::IsFailedPrecondition(late.put("trel/a", "3").status()));
}

TEST_F(EtcdAuthTest, NobodyIsAsked_CredentialsAreNotNeeded) {
  EtcdCluster open;
  Client client(open.endpoints(), login("trel", "secret"));
  EXPECT_TRUE(client.put("trel/a", "1").ok());
}

TEST_F(EtcdAuthTest, AuthenticationIsEnabledMeanwhile_ClientAuthenticates) {
  server = std::make_unique<EtcdCluster>();
  Client client(server->endpoints(), login("root", "rootpw"));
  Client without(server->endpoints(), {});
  EXPECT_TRUE(client.put("trel/a", "1").ok());
  EXPECT_TRUE(without.put("trel/a", "1").ok());
  Support::enableAuthentication(*server);
  absl::StatusOr<int64_t> put = client.put("trel/a", "2");
  EXPECT_TRUE(put.ok()) << put.status();
  EXPECT_EQ(without.put("trel/a", "3").status().message(),
            server->endpoint() + ": etcdserver: user name is empty");
}

// The token of the first call runs out after a second; that it did is seen by trying it.
TEST_F(EtcdAuthTest, TokenRanOut_AnotherOneIsAskedFor) {
  start({"--auth-token-ttl", "1"});
  Access access = login("trel", "secret");
  Client client(server->endpoints(), access);
  EXPECT_TRUE(client.put("trel/a", "1").ok());
  grpc::ClientContext login;
  login.set_deadline(std::chrono::system_clock::now() + 5s);
  auto loggedIn = logIn(server->endpoint(), access, nullptr, std::nullopt, login);
  ASSERT_TRUE(loggedIn.ok()) << loggedIn.status();
  ASSERT_NE(loggedIn->token, "");
  auto kv = etcdserverpb::KV::NewStub(loggedIn->channel);
  // Each use gives the token another second, so that it is left alone for longer and longer.
  Millis pause = 1s;
  auto next = std::chrono::steady_clock::now() + pause;
  bool refused = waitUntil(
      [&] {
        if (std::chrono::steady_clock::now() < next) return false;
        pause += 500ms;
        next = std::chrono::steady_clock::now() + pause;
        etcdserverpb::RangeRequest request;
        request.set_key("trel/a");
        etcdserverpb::RangeResponse response;
        grpc::ClientContext context;
        addMetadata(context, loggedIn->token);
        return TokenRenewal().dueAfter(access, kv->Range(&context, request, &response));
      },
      20s);
  ASSERT_TRUE(refused);
  absl::StatusOr<int64_t> put = client.put("trel/a", "2");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_EQ(client.get("trel/a")->records[0].value, "2");
}

TEST_F(EtcdAuthTest, ServerRestartsAndForgetsItsTokens_CallGoesThrough) {
  start();
  Client client(server->endpoints(), login("trel", "secret"));
  ASSERT_TRUE(client.put("trel/a", "1").ok());
  server->end(0);
  server->start(0);
  absl::StatusOr<int64_t> put = client.put("trel/a", "2");
  EXPECT_TRUE(put.ok()) << put.status();
}

TEST_F(EtcdAuthTest, RolesChangeMeanwhile_CallGoesThrough) {
  start();
  Client client(server->endpoints(), login("trel", "secret"));
  ASSERT_TRUE(client.put("trel/a", "1").ok());
  server->ctl({"role", "grant-permission", "writer", "readwrite", "other/", "--prefix"}, "root:rootpw");
  absl::StatusOr<int64_t> put = client.put("other/a", "2");
  EXPECT_TRUE(put.ok()) << put.status();
}

// A publisher has three clients. A server that is started again would check a password for each.
TEST_F(EtcdAuthTest, ClientsOfAProcessLogInOnce) {
  AsksWhoItIs asking;
  auto known = std::make_shared<KnownStore>();
  Access access = login("trel", "secret");
  Client one({asking.endpoint()}, access, {.known = known});
  Client two({asking.endpoint()}, access, {.known = known});
  for (size_t starts = 1; starts <= 3; ++starts) {
    for (Client* client : {&one, &two}) EXPECT_TRUE(client->get("trel/a").ok());
    EXPECT_EQ(asking.logins().size(), starts);
    asking.forgetTokens();
  }
}

TEST_F(EtcdAuthTest, AnotherClientsLoginDoesNotEnd_ThisOneGivesUpInTime) {
  AsksWhoItIs asking;
  auto known = std::make_shared<KnownStore>();
  Client client({asking.endpoint()}, login("trel", "secret"), {.deadline = 100ms, .known = known});
  auto now = std::chrono::system_clock::now();
  auto token = known->token(std::nullopt, now, [&]() -> absl::StatusOr<std::string> {
    std::thread([&] {
      absl::Status status = client.get("trel/a").status();
      EXPECT_TRUE(absl::IsUnavailable(status)) << status;
    }).join();
    return absl::UnknownError("no answer");
  });
  EXPECT_FALSE(token.ok());
  EXPECT_TRUE(asking.logins().empty());
}

// There may be 255 logins at once then. Half of the time is kept for other servers only while it is not known
// whether this one answers.
TEST_F(EtcdAuthTest, ServerHasRefusedTheToken_TheLoginHasAllOfTheTime) {
  AsksWhoItIs asking;
  Client client({asking.endpoint(), "127.0.0.1:1"}, login("trel", "secret"), {.deadline = 60s});
  EXPECT_TRUE(client.get("trel/a").ok());
  asking.forgetTokens();
  EXPECT_TRUE(client.get("trel/a").ok());
  ASSERT_EQ(asking.logins().size(), 2u);
  EXPECT_LE(asking.logins()[0], 31s);
  EXPECT_GT(asking.logins()[1], 31s);
}

// --- TLS

class EtcdTlsTest : public testing::Test {
 protected:
  // A CA, and certificates of it for the server and for a client.
  static void SetUpTestSuite() {
    certificates = std::make_unique<Support::Certificates>();
    certificates->authority("ca");
    certificates->authority("stranger");
    certificates->certificate("server", "ca");
    certificates->certificate("client", "ca");
    certificates->certificate("intruder", "stranger");
    server = std::make_unique<EtcdCluster>(certificates->serverOptions("server", "ca"));
  }
  static void TearDownTestSuite() {
    server.reset();
    certificates.reset();
  }

  static Access access(const std::string& authority, const std::string& name) {
    Access access;
    access.caFile = certificates->certFile(authority);
    if (!name.empty()) {
      access.certFile = certificates->certFile(name);
      access.keyFile = certificates->keyFile(name);
    }
    return access;
  }
  static absl::StatusOr<int64_t> putWith(const Access& with) {
    return Client(server->endpoints(), with, {.deadline = 3s}).put("k/a", "1");
  }

  static std::unique_ptr<Support::Certificates> certificates;
  static std::unique_ptr<EtcdCluster> server;
};

std::unique_ptr<Support::Certificates> EtcdTlsTest::certificates;
std::unique_ptr<EtcdCluster> EtcdTlsTest::server;

TEST_F(EtcdTlsTest, BothSidesShowACertificateOfTheCa) {
  absl::StatusOr<int64_t> put = putWith(access("ca", "client"));
  EXPECT_TRUE(put.ok()) << put.status();
}

TEST_F(EtcdTlsTest, ServerOfAnotherCaIsNotTrusted) {
  testing::internal::CaptureStderr();
  absl::Status status = putWith(access("stranger", "client")).status();
  EXPECT_TRUE(absl::IsUnavailable(status) || absl::IsDeadlineExceeded(status)) << status;
  // Nor is it with the CAs of the system.
  Access system = access("ca", "client");
  system.caFile.clear();
  EXPECT_FALSE(putWith(system).ok());
  // The error is the caller's to show; nothing of it is written past the caller.
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(EtcdTlsTest, ServerRefusesWhoHasNoCertificateOfItsCa) {
  EXPECT_FALSE(putWith(access("ca", "")).ok());
  EXPECT_FALSE(putWith(access("ca", "intruder")).ok());
  EXPECT_FALSE(putWith({}).ok());
}

TEST_F(EtcdTlsTest, CertificateWithoutTheServersAddressIsNotTrusted) {
  // The same server by a name that its certificate does not have.
  std::string byName = "localhost" + server->endpoint().substr(server->endpoint().find(':'));
  EXPECT_FALSE(Client({byName}, access("ca", "client"), {.deadline = 3s}).put("k/a", "1").ok());
}

TEST_F(EtcdTlsTest, FilesAreReadAgainForANewConnection) {
  Support::TempDir own;
  Access replaced = access("ca", "client");
  replaced.certFile = own.write("cert.pem", Support::readFile(certificates->certFile("intruder")));
  replaced.keyFile = own.write("key.pem", Support::readFile(certificates->keyFile("intruder")));
  chmod(replaced.keyFile.c_str(), 0600);
  Client client(server->endpoints(), replaced, {.deadline = 3s});
  EXPECT_FALSE(client.put("k/a", "1").ok());
  own.write("cert.pem", Support::readFile(certificates->certFile("client")));
  own.write("key.pem", Support::readFile(certificates->keyFile("client")));
  absl::StatusOr<int64_t> put = client.put("k/a", "1");
  EXPECT_TRUE(put.ok()) << put.status();
  own.write("key.pem", "no key");
  EXPECT_TRUE(client.put("k/a", "2").ok());
  Client late(server->endpoints(), replaced);
  absl::Status status = late.put("k/a", "3").status();
  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_EQ(status.message(), replaced.keyFile + ": expected a file in PEM format");
}

}  // namespace
}  // namespace Kelstore::Etcd
