// The library that speaks to etcd, as a program loads it.
#include "kelstore/etcd/Driver.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <stdexcept>

#include "runtime/Version.h"
#include "tests/support/Network.h"
#include "tests/support/Thrown.h"

namespace Kelstore::Etcd {
namespace {

using testing::HasSubstr;

std::string refusal(const char* library) {
  return thrown<std::runtime_error>([library] { driver(library); });
}

TEST(Driver, Loaded_ItsCallsReachForTheServers) {
  std::string endpoint = fmt::format("127.0.0.1:{}", Support::freeTcpPort());
  auto calls = driver().calls({{endpoint}, "trel"}, {});
  absl::Status status = calls->range({"a", "b"}).status();
  EXPECT_TRUE(absl::IsUnavailable(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr(endpoint));
  EXPECT_EQ(&driver(), &driver());
}

TEST(Driver, NotThere_OneLineSaysWhatToDo) {
  std::string text = refusal("libTrelNowhere.so");
  EXPECT_EQ(
      text,
      "etcd takes a library that cannot be loaded: libTrelNowhere.so: cannot open shared object file: No "
      "such file or directory; install it beside libTrelKelstore.so, or build it with -DTREL_ETCD=ON");
}

TEST(Driver, AnotherLibrary_Refused) {
  EXPECT_EQ(refusal("libTrelPlatform.so.0"),
            "libTrelPlatform.so.0: found no trelEtcdDriver, expected it in a library for etcd");
}

TEST(Driver, AnotherVersion_Refused) {
  EXPECT_EQ(refusal(OTHER_ETCD_DRIVER),
            fmt::format("{}: found version 0.0.1-other, expected {}; install the one of this version",
                        OTHER_ETCD_DRIVER, Runtime::kVersion));
}

}  // namespace
}  // namespace Kelstore::Etcd
