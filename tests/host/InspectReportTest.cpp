// Objects and their attributes, as the control protocol shows them.
#include "host/InspectReport.h"

#include <gtest/gtest.h>

#include "platform/hostresources/HostResources.h"
#include "platform/intfsnmp/IfMib.h"
#include "platform/kor/Dir.h"

namespace Host {
namespace {

struct Lamp final : Kor::Object {
  void flip() { ADD_FAILURE(); }
  static const Kor::Type& type() {
    static const Kor::Type type = Kor::TypeBuilder<Lamp>("Test::Lamp").operation("flip", &Lamp::flip).build();
    return type;
  }
  const Kor::Type& korType() const override { return type(); }
};

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
  std::string called(const std::string& path, const std::string& operation) const {
    std::string line;
    EXPECT_TRUE(callReport(objects_, path, operation)->next(line));
    return line;
  }

  Zavro::Ptr<IntfSnmp::IfMib> ifMib_ = Zavro::makePtr<IntfSnmp::IfMib>("theIfMib");
  Zavro::Ptr<Kor::Dir> members_ = Zavro::makePtr<Kor::Dir>("theMembers");
  Objects objects_;
};

TEST_F(InspectReportTest, NoPath_AllNames) {
  EXPECT_EQ(
      at(""),
      R"({"ok":true,"type":null,"attributes":{},"operations":[],"questions":[],"entities":["ifMib","members"]})");
}

TEST_F(InspectReportTest, Object_ItsTypeAndAttributes) {
  EXPECT_EQ(at("ifMib"),
            R"({"ok":true,"type":"IntfSnmp::IfMib","attributes":{"name":"theIfMib","ifIndexByIntfId":"1"},)"
            R"("operations":["ifIndexes"],"questions":["ifIndexes"],"entities":[]})");
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

TEST_F(InspectReportTest, Call_WhatOnlyReadsAndNothingElse) {
  objects_["lamp"] = Zavro::makePtr<Lamp>();
  EXPECT_EQ(called("ifMib", "ifIndexes"), R"({"ok":true,"result":"7 Backplane1/1\n"})");
  EXPECT_EQ(called("lamp", "flip"),
            R"({"ok":false,"error":"Test::Lamp's operation \"flip\" may change the object; expected an )"
            R"(operation that trelctl inspect lamp shows as a question"})");
  EXPECT_EQ(called("lamp", "x").find(R"({"ok":false,"error":"Test::Lamp has no operation \"x\"; exp)"), 0u);
  EXPECT_EQ(called("", "x").find(R"({"ok":false,"error":"found \"\", expected the path of an object)"), 0u);
}

}  // namespace
}  // namespace Host
