// Objects and their attributes, as the control protocol shows them.
#include "host/InspectReport.h"

#include <gtest/gtest.h>

#include "platform/hostresources/HostResources.h"
#include "platform/intfsnmp/IfMib.h"
#include "platform/kor/Dir.h"

namespace Host {
namespace {

class InspectReportTest : public testing::Test {
 protected:
  InspectReportTest() {
    ifMib_->ifIndexByIntfId().set(Lanix::IntfId("Backplane1/1"), 7);
    members_->entityPtrIs("3", Zavro::makePtr<HostResources::HostResources>("3"));
    objects_ = {{"ifMib", ifMib_}, {"members", members_}};
  }
  std::string at(const std::string& path) const {
    std::string line;
    EXPECT_TRUE(inspectReport(objects_, path)->next(line));
    return line;
  }

  Zavro::Ptr<IntfSnmp::IfMib> ifMib_ = Zavro::makePtr<IntfSnmp::IfMib>("theIfMib");
  Zavro::Ptr<Kor::Dir> members_ = Zavro::makePtr<Kor::Dir>("theMembers");
  Objects objects_;
};

TEST_F(InspectReportTest, NoPath_AllNames) {
  EXPECT_EQ(at(""),
            R"({"ok":true,"type":null,"attributes":{},"operations":[],"entities":["ifMib","members"]})");
}

TEST_F(InspectReportTest, Object_ItsTypeAndAttributes) {
  EXPECT_EQ(at("ifMib"),
            R"({"ok":true,"type":"IntfSnmp::IfMib","attributes":{"name":"theIfMib","ifIndexByIntfId":"1"},)"
            R"("operations":[],"entities":[]})");
}

TEST_F(InspectReportTest, Directory_AndAnEntityOfIt) {
  EXPECT_NE(at("members").find(R"("entities":["3"])"), std::string::npos);
  EXPECT_NE(at("members/3").find(R"("type":"HostResources::HostResources","attributes":{"name":"3",)"),
            std::string::npos);
}

TEST_F(InspectReportTest, NoSuchObject_IsSaid) {
  for (const char* path : {"x", "members/4", "members/", "ifMib/x", "/"})
    EXPECT_EQ(at(path), std::string(R"({"ok":false,"error":"found \")") + path +
                            R"(\", expected the path of an object; trelctl inspect lists them"})")
        << path;
}

}  // namespace
}  // namespace Host
