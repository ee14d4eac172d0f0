#include "platform/zavro/Ptr.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace {

struct Probe final : Zavro::Counted {
  explicit Probe(int* destroyed, bool fails = false) : destroyed_(destroyed) {
    if (fails) throw std::runtime_error("no probe");
  }
  ~Probe() override { ++*destroyed_; }
  int* destroyed_;
};

// Counting has two modes, which must count the same.
class PtrTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { Zavro::threadsActiveIs(GetParam()); }
  void TearDown() override { Zavro::threadsActiveIs(false); }
  int destroyed_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Modes, PtrTest, testing::Bool(),
                         [](const auto& mode) { return mode.param ? "Threaded" : "Plain"; });

TEST_P(PtrTest, NewObject_HasUseCountOne) { EXPECT_EQ(Zavro::makePtr<Probe>(&destroyed_)->useCount(), 1u); }

TEST_P(PtrTest, CopiesAndMoves_CountReferences_LastOneDestroys) {
  Zavro::Ptr<Probe> first = Zavro::makePtr<Probe>(&destroyed_);
  Zavro::Ptr<const Probe> second = first;
  EXPECT_EQ(first->useCount(), 2u);
  Zavro::Ptr<const Probe> third = std::move(second);
  EXPECT_EQ(first->useCount(), 2u);
  EXPECT_EQ(second, nullptr);
  first = nullptr;
  EXPECT_EQ(third->useCount(), 1u);
  EXPECT_EQ(destroyed_, 0);
  third.reset();
  EXPECT_EQ(destroyed_, 1);
}

TEST_P(PtrTest, SelfAssignment_KeepsTheObject) {
  Zavro::Ptr<Probe> probe = Zavro::makePtr<Probe>(&destroyed_);
  Zavro::Ptr<Probe>& same = probe;
  probe = same;
  EXPECT_EQ(probe->useCount(), 1u);
  EXPECT_EQ(destroyed_, 0);
}

TEST_P(PtrTest, CountOfAModeChange_CarriesOn) {
  Zavro::Ptr<Probe> probe = Zavro::makePtr<Probe>(&destroyed_);
  Zavro::threadsActiveIs(!GetParam());
  {
    Zavro::Ptr<Probe> other = probe;
    EXPECT_EQ(probe->useCount(), 2u);
  }
  EXPECT_EQ(probe->useCount(), 1u);
  probe.reset();
  EXPECT_EQ(destroyed_, 1);
}

TEST_P(PtrTest, ConstructorThatThrows_LeavesNothing) {
  EXPECT_THROW(Zavro::makePtr<Probe>(&destroyed_, true), std::runtime_error);
  EXPECT_EQ(destroyed_, 0);
}

TEST(PtrThreadsTest, ThreadsAreOff_UntilTheProcessSaysSo) { EXPECT_FALSE(Zavro::threadsActive()); }

TEST(PtrThreadsTest, ManyThreadsCopyOneReference_NoneIsLost) {
  int destroyed = 0;
  Zavro::threadsActiveIs(true);
  Zavro::Ptr<Probe> shared = Zavro::makePtr<Probe>(&destroyed);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([own = shared] {
      for (int i = 0; i < 20000; ++i) Zavro::Ptr<Probe> copy = own;
    });
  }
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  Zavro::threadsActiveIs(false);
  EXPECT_EQ(shared->useCount(), 1u);
  shared.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST(PtrThreadsTest, LastReferencesDropInManyThreads_OneDestroys_AfterAllWrites) {
  Zavro::threadsActiveIs(true);
  for (int round = 0; round < 200; ++round) {
    struct Board final : Zavro::Counted {
      explicit Board(int* out) : sum(out) {}
      ~Board() override { *sum = cells[0] + cells[1] + cells[2]; }
      int cells[3] = {0, 0, 0};
      int* sum;
    };
    int sum = 0;
    Zavro::Ptr<Board> board = Zavro::makePtr<Board>(&sum);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([t, own = board]() mutable {
        own->cells[t] = t + 1;
        own.reset();
      });
    }
    board.reset();
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(sum, 6);
  }
  Zavro::threadsActiveIs(false);
}

}  // namespace
