// How well a daemon serves, as trelctl judges it.
#include "programs/trelctl/Verdict.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace TrelCtl {
namespace {

// A daemon that follows a store, and with which all is well.
Json healthy() {
  return Json::parse(R"({"mode":"agentx","address":"unix:/m","connected":true,"ready":true,
      "sources":[{"name":"etcd:h:1/p","state":"current","paths":5,"setAside":0,"staleSince":null,"error":null}],
      "collectors":[{"source":"local","name":"users","state":"works","since":null,"error":null},
                    {"source":"local","name":"load","state":"starting","since":null,"error":null}],
      "stores":[{"source":"etcd:h:1/p","state":"watching","lastError":"h:1: refused","otherStore":null}],
      "members":[{"member":"1","leased":true,"heldSince":null,"clockAhead":0.1,"clockError":0.1}],
      "unread":[],"pipelines":[{"name":"p","ready":true,"idle":false}],"conflicts":[]})");
}

// The verdict, then each reason's code and text.
std::string judged(const Json& status) {
  Judgement judgement = judgementOf(status);
  std::string text = nameOf(judgement.verdict);
  for (const Reason& reason : judgement.reasons) {
    text += std::string("\n") + reason.code + ": " + reason.text;
  }
  return text;
}

TEST(VerdictTest, AllIsWell_Ok_AlsoAfterAnErrorThatIsOver) { EXPECT_EQ(judged(healthy()), "ok"); }

TEST(VerdictTest, ExitStatuses_AreThoseThatScriptsKnow) {
  EXPECT_EQ(exitStatusOf(Verdict::ok), 0);
  EXPECT_EQ(exitStatusOf(Verdict::degraded), 3);
  EXPECT_EQ(exitStatusOf(Verdict::notServing), 4);
}

TEST(VerdictTest, MembersThatAreNotThereOrNotExpected_Degraded) {
  Json status = healthy();
  status["cluster"] = Json::parse(R"([{"member":"1","name":"leaf-1","state":"present","since":"T"},
      {"member":"2","name":null,"state":"held","since":"T"},
      {"member":"3","name":"leaf-3","state":"lost","since":"T"},
      {"member":"4","name":null,"state":"expected","since":"T"},
      {"member":"5","name":null,"state":"silent","since":"T"},
      {"member":"6","name":null,"state":"unexpected","since":"T"}])");
  EXPECT_EQ(
      judged(status),
      "degraded\n"
      "memberLost: member 3 (leaf-3) is lost since T: it has no rows until it is back\n"
      "memberExpected: member 4 belongs to the cluster, and has not been there: start trelmemberd there\n"
      "memberSilent: member 5 says nothing any more since T, although its lease lives\n"
      "memberUnexpected: member 6 is not among those who are expected: trelctl put expected/6 '{}', or "
      "end it");
}

TEST(VerdictTest, LinksWithAFault_Degraded_OneReasonForEachVerdict) {
  Json status = healthy();
  status["links"] = Json::parse(R"({"ok":7,"miswired":0,"down":1,"oneSided":10,"newer":2})");
  status["linkFaults"] = Json::array();
  for (int high = 2; high <= 11; ++high)
    status["linkFaults"].push_back({{"low", "1"}, {"high", std::to_string(high)}, {"verdict", "oneSided"}});
  status["linkFaults"].push_back({{"low", "2"}, {"high", "3"}, {"verdict", "down"}});
  EXPECT_EQ(
      judged(status),
      "degraded\n"
      "linkFault: link 2-3 is down: an end cannot reach the other, and none says that it can\n"
      "linkFault: links 1-2, 1-3, 1-4, 1-5, 1-6, 1-7, 1-8, 1-9 and 2 more are oneSided: one end knows of "
      "the link, the other does not say so\n"
      "linkFault: 2 links are newer");
}

TEST(VerdictTest, WithoutMaster_NotServing) {
  Json status = healthy();
  status["connected"] = false;
  EXPECT_EQ(
      judged(status),
      "not serving\n"
      "notConnected: not connected to the master agent at unix:/m: start it, and see that it listens there");
}

TEST(VerdictTest, StillLoadingOrPipelineNotReady_NotServing) {
  Json status = healthy();
  status["sources"][0]["state"] = "loading";
  status["sources"][0]["paths"] = 0;
  status["pipelines"][0]["ready"] = false;
  EXPECT_EQ(judged(status),
            "not serving\n"
            "loading: source etcd:h:1/p is still loading\n"
            "pipeline: pipeline p is not ready");
}

TEST(VerdictTest, StoreIsLost_DegradedSinceThen) {
  Json status = healthy();
  status["sources"][0].update({{"state", "held"}, {"error", "h:1: refused"}});
  EXPECT_EQ(judged(status),
            "degraded\nheld: source etcd:h:1/p is held, and what it said last is served: h:1: refused");
  status["sources"][0].update({{"state", "stale"}, {"staleSince", "2026-01-31T00:00:00Z"}});
  EXPECT_EQ(
      judged(status),
      "degraded\nstale: source etcd:h:1/p is stale since 2026-01-31T00:00:00Z, and what it said last is "
      "served: h:1: refused");
}

