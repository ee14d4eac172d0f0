// Files that are really watched, and timers.
#include "runtime/UvIo.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "runtime/FileWatch.h"
#include "tests/runtime/Turning.h"
#include "tests/support/TempDir.h"

namespace Runtime {
namespace {

class UvIoTest : public testing::Test {
 protected:
  std::unique_ptr<Io::Activity> watch(const std::string& path) {
    return io_.watch(path, [this] { ++changes_; });
  }
  // One that is known to be followed.
  std::unique_ptr<Io::Activity> followed(const std::string& path) {
    auto activity = watch(path);
    EXPECT_TRUE(told());
    return activity;
  }
  // Whether a change is told from now on.
  bool told() {
    int before = changes_;
    return turnUntil(loop_, [&] { return changes_ > before; });
  }

  Support::TempDir dir_;
  EventLoop loop_;
  Threads threads_;
  UvIo io_{loop_, threads_};
  int changes_ = 0;
};

TEST_F(UvIoTest, FileAppearsChangesIsReplacedAndVanishes_EachIsTold) {
  auto activity = followed(dir_.file("state.json"));
  dir_.write("state.json", "a");
  EXPECT_TRUE(told()) << "appears";
  dir_.write("state.json", "b");
  EXPECT_TRUE(told()) << "is written in place";
  dir_.replace("state.json", "c");
  EXPECT_TRUE(told()) << "is replaced";
  std::filesystem::remove(dir_.file("state.json"));
  EXPECT_TRUE(told()) << "vanishes";
}

TEST_F(UvIoTest, DirectoryAppearsLater_TheFileIsFound) {
  auto activity = followed(dir_.file("later/state.json"));
  std::filesystem::create_directory(dir_.file("later"));
  dir_.write("later/state.json", "a");
  EXPECT_TRUE(told());
}

TEST_F(UvIoTest, DirectoryIsReplaced_TheNewOneIsFollowed) {
  std::filesystem::create_directory(dir_.file("d"));
  dir_.write("d/state.json", "a");
  auto activity = followed(dir_.file("d/state.json"));
  std::filesystem::rename(dir_.file("d"), dir_.file("old"));
  std::filesystem::create_directory(dir_.file("d"));
  dir_.write("d/state.json", "other");
  EXPECT_TRUE(told());
  dir_.write("d/state.json", "another one");
  EXPECT_TRUE(told());
}

TEST_F(UvIoTest, TargetOfALinkChanges_IsTold) {
  std::filesystem::create_directory(dir_.file("elsewhere"));
  dir_.write("elsewhere/target", "a");
  std::filesystem::create_symlink(dir_.file("elsewhere/target"), dir_.file("state.json"));
  auto activity = followed(dir_.file("state.json"));
  dir_.write("elsewhere/target", "another one");
  EXPECT_TRUE(told());
}

TEST_F(UvIoTest, OtherFilesOfTheDirectory_AreNotTold) {
  dir_.write("state.json", "a");
  auto activity = followed(dir_.file("state.json"));
  int before = changes_;
  dir_.write("other", "a");
  bool later = false;
  auto timer = io_.after(2 * FileWatch::kPollMs, [&] { later = true; });
  EXPECT_TRUE(turnUntil(loop_, [&] { return later; }));
  EXPECT_EQ(changes_, before);
}

TEST_F(UvIoTest, ActivityIsDestroyed_NothingIsToldAnyMore) {
  watch(dir_.file("state.json")).reset();
  dir_.write("state.json", "a");
  bool elapsed = false;
  io_.after(1, [&] { ADD_FAILURE() << "destroyed before it elapsed"; }).reset();
  auto timer = io_.after(2 * FileWatch::kPollMs, [&] { elapsed = true; });
  EXPECT_TRUE(turnUntil(loop_, [&] { return elapsed; }));
  EXPECT_EQ(changes_, 0);
}

TEST_F(UvIoTest, WatchIsDestroyedByItsOwnCallback) {
  std::unique_ptr<Io::Activity> activity;
  int last = 1;
  auto changed = [&] {
    if (++changes_ == last) activity.reset();
  };
  activity = io_.watch(dir_.file("state.json"), changed);
  EXPECT_TRUE(turnUntil(loop_, [&] { return activity == nullptr; })) << "once it is watched";
  last = 3;
  activity = io_.watch(dir_.file("state.json"), changed);
  EXPECT_TRUE(told());
  dir_.write("state.json", "a");
  EXPECT_TRUE(turnUntil(loop_, [&] { return activity == nullptr; })) << "when something changes";
}

TEST_F(UvIoTest, LoopIsWokenByAnotherThread_OnItsOwn) {
  std::thread::id wokenOn;
  auto waker = io_.waker([&] { wokenOn = std::this_thread::get_id(); });
  std::thread other([&] { waker->wake(); });
  other.join();
  EXPECT_TRUE(turnUntil(loop_, [&] { return wokenOn != std::thread::id(); }));
  EXPECT_EQ(wokenOn, std::this_thread::get_id());
}

TEST_F(UvIoTest, WakerIsDestroyed_NobodyIsToldAnyMore) {
  auto waker = io_.waker([] { ADD_FAILURE() << "destroyed before it was told"; });
  waker->wake();
  waker.reset();
  bool later = false;
  auto timer = io_.after(50, [&] { later = true; });
  EXPECT_TRUE(turnUntil(loop_, [&] { return later; }));
}

TEST_F(UvIoTest, TimerIsDestroyedByItsOwnCallback) {
  std::unique_ptr<Io::Activity> timer;
  timer = io_.after(1, [&] { timer.reset(); });
  EXPECT_TRUE(turnUntil(loop_, [&] { return timer == nullptr; }));
}

}  // namespace
}  // namespace Runtime
