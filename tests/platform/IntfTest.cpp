#include <gmock/gmock.h>

#include <thread>
#include <vector>

#include "platform/intfsnmp/IfMib.h"
#include "platform/lanix/IntfId.h"
#include "tests/support/Reflection.h"

namespace {

using Lanix::BackplaneChannelIntfId;
using Lanix::IntfId;

TEST(IntfIdTest, IsItsName_DefaultIsTheEmptyOne) {
  EXPECT_EQ(IntfId().name(), "");
  EXPECT_EQ(IntfId(""), IntfId());
  EXPECT_EQ(IntfId("Backplane1/2").text(), "Backplane1/2");
  EXPECT_LT(IntfId("Backplane1"), IntfId("Backplane2"));
  EXPECT_EQ(fmt::format("{}", IntfId("Management1")), "Management1");
}

TEST(IntfIdTest, SameNameMadeTwice_IsKeptOnce) {
  IntfId first("Backplane1/2");
  const std::string* name = &first.name();
  IntfId second(std::string("Backplane1/") + "2");
  EXPECT_EQ(&second.name(), name);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first <=> second, std::strong_ordering::equal);
  IntfId copy = first;
  first = IntfId("Backplane1/3");
  second = first;
  EXPECT_EQ(&copy.name(), name);
  EXPECT_EQ(copy.name(), "Backplane1/2");
  EXPECT_NE(copy, first);
}

TEST(IntfIdTest, MovedFrom_IsTheEmptyName) {
  IntfId id("Backplane1/2");
  IntfId other = std::move(id);
  EXPECT_EQ(id, IntfId());  // NOLINT(bugprone-use-after-move): what is promised
  EXPECT_EQ(other.name(), "Backplane1/2");
}

TEST(IntfIdTest, ThreadsMakeAndDropTheSameNames_EachHasItsOwn) {
  auto churn = [] {
    for (int i = 0; i < 2000; ++i) {
      std::string name = "Backplane" + std::to_string(i % 7);
      IntfId made(name);
      IntfId copy = made;
      made = IntfId();
      ASSERT_EQ(copy.name(), name);
      ASSERT_EQ(copy, IntfId(name));
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(churn);
  for (std::thread& thread : threads) thread.join();
}

TEST(BackplaneChannelIntfIdTest, BackplaneAndADigit_IsOne) {
  for (const char* name : {"Backplane0", "Backplane9", "Backplane1/2", "Backplane12/34/5", "Backplane1x"}) {
    EXPECT_TRUE(BackplaneChannelIntfId::isBackplaneChannelIntfId(IntfId(name))) << name;
  }
}

TEST(BackplaneChannelIntfIdTest, EverythingElse_IsNone) {
  for (const char* name :
       {"", "Backplane", "Backplane/1", "Backplane 1", "Backplanes1", "backplane1", "BACKPLANE1",
        " Backplane1", "Ethernet1", "Backplan1", "1Backplane", "Backplane:", "Backplane-1"}) {
    EXPECT_FALSE(BackplaneChannelIntfId::isBackplaneChannelIntfId(IntfId(name))) << name;
  }
}

TEST(IfMibTest, KnowsTheIndexOfAnInterface) {
  auto ifMib = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  ifMib->ifIndexByIntfId().set(IntfId("Backplane1/2"), 4294967295u);
  const IntfSnmp::IfMib& read = *ifMib;
  EXPECT_EQ(*read.ifIndexByIntfId().find(IntfId("Backplane1/2")), 4294967295u);
  EXPECT_EQ(read.ifIndexByIntfId().find(IntfId()), nullptr);
  EXPECT_EQ(ifMib->korType().name(), "IntfSnmp::IfMib");
  EXPECT_THAT(attributeNames(ifMib->korType()), testing::ElementsAre("name", "ifIndexByIntfId"));
  EXPECT_EQ(Kor::attribute(*ifMib, "name"), "ifMib");
  EXPECT_EQ(Kor::attribute(*ifMib, "ifIndexByIntfId"), "1");
}

}  // namespace
