#include "platform/rvx/Registry.h"

#include <gtest/gtest.h>

#include "platform/kor/Dir.h"

namespace {

class RegistryTest : public testing::Test {
 protected:
  ~RegistryTest() override {
    while (!state_.registry().empty()) state_.delFromRegistry(state_.registry().begin()->first);
  }
  Rvx::RegistryKey key(const char* sourcePath, const char* targetPath) const {
    return Rvx::RegistryKey::make(source_, sourcePath, target_, targetPath);
  }
  Zavro::Ptr<const Kor::Object> source_ = Zavro::makePtr<Kor::Dir>("source");
  Zavro::Ptr<const Kor::Object> target_ = Zavro::makePtr<Kor::Dir>("target");
  Rvx::GlobalState& state_ = Rvx::GlobalState::get();
};

TEST_F(RegistryTest, Key_KeepsItsPartsAndHoldsItsNodes) {
  {
    Rvx::RegistryKey made = key("memInfo", "memEntries[]");
    EXPECT_EQ(made.source(), source_);
    EXPECT_EQ(made.sourcePath(), "memInfo");
    EXPECT_EQ(made.target(), target_);
    EXPECT_EQ(made.targetPath(), "memEntries[]");
    EXPECT_EQ(source_->useCount(), 2u);
  }
  EXPECT_EQ(source_->useCount(), 1u);
}

TEST_F(RegistryTest, KeysAreEqual_WhenAllFourPartsAre) {
  EXPECT_EQ(key("a", "b"), key("a", "b"));
  EXPECT_NE(key("a", "b"), key("a", "c"));
  EXPECT_NE(key("a", "b"), key("c", "b"));
  EXPECT_NE(key("a", "b"), Rvx::RegistryKey::make(target_, "a", source_, "b"));
  EXPECT_FALSE(key("a", "b") < key("a", "b"));
  EXPECT_TRUE(key("a", "b") < key("a", "c"));
}

TEST_F(RegistryTest, OneRegistryPerProcess_KnowsWhatWasAdded) {
  EXPECT_FALSE(state_.checkRegistry(key("a", "b")));
  state_.addToRegistry(key("a", "b"));
  state_.addToRegistry(key("a", "b"));
  state_.addToRegistry(key("a", "c"));
  EXPECT_TRUE(Rvx::GlobalState::get().checkRegistry(key("a", "b")));
  EXPECT_FALSE(state_.checkRegistry(key("b", "b")));
  EXPECT_EQ(state_.registry().size(), 2u);
}

TEST_F(RegistryTest, AddedTwice_StaysUntilItWasDeletedTwice) {
  state_.addToRegistry(key("a", "b"));
  state_.addToRegistry(key("a", "b"));
  state_.delFromRegistry(key("a", "b"));
  EXPECT_TRUE(state_.checkRegistry(key("a", "b")));
  state_.delFromRegistry(key("a", "b"));
  EXPECT_FALSE(state_.checkRegistry(key("a", "b")));
  state_.delFromRegistry(key("a", "b"));
  EXPECT_EQ(source_->useCount(), 1u);
  EXPECT_EQ(target_->useCount(), 1u);
}

}  // namespace
