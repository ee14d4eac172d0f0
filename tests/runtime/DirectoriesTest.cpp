// Which directories a program calls its own, as they are made and as others left them.
#include "runtime/Directories.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <optional>

#include "tests/support/Environment.h"
#include "tests/support/TempDir.h"
#include "tests/support/Thrown.h"

namespace Runtime {
namespace {

using Support::Environment;
using testing::HasSubstr;

constexpr uid_t kStranger = 4321;

mode_t modeOf(const std::string& path) {
  struct stat found {};
  return stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

const bool kRoot = geteuid() == 0;

// Root is somebody else while it lives; everybody else stays who they are.
class NotRoot {
 public:
  NotRoot() { becomes(kStranger); }
  ~NotRoot() { becomes(0); }
  NotRoot(const NotRoot&) = delete;
  NotRoot& operator=(const NotRoot&) = delete;

 private:
  static void becomes(uid_t user) {
    if (!kRoot) return;
    EXPECT_EQ(seteuid(user), 0);
  }
};
std::string stateOf() { return stateDirectory("someone"); }
std::string runtimeOf() { return runtimeDirectory("someone"); }
std::string refusal(std::string (*call)()) {
  return thrown<std::invalid_argument>([call] { call(); });
}

TEST(StateDirectoryTest, UnderSystemd_IsTheFirstOfItsDirectories) {
  Environment systemd{{"STATE_DIRECTORY", "/var/one/:/var/two"}, {"HOME", "/h"}};
  EXPECT_EQ(stateOf(), "/var/one");
}

TEST(StateDirectoryTest, Otherwise_IsRootsOrTheUsersOwn) {
  Environment user{{"STATE_DIRECTORY", nullptr}, {"XDG_STATE_HOME", "/state"}, {"HOME", "/home/u"}};
  EXPECT_EQ(stateOf(), kRoot ? "/var/lib/someone" : "/state/someone");
  Environment home{{"XDG_STATE_HOME", nullptr}};
  EXPECT_EQ(stateOf(), kRoot ? "/var/lib/someone" : "/home/u/.local/state/someone");
}

TEST(StateDirectoryTest, RelativePath_IsRefused) {
  Environment relative{{"STATE_DIRECTORY", "state"}};
  EXPECT_EQ(refusal(stateOf), "found $STATE_DIRECTORY set to \"state\", expected an absolute path");
}

// Root has directories of its own.
TEST(StateDirectoryTest, NothingInTheEnvironment_IsRefused) {
  NotRoot user;
  Environment none{{"STATE_DIRECTORY", nullptr},
                   {"XDG_STATE_HOME", nullptr},
                   {"HOME", nullptr},
                   {"RUNTIME_DIRECTORY", nullptr},
                   {"XDG_RUNTIME_DIR", nullptr}};
  EXPECT_THAT(refusal(stateOf), HasSubstr("found no state directory, expected $STATE_DIRECTORY"));
  EXPECT_THAT(refusal(runtimeOf), HasSubstr("found no runtime directory, expected $RUNTIME_DIRECTORY"));
}

TEST(RuntimeDirectoryTest, IsSystemdsOrRootsOrTheSessions) {
  Environment systemd{{"RUNTIME_DIRECTORY", "/run/one:/run/two"}, {"XDG_RUNTIME_DIR", "/run/user/7"}};
  EXPECT_EQ(runtimeOf(), "/run/one");
  Environment session{{"RUNTIME_DIRECTORY", nullptr}};
  EXPECT_EQ(runtimeOf(), kRoot ? "/run/someone" : "/run/user/7");
}

constexpr DirectoryTerms kAlone{.mode = 0700, .withParents = true, .mayBeShared = false};

class OwnDirectory : public testing::Test {
 protected:
  void make(const std::string& path, mode_t mode) const {
    std::filesystem::create_directories(path);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  static void link(const std::string& from, const std::string& to) {
    std::filesystem::create_directory_symlink(to, from);
  }

  Support::TempDir dir_;
  std::string path_ = dir_.file("own");
};

TEST_F(OwnDirectory, MadeWithItsModeWhateverTheUmask) {
  for (mode_t mask : {mode_t{0}, mode_t{0077}, mode_t{0777}}) {
    Umask umask(mask);
    EXPECT_EQ(claimDirectory(path_, {.mode = 0750}), "");
    EXPECT_EQ(modeOf(path_), 0750u) << mask;
    std::filesystem::remove(path_);
  }
  {
    Umask umask(0);
    EXPECT_EQ(claimDirectory(path_ + "//deep/./down/", kAlone), "");
  }
  EXPECT_EQ(modeOf(path_), 0700u);
  EXPECT_EQ(modeOf(path_ + "/deep/down"), 0700u);
}

TEST_F(OwnDirectory, RelativePath_IsFromWhereTheProcessIs) {
  std::string before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  EXPECT_EQ(claimDirectory("own/deep/..", kAlone), "");
  std::filesystem::current_path(before);
  EXPECT_EQ(modeOf(path_ + "/deep"), 0700u);
}

TEST_F(OwnDirectory, ParentIsMissing_IsMadeOnlyOnRequest) {
  EXPECT_EQ(claimDirectory(path_ + "/deep", {.mode = 0700}), "No such file or directory");
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(OwnDirectory, ThatIsThere_IsLeftAsItIs) {
  make(path_, 0755);
  EXPECT_EQ(claimDirectory(path_, kAlone), "");
  EXPECT_EQ(modeOf(path_), 0755u);
}

TEST_F(OwnDirectory, OthersMayWrite_IsWrong) {
  make(path_, 0770);
  EXPECT_EQ(claimDirectory(path_, kAlone),
            "found mode 0770, expected a directory that no other user may write into");
  make(path_, 0702);
  EXPECT_THAT(claimDirectory(path_, kAlone), HasSubstr("found mode 0702"));
  make(path_, 01777);
  EXPECT_THAT(claimDirectory(path_, kAlone), HasSubstr("found mode 1777"));
  EXPECT_EQ(claimDirectory(path_, {.mode = 0700, .withParents = false, .mayBeShared = true}), "");
}

TEST_F(OwnDirectory, OfAnotherUser_IsWrong) {
  if (!kRoot) GTEST_SKIP() << "only root can make a directory of another user";
  make(path_, 0700);
  ASSERT_EQ(chown(path_.c_str(), kStranger, 0), 0);
  for (bool mayBeShared : {false, true}) {
    EXPECT_EQ(claimDirectory(path_, {.mode = 0700, .withParents = false, .mayBeShared = mayBeShared}),
              "found a directory of the user 4321, expected one of the user 0 or of root");
  }
}

TEST_F(OwnDirectory, FileAnywhereInThePath_IsWrong) {
  std::string file = dir_.write("file", "");
  EXPECT_EQ(claimDirectory(file, kAlone), "found a file, expected a directory");
  EXPECT_EQ(claimDirectory(file + "/deep", kAlone), "found a file, expected a directory");
}

// As /var/run is, and what systemd makes of a state directory for a user that lives as long as the service.
TEST_F(OwnDirectory, LinkThatOnlyThisUserOrRootCanHaveMade_IsFollowed) {
  make(dir_.file("private"), 0700);
  link(path_, "private/own");
  EXPECT_EQ(claimDirectory(path_, kAlone), "");
  EXPECT_EQ(modeOf(dir_.file("private/own")), 0700u);
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
  link(dir_.file("absolute"), dir_.file("private"));
  EXPECT_EQ(claimDirectory(dir_.file("absolute/own/deep"), kAlone), "");
  EXPECT_EQ(modeOf(dir_.file("private/own/deep")), 0700u);
  // What it leads to is looked at all the same.
  make(dir_.file("private/own"), 0770);
  EXPECT_THAT(claimDirectory(path_, kAlone), HasSubstr("found mode 0770"));
  link(dir_.file("round"), "round");
  EXPECT_EQ(claimDirectory(dir_.file("round"), kAlone), "Too many levels of symbolic links");
}

TEST_F(OwnDirectory, LinkThatAnotherUserMayHaveMade_IsWrong_WhereverItStandsInThePath) {
  make(path_, 0700);
  make(dir_.file("shared"), 01777);
  link(dir_.file("shared/link"), path_);
  constexpr const char* kWrong =
      "found a symbolic link \"link\" that another user may have made, expected a directory";
  EXPECT_EQ(claimDirectory(dir_.file("shared/link"), kAlone), kWrong);
  EXPECT_EQ(claimDirectory(dir_.file("shared/link/deep"), kAlone), kWrong);
  EXPECT_FALSE(std::filesystem::exists(path_ + "/deep"));
  make(dir_.file("shared"), 0770);
  EXPECT_EQ(claimDirectory(dir_.file("shared/link"), kAlone), kWrong);
  if (!kRoot) return;
  make(dir_.file("shared"), 0755);
  EXPECT_EQ(claimDirectory(dir_.file("shared/link"), kAlone), "");
  ASSERT_EQ(chown(dir_.file("shared").c_str(), kStranger, 0), 0);
  EXPECT_EQ(claimDirectory(dir_.file("shared/link"), kAlone), kWrong);
}

TEST_F(OwnDirectory, Locked_NobodyElseGetsTheLockUntilItIsGivenBack) {
  std::optional<LockFile> first(std::in_place);
  EXPECT_EQ(first->take(path_), "");
  EXPECT_EQ(modeOf(path_), 0600u);
  LockFile second;
  EXPECT_EQ(second.take(path_), "another daemon uses it");
  first.reset();
  LockFile third;
  EXPECT_EQ(third.take(path_), "");
}

TEST_F(OwnDirectory, LockThatCannotBeMade_SaysWhy) {
  LockFile none;
  EXPECT_EQ(none.take(path_ + "/lock"), path_ + "/lock: No such file or directory");
  std::filesystem::create_symlink(dir_.file("elsewhere"), path_);
  LockFile link;
  EXPECT_THAT(link.take(path_), HasSubstr("symbolic links"));
  EXPECT_FALSE(std::filesystem::exists(dir_.file("elsewhere")));
}

}  // namespace
}  // namespace Runtime
