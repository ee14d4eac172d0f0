// Files with certificates and credentials: what is accepted, and the error line for anything else.
#include "kelstore/etcd/AccessFiles.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/Errors.h"
#include "tests/support/TempDir.h"

namespace Kelstore::Etcd {
namespace {

constexpr const char* kPem = "-----BEGIN X-----\nAA==\n-----END X-----\n";
constexpr const char* kGood = R"({"user": "trel", "password": " p\"w "})";

class EtcdAccessTest : public testing::Test {
 protected:
  std::string fileOf(const std::string& name, const std::string& content, mode_t mode = 0600) {
    std::string path = directory.write(name, content);
    chmod(path.c_str(), mode);
    return path;
  }
  std::string fault(const Access& access) {
    absl::Status status = checkAccess(access);
    std::string text = status.ok() ? "nothing" : Runtime::textOf(status);
    size_t at = text.find(directory.path());
    if (at != std::string::npos) text.erase(at, directory.path().string().size() + 1);
    return text;
  }
  std::string credentialsFault(const std::string& content, mode_t mode = 0600) {
    return fault({.credentialsFile = fileOf("login", content, mode)});
  }

  Support::TempDir directory;
};

TEST_F(EtcdAccessTest, Nothing_NoTls_NoCredentials) {
  EXPECT_FALSE(Access().tls());
  EXPECT_EQ(fault({}), "nothing");
}

TEST_F(EtcdAccessTest, CredentialsAreReadEachTime) {
  Access access{.credentialsFile = fileOf("login", kGood)};
  EXPECT_EQ(fault(access), "nothing");
  EXPECT_EQ(readCredentials(access)->user, "trel");
  EXPECT_EQ(readCredentials(access)->password, " p\"w ");
  directory.write("login", R"({"user": "other", "password": "x"})");
  EXPECT_EQ(readCredentials(access)->user, "other");
}

TEST_F(EtcdAccessTest, SecretsThatTheGroupOrOthersHaveARightToAreRefused) {
  std::string cert = fileOf("cert", kPem, 0644);
  for (int mode : {0640, 0620, 0610, 0604, 0602, 0601, 0666}) {
    std::string refused = fmt::format(
        ": found mode {:04o}, expected a file that nobody but its owner has a right to, such as 0600", mode);
    EXPECT_EQ(credentialsFault(kGood, static_cast<mode_t>(mode)), "login" + refused);
    EXPECT_EQ(fault({.certFile = cert, .keyFile = fileOf("key", kPem, static_cast<mode_t>(mode))}),
              "key" + refused);
  }
  for (mode_t mode : {0600, 0400, 0700}) {
    EXPECT_EQ(credentialsFault(kGood, mode), "nothing");
    EXPECT_EQ(fault({.certFile = cert, .keyFile = fileOf("key", kPem, mode)}), "nothing");
  }
}

// The owner decides which user we are, and can read the file whatever its mode is.
TEST_F(EtcdAccessTest, SecretsOfAnotherUserAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a file of another user";
  std::string cert = fileOf("cert", kPem, 0644);
  std::string key = fileOf("key", kPem);
  std::string login = fileOf("login", kGood);
  for (const std::string& secret : {key, login}) ASSERT_EQ(chown(secret.c_str(), 4321, 0), 0);
  ASSERT_EQ(chmod(directory.path().c_str(), 0777 | S_ISVTX), 0);
  std::string refused = fmt::format(
      ": found a file of the user 4321 in a directory that is not root's alone, expected one of the user 0");
  EXPECT_EQ(fault({.certFile = cert, .keyFile = key}), "key" + refused);
  EXPECT_EQ(fault({.credentialsFile = login}), "login" + refused);
  ASSERT_EQ(chmod(directory.path().c_str(), 0700), 0);
  ASSERT_EQ(chown(directory.path().c_str(), 4321, 0), 0);
  EXPECT_EQ(fault({.credentialsFile = login}), "login" + refused);
  ASSERT_EQ(chown(cert.c_str(), 4321, 0), 0);
  EXPECT_EQ(fault({.caFile = cert}), "nothing") << "what all may know";
}

// trelctl as root could not use those of the daemons' user.
TEST_F(EtcdAccessTest, SecretsThatRootPutIntoItsDirectoryForAnotherUser_AreRootsToUse) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a file of another user";
  std::string login = fileOf("login", kGood);
  ASSERT_EQ(chown(login.c_str(), 4321, 0), 0);
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  EXPECT_EQ(fault({.credentialsFile = login}), "nothing");
  ASSERT_EQ(chmod(login.c_str(), 0640), 0);
  EXPECT_THAT(fault({.credentialsFile = login}), testing::HasSubstr("found mode 0640"));
  ASSERT_EQ(chmod(login.c_str(), 0644), 0);
  ASSERT_EQ(seteuid(4322), 0);
  std::string asAnother = fault({.credentialsFile = login});
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_THAT(asAnother,
              testing::HasSubstr("found a file of the user 4321, expected one of the user 4322 or of root"));
}

TEST_F(EtcdAccessTest, BadCredentialsFilesAreNamed_NothingInThemIsShown) {
  constexpr const char* kExpected = R"(login: expected {"user": "...", "password": "..."})";
  for (const char* bad :
       {"", "trel\nsecret\n", "[]", "7", R"({"user": "trel"})", R"({"user": "trel", "password": 7})",
        R"({"user": "", "password": "secret"})", R"({"user": "trel", "password": ""})",
        R"({"user": "trel", "password": "secret", "more": 1})", R"({"user": "trel", "password": "secret)"}) {
    EXPECT_EQ(credentialsFault(bad), kExpected) << bad;
  }
  EXPECT_EQ(credentialsFault(std::string((1 << 20) + 1, ' ')),
            "login: found 1048577 bytes, expected at most 1048576");
  EXPECT_EQ(fault({.credentialsFile = directory.file("absent")}), "absent: No such file or directory");
  std::filesystem::create_directory(directory.path() / "dir");
  EXPECT_EQ(fault({.credentialsFile = directory.file("dir")}), "dir: found a directory, expected a file");
  ASSERT_EQ(mkfifo(directory.file("fifo").c_str(), 0600), 0);
  EXPECT_EQ(fault({.credentialsFile = directory.file("fifo")}), "fifo: found a pipe, expected a file");
}

TEST_F(EtcdAccessTest, CertificateAndKeyGoTogether) {
  std::string cert = fileOf("cert", kPem);
  std::string key = fileOf("key", kPem);
  EXPECT_EQ(fault({.certFile = cert, .keyFile = key}), "nothing");
  EXPECT_EQ(fault({.certFile = cert}), "certificate cert: found no key for it");
  EXPECT_EQ(fault({.keyFile = key}), "key key: found no certificate for it");
  EXPECT_TRUE((Access{.certFile = cert, .keyFile = key}).tls());
  EXPECT_TRUE((Access{.caFile = cert}).tls());
}

TEST_F(EtcdAccessTest, FilesThatAreNotPem) {
  std::string junk = fileOf("junk", "hello");
  std::string good = fileOf("good", kPem);
  EXPECT_EQ(fault({.caFile = junk}), "junk: expected a file in PEM format");
  EXPECT_EQ(fault({.certFile = junk, .keyFile = good}), "junk: expected a file in PEM format");
  EXPECT_EQ(fault({.certFile = good, .keyFile = junk}), "junk: expected a file in PEM format");
  EXPECT_EQ(fault({.caFile = directory.file("absent")}), "absent: No such file or directory");
}

}  // namespace
}  // namespace Kelstore::Etcd
