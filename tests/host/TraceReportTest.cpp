// Levels of traces, as the control protocol shows and sets them.
#include "host/TraceReport.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "platform/lumalog/Lumalog.h"

namespace Host {
namespace {

using nlohmann::json;
using testing::HasSubstr;

const Lumalog::Handle handle("TraceReportTest");

class TraceReportTest : public testing::Test {
 protected:
  TraceReportTest() { Lumalog::levelsReset(); }
  ~TraceReportTest() override { Lumalog::levelsReset(); }
  static std::string answerTo(const char* request) {
    std::string line;
    EXPECT_TRUE(traceReport(json::parse(request))->next(line));
    return line;
  }
};

TEST_F(TraceReportTest, ListsHandlesWithTheirLevels) {
  EXPECT_THAT(answerTo("{}"), HasSubstr(R"({"handle":"TraceReportTest","level":1})"));
}

TEST_F(TraceReportTest, SetsALevel_AndShowsIt) {
  EXPECT_THAT(answerTo(R"({"handle": "TraceReportTest", "level": 9})"),
              HasSubstr(R"({"handle":"TraceReportTest","level":9})"));
  EXPECT_TRUE(handle.enabled(9));
  answerTo(R"({"handle": "TraceReportTest", "level": 0})");
  EXPECT_FALSE(handle.enabled(1));
}

TEST_F(TraceReportTest, Star_IsEveryHandleWithoutALevelOfItsOwn) {
  answerTo(R"({"handle": "*", "level": 5})");
  EXPECT_TRUE(handle.enabled(5));
}

TEST_F(TraceReportTest, UnknownHandle_IsRefusedWithTheNearest) {
  EXPECT_EQ(
      answerTo(R"({"handle": "traceReportTset", "level": 9})"),
      R"({"ok":false,"error":"found \"traceReportTset\", expected a handle, such as \"TraceReportTest\""})");
  EXPECT_THAT(answerTo(R"({"handle": "zzz", "level": 9})"),
              HasSubstr("expected a handle; trelctl trace lists them"));
}

TEST_F(TraceReportTest, WrongRequest_IsRefused_AndNothingIsSet) {
  for (const char* request :
       {R"({"handle": 1, "level": 1})", R"({"handle": "TraceReportTest"})",
        R"({"handle": "TraceReportTest", "level": 10})", R"({"handle": "TraceReportTest", "level": -1})",
        R"({"handle": "TraceReportTest", "level": "9"})"})
    EXPECT_EQ(answerTo(request),
              R"({"ok":false,"error":"expected \"handle\": a string, and \"level\": 0 to 9"})")
        << request;
  EXPECT_FALSE(handle.enabled(2));
}

}  // namespace
}  // namespace Host
