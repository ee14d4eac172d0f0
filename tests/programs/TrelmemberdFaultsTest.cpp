// The program while a real store takes no writes: its rows go rather than stand still, and come back.
#include <gmock/gmock.h>

#include "tests/programs/TrelmemberdFixture.h"
#include "tests/support/EtcdAccess.h"

namespace Member {
namespace {

using testing::HasSubstr;

class StoreFaultTest : public TrelmemberdTest {
 protected:
  void SetUp() override {}
  void serversAre(const Support::EtcdOptions& options, const Kelstore::Etcd::Access& access = {}) {
    etcd_ = std::make_unique<Support::EtcdCluster>(options);
    client_ = std::make_unique<Client>(etcd_->endpoints(), access);
  }
  void publish() {
    process_ = start(config(1, loopback()));
    ASSERT_TRUE(awaitKey("members/1/figures")) << process_->err();
    before_ = names();
  }
  void expectItGoes(const std::string& why) {
    EXPECT_TRUE(awaitLine(*process_, "is not renewed any more: nothing could be written for 3 s", 20s));
    EXPECT_TRUE(waitUntil([&] { return keys().empty(); }, 20s)) << process_->err();
    EXPECT_THAT(process_->err(), HasSubstr(why));
    EXPECT_TRUE(process_->running());
  }
  void expectItIsBack() {
    EXPECT_TRUE(waitUntil([&] { return names() == before_; }, 20s)) << process_->err();
    EXPECT_EQ(process_->stop(), 0) << process_->err();
    EXPECT_TRUE(keys().empty());
  }

  std::unique_ptr<Process> process_;
  std::vector<std::string> before_;
};

TEST_F(StoreFaultTest, StoreIsOutOfSpace_RowsGo_AndAreBackWhenThereIsSpace) {
  serversAre({.arguments = {"--quota-backend-bytes=16777216"}});
  publish();
  std::string much(1'000'000, 'x');
  while (client_->put("other", much).ok()) {
  }
  ASSERT_THAT(etcd_->ctl({"alarm", "list"}), HasSubstr("NOSPACE"));
  expectItGoes("space exceeded");
  auto revision = client_->range({"other", ""});
  ASSERT_TRUE(revision.ok());
  etcd_->ctl({"compact", std::to_string(revision->revision)});
  etcd_->ctl({"defrag"});
  etcd_->ctl({"alarm", "disarm"});
  expectItIsBack();
}

TEST_F(StoreFaultTest, UserLosesThePermissionToWrite_RowsGo_AndAreBackWithThePermission) {
  serversAre({}, {.credentialsFile = Support::writeLogin(directory_, "test", "root", "rootpw")});
  Support::enableAuthentication(*etcd_);
  access_ = {{"credentials", Support::writeLogin(directory_, "member", "trel", "secret")}};
  publish();
  auto permit = [&](const std::string& what) {
    etcd_->ctl({"role", "grant-permission", "writer", what, "trel/", "--prefix"}, "root:rootpw");
  };
  permit("read");
  expectItGoes("permission denied");
  permit("readwrite");
  expectItIsBack();
}

}  // namespace
}  // namespace Member
