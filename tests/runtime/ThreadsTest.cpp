// Work off the loop, on real threads and a real loop. Work that hangs waits for a gate, which the test opens.
#include "runtime/UvIo.h"

#include <gmock/gmock.h>

#include <condition_variable>
#include <optional>
#include <thread>

#include "tests/runtime/Turning.h"

namespace Runtime {
namespace {

// Shut until it is opened. Held by those who wait at it, as work may outlive the test's other objects.
class Gate {
 public:
  void pass() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [this] { return open_; });
  }
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

class OffLoopTest : public testing::Test {
 protected:
  ~OffLoopTest() override {
    gate_->open();
    EXPECT_TRUE(Support::waitUntil([this] { return !threads_.busy(); }));
  }
  void hang(std::string name) {
    io_->offLoop([gate = gate_] { gate->pass(); }, [this, name] { done_.push_back(name); });
  }
  void work(std::string name) {
    io_->offLoop([] {}, [this, name] { done_.push_back(name); });
  }
  // Turns the loop until so many pieces of work are done.
  std::vector<std::string> turnUntilDone(size_t pieces) {
    turnUntil(*loop_, [&] { return done_.size() >= pieces; });
    return done_;
  }

  struct Scarce final : Threads {
    bool run(const std::function<void()>& work) override { return left-- > 0 && Threads::run(work); }
    int left = 1000;
  };

  std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
  Scarce threads_;
  std::optional<EventLoop> loop_{std::in_place};
  std::optional<UvIo> io_{std::in_place, *loop_, threads_};
  std::vector<std::string> done_;
};

using testing::ElementsAre;

TEST_F(OffLoopTest, Work_RunsOnAnotherThread_DoneOnTheLoops) {
  std::thread::id worked;
  std::thread::id finished;
  io_->offLoop([&] { worked = std::this_thread::get_id(); },
               [&] {
                 finished = std::this_thread::get_id();
                 done_.push_back("it");
               });
  EXPECT_THAT(turnUntilDone(1), ElementsAre("it"));
  EXPECT_NE(worked, std::this_thread::get_id());
  EXPECT_EQ(finished, std::this_thread::get_id());
}

TEST_F(OffLoopTest, MuchWorkHangs_OtherWorkIsDone_AndTheRestOnceItReturns) {
  for (int i = 0; i < 50; ++i) hang("hung");
  work("other");
  EXPECT_THAT(turnUntilDone(1), ElementsAre("other"));
  EXPECT_TRUE(threads_.busy());
  gate_->open();
  EXPECT_EQ(turnUntilDone(51).size(), 51u);
}

TEST_F(OffLoopTest, WorkHangsAtTheEnd_NobodyWaits_AndItsDoneIsNotCalled) {
  hang("hung");
  io_.reset();
  loop_.reset();
  EXPECT_TRUE(threads_.busy());
  gate_->open();
  EXPECT_TRUE(Support::waitUntil([this] { return !threads_.busy(); }));
  EXPECT_THAT(done_, testing::IsEmpty());
}

TEST_F(OffLoopTest, DoneHandsOverFurtherWork_ThatIsDoneToo) {
  io_->offLoop([] {}, [this] { work("further"); });
  EXPECT_THAT(turnUntilDone(1), ElementsAre("further"));
}

// As at the end of the process: a file that was being written used to be left half written.
TEST_F(OffLoopTest, WorkThatEndsInTime_IsWaitedFor) {
  // Again and again, as the work may end before the wait begins.
  for (int i = 0; i < 100; ++i) {
    gate_ = std::make_shared<Gate>();
    hang("slow");
    EXPECT_TRUE(threads_.busyFor(std::chrono::milliseconds(1)));
    gate_->open();
    EXPECT_FALSE(threads_.busyFor(std::chrono::minutes(1)));
  }
}

TEST_F(OffLoopTest, NoThreadIsLeft_WorkWaitsForOneInItsOrder) {
  threads_.left = 0;
  hang("first");
  work("second");
  uv_run(loop_->uv(), UV_RUN_NOWAIT);
  EXPECT_FALSE(threads_.busy());
  threads_.left = 1000;
  EXPECT_THAT(turnUntilDone(1), ElementsAre("second"));
  gate_->open();
  EXPECT_THAT(turnUntilDone(2), ElementsAre("second", "first"));
}

}  // namespace
}  // namespace Runtime
