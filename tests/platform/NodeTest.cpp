#include "platform/zavro/Node.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

namespace {

// Notes what its reactors see when they are evaluated again.
class Reacting final : public Zavro::Node {
 public:
  const Kor::Type& korType() const override {
    static const Kor::Type type("Reacting");
    return type;
  }
  using Node::korDoZombieReactors;
  std::string log;
  std::function<void()> within = [] {};

 private:
  void onZombieReactors() override {
    log += hasNotificationActive() ? "active" : "inactive";
    log += hasZombieReactors() ? "+zombies " : " ";
    std::exchange(within, [] {})();
  }
};

TEST(NodeTest, StartsInactive) {
  Zavro::Ptr<Reacting> node = Zavro::makePtr<Reacting>();
  EXPECT_FALSE(node->hasNotificationActive());
  EXPECT_FALSE(node->hasZombieReactors());
}

TEST(NodeTest, ChangeOfTheFlag_PulsesZombieReactors_OnceEach) {
  Zavro::Ptr<Reacting> node = Zavro::makePtr<Reacting>();
  node->hasNotificationActiveIs(true);
  node->hasNotificationActiveIs(true);
  EXPECT_FALSE(node->hasZombieReactors());
  node->hasNotificationActiveIs(false);
  EXPECT_EQ(node->log, "active+zombies inactive+zombies ");
}

TEST(NodeTest, ZombieReactorsThatWereOn_StayOn_AndAreEvaluatedAgain) {
  Zavro::Ptr<Reacting> node = Zavro::makePtr<Reacting>();
  node->korDoZombieReactors(true);
  node->hasNotificationActiveIs(true);
  EXPECT_TRUE(node->hasZombieReactors());
  EXPECT_EQ(node->log, "inactive+zombies active+zombies ");
}

// A node that is made inactive by what its becoming active led to.
TEST(NodeTest, FlagThatChangesWithinAnEvaluation_IsEvaluatedAtOnce) {
  Zavro::Ptr<Reacting> node = Zavro::makePtr<Reacting>();
  node->within = [&] { node->hasNotificationActiveIs(false); };
  node->hasNotificationActiveIs(true);
  EXPECT_FALSE(node->hasNotificationActive());
  EXPECT_FALSE(node->hasZombieReactors());
  EXPECT_EQ(node->log, "active+zombies inactive+zombies ");
}

}  // namespace
