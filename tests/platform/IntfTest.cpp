#include <gmock/gmock.h>

#include "intfsnmp/IfMib.h"
#include "lanix/IntfId.h"
#include "support/Reflection.h"

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
