// The programs as a package has them that leaves out libTrelEtcd.so: they work, but for etcd.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>

#include "tests/support/Network.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace {

using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

constexpr const char* kNotThere =
    "etcd takes a library that cannot be loaded: libTrelEtcd.so: cannot open shared object file: No such "
    "file "
    "or directory; install it beside libTrelKelstore.so, or build it with -DTREL_ETCD=ON\n";

class WithoutEtcd : public testing::Test {
 protected:
  WithoutEtcd() {
    fs::path bin = dir_.path() / "bin", lib = dir_.path() / "lib";
    fs::create_directory(bin);
    fs::create_directory(lib);
    for (const char* program : {TRELSNMPD, TRELCTL}) fs::copy(program, bin);
    for (const auto& entry : fs::directory_iterator(fs::path(TRELSNMPD).parent_path() / "../lib")) {
      std::string name = entry.path().filename();
      if (!name.starts_with("libTrel") || name.find(".so") == std::string::npos) continue;
      if (name != "libTrelEtcd.so") fs::copy(entry.path(), lib / name);
    }
  }
  std::string program(const char* name) const { return dir_.path() / "bin" / name; }
  std::string control() const { return dir_.file("control"); }
  Support::Env env() const { return {"STATE_DIRECTORY=" + dir_.path().string()}; }
  Support::Result run(Support::Argv argv) const {
    argv.front() = program(argv.front().c_str());
    return Support::run(argv, env());
  }

  Support::TempDir dir_;
};

TEST_F(WithoutEtcd, Daemon_StateInEtcd_OneLine) {
  auto result = run({"trelsnmpd", "--control", control(), "--state", "etcd:127.0.0.1:1/trel"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, fmt::format("trelsnmpd: --state: {}", kNotThere));
}

TEST_F(WithoutEtcd, Daemon_OtherStates_AreServed) {
  Support::Process daemon({program("trelsnmpd"), "--control", control(), "--state", "embedded", "--listen",
                           fmt::format("udp:127.0.0.1:{}", Support::freeUdpPort())},
                          env());
  auto ready = run({"trelctl", "--control", control(), "wait"});
  EXPECT_EQ(ready.status, 0) << ready.err << daemon.err();
  EXPECT_THAT(run({"trelctl", "--control", control(), "status"}).out, HasSubstr("embedded"));
  EXPECT_THAT(run({"trelctl", "--control", control(), "tables"}).out, HasSubstr("unreachable"));
  EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(WithoutEtcd, Tool_CommandsForTheStore_OneLine) {
  auto result = run({"trelctl", "get", "--store", "etcd:127.0.0.1:1/trel"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, fmt::format("trelctl: {}", kNotThere));
}

TEST_F(WithoutEtcd, NothingOfGrpcIsLoaded) {
  for (const char* name : {"trelsnmpd", "trelctl"}) {
    auto libraries = Support::run({"ldd", program(name)});
    EXPECT_THAT(libraries.out, HasSubstr("libTrelKelstore.so"));
    EXPECT_THAT(libraries.out, Not(HasSubstr("libgrpc")));
    EXPECT_THAT(libraries.out, Not(HasSubstr("libprotobuf")));
    EXPECT_THAT(libraries.out, Not(HasSubstr("not found")));
  }
}

}  // namespace
