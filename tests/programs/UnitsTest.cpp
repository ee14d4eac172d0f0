// Values of the tables as people read them.
#include "programs/trelctl/Units.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace TrelCtl {
namespace {

std::string shown(const char* row) { return readable(Json::parse(row)).dump(); }

TEST(UnitsTest, Sizes_InTheLargestUnitOfWhichThereIsOne) {
  EXPECT_EQ(sizeText(0), "0 B");
  EXPECT_EQ(sizeText(1023), "1023 B");
  EXPECT_EQ(sizeText(4096), "4 KiB");
  EXPECT_EQ(sizeText(1536.0 * 1024 * 1024), "1.5 GiB");
  EXPECT_EQ(sizeText(1024.0 * 1024 * 1024 * 1024 * 1024 * 1024 * 9), "9216 PiB");
}

TEST(UnitsTest, TimesAndDates) {
  EXPECT_EQ(
      shown(R"({"memberId":1,"upTime":8640150,"date":"2026-1-1,0:0:1.0,+2:30","memorySize":8388608})"),
      R"({"memberId":1,"upTime":"1 d 0:00:01","date":"2026-01-01 00:00:01 +02:30","memorySize":"8 GiB"})");
  EXPECT_EQ(shown(R"({"date":"2026-12-31,23:59:59.9"})"), R"({"date":"2026-12-31 23:59:59"})");
  EXPECT_EQ(shown(R"({"date":"never"})"), R"({"date":"never"})");
}

TEST(UnitsTest, Loads_ArePerCent_AlsoNegativeOnes) {
  EXPECT_EQ(shown(R"({"memberId":1,"index":2,"load":-1})"), R"({"memberId":1,"index":2,"load":"-1 %"})");
}

TEST(UnitsTest, States_AreNamed_OneWithoutANameStaysANumber) {
  EXPECT_EQ(shown(R"({"state":3,"stateName":"reachable","lastUpdate":6000})"),
            R"({"state":"reachable","lastUpdate":"0:01:00"})");
  EXPECT_EQ(shown(R"({"state":3,"stateName":null})"), R"({"state":3})");
}

TEST(UnitsTest, Storage_InBytesOfItsUnits_AndHowFullItIs) {
  EXPECT_EQ(
      shown(
          R"({"index":31,"type":"1.3.6.1.2.1.25.2.1.4","descr":"/","allocUnits":4096,"size":5242880,"used":1310720})"),
      R"({"index":31,"type":"fixed disk","descr":"/","allocUnits":"4 KiB","size":"20 GiB","used":"5 GiB","full":"25 %"})");
  EXPECT_EQ(shown(R"({"type":"1.3.6.1.2.1.25.2.1.10","size":0,"used":0})"),
            R"({"type":"network disk","size":0,"used":0,"full":null})");
  EXPECT_EQ(shown(R"({"type":"1.3.6.1.2.1.25.2.1.11"})"), R"({"type":"1.3.6.1.2.1.25.2.1.11"})");
}

TEST(UnitsTest, ValuesThatAreNotServed_StayNull) {
  EXPECT_EQ(
      shown(R"({"upTime":null,"date":null,"load":null,"allocUnits":null,"size":null,"used":null})"),
      R"({"upTime":null,"date":null,"load":null,"allocUnits":null,"size":null,"used":null,"full":null})");
}

}  // namespace
}  // namespace TrelCtl
