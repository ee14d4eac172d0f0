#include "platform/kor/Publication.h"

#include <gtest/gtest.h>

#include "platform/hostresources/HostResources.h"
#include "platform/kor/Dir.h"
#include "platform/snmp/Status.h"

namespace {

constexpr const char* kEnd = "Assertion `!underWay_ && \"changed during publication\"' failed";

// What others may be looking at while it is published.
class PublicationDeathTest : public testing::Test {
 protected:
  PublicationDeathTest() {
    host_.processorTable().set(1, nullptr);
    dir_->entityPtrIs(Zavro::makePtr<Kor::Dir>("inner"));
  }

  HostResources::HostResources host_{"1"};
  Zavro::Ptr<Kor::Dir> dir_ = Zavro::makePtr<Kor::Dir>("dir");
  Snmp::Status status_{"status"};
};

TEST_F(PublicationDeathTest, WhateverChangesWithinOne_EndsTheProcess) {
  Kor::Publication publication;
  EXPECT_DEATH(host_.processorTable().set(2, nullptr), kEnd);
  EXPECT_DEATH(host_.processorTable().del(1), kEnd);
  EXPECT_DEATH(host_.memInfoIs(nullptr), kEnd);
  EXPECT_DEATH(host_.systemIs({}), kEnd);
  EXPECT_DEATH(dir_->entityPtrDel("inner"), kEnd);
  EXPECT_DEATH(status_.initializedIs(true), kEnd);
  EXPECT_DEATH(Kor::invoke(*dir_, "anything"), kEnd);
  EXPECT_DEATH(Kor::attributeIs(*dir_, "name", "other"), kEnd);
  EXPECT_DEATH(Kor::Publication inner, kEnd);
}

TEST_F(PublicationDeathTest, Reading_IsWhatOneIsFor) {
  Kor::Publication publication;
  EXPECT_TRUE(host_.processorTable().begin());
  EXPECT_EQ(Kor::attribute(*dir_, "entityPtr"), "1");
}

TEST_F(PublicationDeathTest, WhenItIsOver_EverythingChangesAsUsual) {
  { Kor::Publication publication; }
  { Kor::Publication next; }
  EXPECT_TRUE(host_.processorTable().del(1));
}

}  // namespace