TEST(VerdictTest, PrefixWithoutValues_NotServing_DegradedWhereAnotherSourceHasSome) {
  Json status = healthy();
  status["sources"][0]["paths"] = 0;
  const std::string text =
      "noValues: source etcd:h:1/p has no values: see that the prefix is the publishers', and that "
      "trelmemberd "
      "runs on the members";
  EXPECT_EQ(judged(status), "not serving\n" + text);
  status["sources"].push_back({{"name", "local"}, {"state", "current"}, {"paths", 3}, {"error", nullptr}});
  EXPECT_EQ(judged(status), "degraded\n" + text);
  status["sources"][1]["paths"] = 0;
  EXPECT_EQ(judged(status), "not serving\n" + text + "\nnoValues: source local has no values");
}

TEST(VerdictTest, ValuesSetAsideOrCollectorsThatFail_Degraded) {
  Json status = healthy();
  status["sources"][0].update({{"state", "partial"}, {"setAside", 2}, {"error", "p/sysname: found 1"}});
  status["collectors"][0].update({{"state", "hangs"}, {"since", "T"}, {"error", "no answer"}});
  status["unread"].push_back(
      {{"member", "7"}, {"collector", "mount /a"}, {"state", "fails"}, {"since", "T"}, {"error", "gone"}});
  EXPECT_EQ(judged(status),
            "degraded\n"
            "setAside: source etcd:h:1/p: 2 values are set aside: p/sysname: found 1\n"
            "collector: collector users hangs since T: no answer\n"
            "unread: member 7: collector mount /a fails since T: gone");
  status = healthy();
  status["sources"][0].update({{"state", "partial"}, {"error", "no index for /a"}});
  EXPECT_EQ(judged(status), "degraded\npartial: source etcd:h:1/p: no index for /a");
  // Once, not twice.
  status["collectors"][0].update({{"source", "etcd:h:1/p"}, {"state", "fails"}, {"error", "gone"}});
  EXPECT_EQ(judged(status), "degraded\ncollector: collector users fails: gone");
}

TEST(VerdictTest, MembersWithoutALease_AreNamedTogether_OneThatIsHeldByItself) {
  Json status = healthy();
  status["members"][0]["leased"] = false;
  EXPECT_EQ(judged(status),
            "degraded\nnoLease: member 1 has no lease, so the rows stay when the member is gone: start "
            "trelmemberd there, or trelctl forget them");
  status["members"].push_back({{"member", "2"}, {"leased", false}});
  status["members"].push_back({{"member", "3"}, {"leased", false}, {"heldSince", "T"}});
  EXPECT_EQ(
      judged(status),
      "degraded\n"
      "memberHeld: member 3: its lease has ended, or somebody deleted keys of it; their rows are held since "
      "T\n"
      "noLease: members 1, 2 have no lease, so the rows stay when the member is gone: start trelmemberd "
      "there, or trelctl forget them");
}

TEST(VerdictTest, ClockThatIsOff_ByMoreThanItsError_Degraded) {
  Json status = healthy();
  status["members"][0].update({{"clockAhead", -8.0}, {"clockError", 3.0}});
  EXPECT_EQ(judged(status), "ok");
  status["members"][0]["clockError"] = 2.9;
  EXPECT_EQ(judged(status),
            "degraded\nclock: member 1: its clock is 8 s behind this machine's: see to the time service");
  status["members"][0].update({{"clockAhead", nullptr}, {"clockError", nullptr}});
  EXPECT_EQ(judged(status), "ok");
}

TEST(VerdictTest, OtherStoreAndConflicts_Degraded_WorseReasonsFirst) {
  Json status = healthy();
  status["stores"][0]["otherStore"] = "h:1: found store 2, expected 1";
  status["conflicts"].push_back({{"pipeline", "p"}, {"conflict", "ifIndex 7 is given to several links"}});
  status["connected"] = false;
  EXPECT_EQ(
      judged(status),
      "not serving\n"
      "notConnected: not connected to the master agent at unix:/m: start it, and see that it listens there\n"
      "otherStore: source etcd:h:1/p: h:1: found store 2, expected 1\n"
      "conflict: ifIndex 7 is given to several links");
}

TEST(VerdictTest, AsJson_HasVerdictAndReasons) {
  EXPECT_EQ(asJson(Judgement{Verdict::degraded, {{Verdict::degraded, "held", "a"}}}).dump(),
            R"({"verdict":"degraded","reasons":[{"code":"held","verdict":"degraded","text":"a"}]})");
}

}  // namespace
}  // namespace TrelCtl
