// The archive that trelctl support writes: what is in it, and above all what is not.
#include "programs/trelctl/Support.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "programs/trelctl/Unusable.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"
#include "tests/support/Thrown.h"

namespace TrelCtl {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string contentOf(const std::vector<SupportFile>& files, const std::string& name) {
  for (const SupportFile& file : files) {
    if (file.name == name) return file.content;
  }
  return "no such file";
}

class SupportTest : public testing::Test {
 protected:
  std::vector<SupportFile> files() const { return supportFiles(socket_, directory_.path()); }

  Support::TempDir directory_;
  std::string socket_ = directory_.file("none.sock");
};

TEST_F(SupportTest, NoSecretOfTheConfigurationsIsInIt) {
  directory_.write("access.conf",
                   "rocommunity secret1 127.0.0.1\ncreateUser ops SHA-256 secret2xx AES secret3xx\n"
                   "rouser ops priv\n");
  directory_.write("m.key", "secret4");
  directory_.write("pw", R"({"user": "m1", "password": "secret5"})");
  directory_.write("trelsnmpd.json", R"({"member": 7, "conf": ")" + directory_.file("access.conf") +
                                         R"(", "etcd-key": ")" + directory_.file("m.key") + R"("})");
  directory_.write("trelmemberd.json", R"({"member": 7, "password": "secret6", "access": {"credentials": ")" +
                                           directory_.file("pw") + R"("}})");
  auto files = this->files();
  for (const SupportFile& file : files) EXPECT_THAT(file.content, Not(HasSubstr("secret"))) << file.name;
  EXPECT_THAT(contentOf(files, "trelsnmpd.json"), HasSubstr("\"member\": 7"));
  EXPECT_THAT(contentOf(files, "trelmemberd.json"), HasSubstr(directory_.file("pw")));
  EXPECT_EQ(contentOf(files, "conf"), "rocommunity (removed)\ncreateUser (removed)\nrouser ops priv\n");
}

TEST_F(SupportTest, NoDaemonAndNoConfiguration_TheFilesSayWhy) {
  auto files = this->files();
  EXPECT_THAT(contentOf(files, "status.json"), HasSubstr(socket_));
  EXPECT_THAT(contentOf(files, "trelsnmpd.json"), HasSubstr("No such file or directory"));
  EXPECT_THAT(contentOf(files, "doctor.txt"), HasSubstr("FAIL  daemon"));
  EXPECT_THAT(contentOf(files, "versions.txt"), HasSubstr("trelctl "));
}

TEST_F(SupportTest, Archive_EveryTarReadsItAndOnlyTheOwnerMay) {
  std::string path = directory_.file("a.tar");
  std::string large(100'000, 'x');
  writeArchive(path, {{"a", "one\n"}, {"empty", ""}, {"large", large}});
  EXPECT_EQ(Support::run({"tar", "-tf", path}).out,
            "trel-support/a\ntrel-support/empty\ntrel-support/large\n");
  EXPECT_EQ(Support::run({"tar", "-xOf", path, "trel-support/a"}).out, "one\n");
  EXPECT_EQ(Support::run({"tar", "-xOf", path, "trel-support/large"}).out, large);
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0600u);
  EXPECT_EQ(thrown<Unusable>([&] { writeArchive(path, {}); }), path + ": File exists");
}

}  // namespace
}  // namespace TrelCtl
