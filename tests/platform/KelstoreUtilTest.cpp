#include "platform/snmp/KelstoreUtil.h"

#include <gmock/gmock.h>

#include "platform/snmp/Status.h"
#include "tests/support/Reflection.h"

namespace {

using testing::ElementsAre;

class KelstoreUtilTest : public testing::Test {
 protected:
  ~KelstoreUtilTest() override { Snmp::KelstoreUtil::rootIs(nullptr, nullptr); }
  Zavro::Ptr<Kor::Dir> root_ = Zavro::makePtr<Kor::Dir>("root");
  Zavro::Ptr<Snmp::Config> config_ = Zavro::makePtr<Snmp::Config>("switch1");
};

TEST_F(KelstoreUtilTest, WithoutARoot_NothingIsFound) {
  EXPECT_EQ(Snmp::KelstoreUtil::getSnmpConfig(), nullptr);
  EXPECT_EQ(Snmp::KelstoreUtil::getEntityRelative("snmp"), nullptr);
  EXPECT_EQ(Snmp::KelstoreUtil::absolutePath("snmp/trel/trelMib"), "//snmp/trel/trelMib");
}

TEST_F(KelstoreUtilTest, FindsConfigurationAndEntities_RelativeToTheRoot) {
  Zavro::Ptr<Kor::Dir> snmp = Zavro::makePtr<Kor::Dir>("snmp");
  snmp->entityPtrIs(config_);
  root_->entityPtrIs(snmp);
  Snmp::KelstoreUtil::rootIs(root_, config_);
  EXPECT_EQ(Snmp::KelstoreUtil::getSnmpConfig(), config_);
  EXPECT_EQ(Snmp::KelstoreUtil::getEntityRelative("snmp/snmpConfig"), config_);
  EXPECT_EQ(Snmp::KelstoreUtil::getEntityRelative("snmp/trel"), nullptr);
  EXPECT_EQ(Snmp::KelstoreUtil::absolutePath("snmp/trel/trelMib"), "/switch1/snmp/trel/trelMib");
}

TEST_F(KelstoreUtilTest, ForgottenRoot_IsReleased) {
  Snmp::KelstoreUtil::rootIs(root_, config_);
  EXPECT_EQ(root_->useCount(), 2u);
  Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
  EXPECT_EQ(root_->useCount(), 1u);
  EXPECT_EQ(config_->useCount(), 1u);
}

TEST_F(KelstoreUtilTest, ConfigTypeInformation) {
  EXPECT_EQ(config_->korType().name(), "Snmp::Config");
  EXPECT_THAT(attributeNames(config_->korType()), ElementsAre("name", "sysname"));
  EXPECT_EQ(Kor::attribute(*config_, "name"), "snmpConfig");
  EXPECT_EQ(Kor::attribute(*config_, "sysname"), "switch1");
}

TEST(MibContextTest, Modules_AnnounceEachContextOfTheirs) {
  EXPECT_FALSE(Snmp::mibContextRegistered("", "moduleA"));
  Snmp::registerMibContext("", "moduleA");
  Snmp::registerMibContext("", "moduleA");
  Snmp::registerMibContext("blue", "moduleB");
  EXPECT_TRUE(Snmp::mibContextRegistered("", "moduleA"));
  EXPECT_FALSE(Snmp::mibContextRegistered("", "moduleB"));
  EXPECT_FALSE(Snmp::mibContextRegistered("blue", "moduleA"));
  Snmp::unregisterMibContext("", "moduleA");
  EXPECT_FALSE(Snmp::mibContextRegistered("", "moduleA"));
  EXPECT_TRUE(Snmp::mibContextRegistered("blue", "moduleB"));
  Snmp::unregisterMibContext("blue", "moduleB");
  Snmp::unregisterMibContext("blue", "moduleB");
  EXPECT_FALSE(Snmp::mibContextRegistered("blue", "moduleB"));
}

TEST(StatusTest, NotifiesWhenTheFlagChanges_AndOnlyThen) {
  Zavro::Ptr<Snmp::Status> status = Zavro::makePtr<Snmp::Status>("status");
  std::string log;
  Kor::Subscription subscription =
      status->subscribeInitialized([&] { log += status->initialized() ? "up " : "down "; });
  EXPECT_FALSE(status->initialized());
  status->initializedIs(false);
  status->initializedIs(true);
  status->initializedIs(true);
  status->initializedIs(false);
  EXPECT_EQ(log, "up down ");
}

TEST(StatusTest, TypeInformation) {
  Zavro::Ptr<Snmp::Status> status = Zavro::makePtr<Snmp::Status>("status");
  EXPECT_EQ(status->korType().name(), "Snmp::Status");
  EXPECT_THAT(attributeNames(status->korType()), ElementsAre("name", "initialized"));
  EXPECT_EQ(Kor::attribute(*status, "initialized"), "false");
  status->initializedIs(true);
  EXPECT_EQ(Kor::attribute(*status, "initialized"), "true");
}

}  // namespace
