// What trelctl takes from the daemons' configurations.
#include "programs/trelctl/Defaults.h"

#include <gmock/gmock.h>

#include "programs/trelctl/Unusable.h"
#include "tests/support/TempDir.h"
#include "tests/support/Thrown.h"

namespace TrelCtl {
namespace {

class DefaultsTest : public testing::Test {
 protected:
  std::string refusal() const {
    return thrown<Unusable>([this] { storeIn(directory_.path().string()); });
  }
  Support::TempDir directory_;
};

TEST_F(DefaultsTest, NoConfiguration_NoSocketAndALineThatSaysWhatIsMissing) {
  EXPECT_EQ(controlIn(directory_.path().string()), "");
  EXPECT_EQ(refusal(), "--store is required, as no " + directory_.path().string() + "/trelsnmpd.json or " +
                           directory_.path().string() + "/trelmemberd.json names a store");
}

TEST_F(DefaultsTest, StoreThatTheAgentFollows_WithItsAccess) {
  directory_.write("trelsnmpd.json", R"({"control": "/run/x", "state": ["local", "etcd:a:1/p", "etcd:b:1/p"],
      "etcd-ca": "/ca", "etcd-cert": "/cert", "etcd-key": "/key", "etcd-credentials": "/user"})");
  directory_.write("trelmemberd.json", R"({"store": "etcd:m:1/p"})");
  EXPECT_EQ(controlIn(directory_.path().string()), "/run/x");
  DefaultStore found = storeIn(directory_.path().string());
  EXPECT_EQ(found.store, "etcd:a:1/p");
  EXPECT_EQ(found.access, (Kelstore::Etcd::Access{"/ca", "/cert", "/key", "/user"}));
}

TEST_F(DefaultsTest, ElseThatOfThePublisher_WithItsAccess) {
  directory_.write("trelsnmpd.json", R"({"state": ["local"]})");
  directory_.write("trelmemberd.json",
                   R"({"store": "etcd:m:1/p", "access": {"ca": "/ca", "credentials": "/user"}})");
  DefaultStore found = storeIn(directory_.path().string());
  EXPECT_EQ(found.store, "etcd:m:1/p");
  EXPECT_EQ(found.access, (Kelstore::Etcd::Access{"/ca", "", "", "/user"}));
}

TEST_F(DefaultsTest, ConfigurationThatIsNone_IsSaid_ButTheSocketIsFound) {
  std::string file = directory_.write("trelsnmpd.json", "[");
  EXPECT_EQ(refusal(), file + ": found no JSON object; --check of its daemon says more");
  EXPECT_EQ(controlIn(directory_.path().string()), "");
}

}  // namespace
}  // namespace TrelCtl
