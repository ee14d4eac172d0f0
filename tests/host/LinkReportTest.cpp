// The links as a daemon answers with them.
#include "host/LinkReport.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace Host {
namespace {

using Json = nlohmann::json;
using Trel::MemberId;

TEST(LinkReportTest, WhatEachEndSays_NullForWhatIsNotKnown) {
  Health::Links links;
  Lanix::IntfId port("Backplane1/2");
  links.ifIndexIs(port, 1002);
  links.wiredIs(MemberId(1), MemberId(2), port);
  links.reportIs(MemberId(1), MemberId(2),
                 Zavro::makePtr<const Trel::ReachabilityState>(Trel::ReachabilityState::degraded, port,
                                                               1'767'225'612'000'000'000));
  links.look(1'767'225'613'000'000'000);
  auto reply = linkReport(links);
  std::string line;
  ASSERT_TRUE(reply->next(line));
  EXPECT_EQ(
      line,
      R"({"ok":true,"links":[{"low":"1","high":"2","verdict":"oneSided","since":"2026-01-01T00:00:13.000Z",)"
      R"("changes":0,"ends":[{"interface":"Backplane1/2","ifIndex":1002,"state":"degraded",)"
      R"("lastChange":"2026-01-01T00:00:12.000Z","changes":0},{"interface":null,"ifIndex":null,"state":null,)"
      R"("lastChange":null,"changes":0}]}]})");
  ASSERT_TRUE(reply->next(line));
  EXPECT_EQ(line, R"({"ok":true,"done":true})");
  EXPECT_FALSE(reply->next(line));
}

TEST(LinkReportTest, ManyLinks_AreSeveralLines_AlsoWhileTheyChange) {
  Health::Links links;
  for (uint8_t member = 1; member < 200; ++member)
    links.wiredIs(MemberId(0), MemberId(member), Lanix::IntfId("Backplane1"));
  links.look(1);
  auto reply = linkReport(links);
  int next = 1;
  size_t lines = 0;
  std::string line;
  while (reply->next(line)) {
    Json answer = Json::parse(line);
    if (answer.contains("done")) break;
    ++lines;
    for (const Json& link : answer.at("links")) EXPECT_EQ(link.at("high"), std::to_string(next++));
    // The last one that was told goes.
    links.wiredIs(MemberId(0), MemberId(static_cast<uint8_t>(next - 1)), std::nullopt);
    links.look(2);
  }
  EXPECT_EQ(lines, 4);
  EXPECT_EQ(next, 200);
}

}  // namespace
}  // namespace Host
