// What trelctl prints for people.
#include "programs/trelctl/Render.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "programs/trelctl/Verdict.h"

namespace TrelCtl {
namespace {

TEST(RenderTest, TableIsAligned_NumbersToTheRight) {
  Json rows = Json::parse(R"([{"srcId":1,"state":"reachable","n":10},{"srcId":255,"state":"up","n":null}])");
  EXPECT_EQ(renderTable("t", rows),
            "t:\n"
            "  srcId  state      n\n"
            "      1  reachable  10\n"
            "    255  up         -\n");
}

TEST(RenderTest, TextBeyondAscii_TakesTheRoomOfItsCharacters) {
  Json rows = Json::parse(R"([{"descr":"/größe","size":1},{"descr":"/data","size":20}])");
  EXPECT_EQ(renderTable("t", rows),
            "t:\n"
            "  descr   size\n"
            "  /größe     1\n"
            "  /data     20\n");
}

TEST(RenderTest, ControlCharacters_AreEscaped_InNamesAndValues) {
  Json rows = Json::parse(R"([{"de\u001bscr":"a\u0000\u009b\u202eb","size":1}])");
  EXPECT_EQ(renderTable("t\x7f", rows),
            "t\\x7f:\n"
            "  de\\x1bscr           size\n"
            "  a\\x00\\u009b\\u202eb     1\n");
  EXPECT_EQ(renderTable("t\n", Json::array()), "t\\x0a: empty\n");
}

TEST(RenderTest, EmptyTable_SaysSo) { EXPECT_EQ(renderTable("t", Json::array()), "t: empty\n"); }

TEST(RenderTest, Status_OneLineAndTheListsWithErrorsBelow) {
  Json status = Json::parse(R"({"daemon":"trelsnmpd","version":"0.1.0","member":3,"uptimeSeconds":93784.5,
      "mode":"agentx","address":"unix:/m","connected":false,"ready":false,"log":{"waiting":1,"leftOut":20,"lost":3},
      "sources":[{"name":"file:/x","state":"stale","error":"/x: bad"},{"name":"embedded","state":"current","error":null}],
      "collectors":[{"name":"users","state":"works","error":null},{"name":"mount /a","state":"hangs","error":"no answer"}],
      "stores":[],"storeCounters":[],"setAside":[],"members":[],
      "unread":[{"member":"7","collector":"mount /a","state":"hangs","since":"2026-01-31T23:59:59.123Z","error":"no answer"}],
      "pipelines":[{"name":"p","ready":true,"idle":false}],
      "conflicts":[{"pipeline":"p","conflict":"index 7 twice"}],"tasks":[],
      "tables":[{"name":"t","rows":2,"version":7}]})");
  EXPECT_EQ(renderStatus(status, {}, Shown::all),
            "ok\n\n"
            "trelsnmpd 0.1.0, member 3, up 1 d 2:03:04, agentx at unix:/m (not connected), not ready\n"
            "log: 20 lines left out, 3 lost, 1 waiting\n"
            "\nsources:\n"
            "  name      state\n"
            "  file:/x   stale\n"
            "  embedded  current\n"
            "  error: /x: bad\n"
            "\ncollectors:\n"
            "  name      state  error\n"
            "  users     works  -\n"
            "  mount /a  hangs  no answer\n"
            "\nunread, with figures as old as this:\n"
            "  member  collector  state  since                     error\n"
            "       7  mount /a   hangs  2026-01-31T23:59:59.123Z  no answer\n"
            "\npipelines:\n"
            "  name  ready  idle\n"
            "  p     yes    no\n"
            "\nconflicts:\n"
            "  pipeline  conflict\n"
            "  p         index 7 twice\n"
            "\ntasks: none\n"
            "\ntables:\n"
            "  name  rows  version\n"
            "  t        2        7\n");
}

TEST(RenderTest, Status_StoresWithTheirErrorsBelow_CountersAndMembers) {
  Json status = Json::parse(R"({"daemon":"trelsnmpd","version":"0.1.0","member":3,"uptimeSeconds":1,
      "mode":"standalone","address":"udp:1","connected":true,"ready":true,
      "log":{"waiting":0,"leftOut":0,"lost":0},"sources":[],"collectors":[],
      "stores":[{"source":"etcd:h:1/p","state":"held","endpoint":null,"lastError":"h:1: refused","otherStore":null},
                {"source":"etcd:h:2/p","state":"held","endpoint":null,"lastError":null,"otherStore":"h:2: found"}],
      "storeCounters":[{"source":"etcd:h:1/p","revisions":4}],
      "setAside":[{"source":"etcd:h:1/p","key":"p/sysname","error":"found 1"}],
      "members":[{"source":"etcd:h:1/p","member":"1","leased":true,"leaseLeft":12,"lastChange":null,"heldSince":null}],"unread":[],
      "pipelines":[],"conflicts":[],"tasks":[],"tables":[]})");
  EXPECT_EQ(renderStatus(status, {}, Shown::all),
            "ok\n\n"
            "trelsnmpd 0.1.0, member 3, up 0:00:01, standalone at udp:1, ready\n"
            "\nsources: none\n"
            "\ncollectors: none\n"
            "\nstores:\n"
            "  source      state  endpoint\n"
            "  etcd:h:1/p  held   -\n"
            "  etcd:h:2/p  held   -\n"
            "  last error: h:1: refused\n"
            "  other store: h:2: found\n"
            "\nstore counters:\n"
            "  source      revisions\n"
            "  etcd:h:1/p          4\n"
            "\nset aside:\n"
            "  source      key        error\n"
            "  etcd:h:1/p  p/sysname  found 1\n"
            "\nmembers:\n"
            "  source      member  leased  leaseLeft  lastChange  heldSince\n"
            "  etcd:h:1/p       1  yes            12  -           -\n"
            "\npipelines: none\n"
            "\ntasks: none\n"
            "\ntables: none\n");
}

// It stood there three times.
TEST(RenderTest, Status_SentenceOfAStore_IsToldOnce) {
  Json status = Json::parse(R"({"daemon":"trelsnmpd","version":"0.1.0","member":3,"uptimeSeconds":1,
      "mode":"standalone","address":"udp:1","connected":true,"ready":true,
      "log":{"waiting":0,"leftOut":0,"lost":0},
      "sources":[{"name":"etcd:h:1/p","error":"h:1: refused"},{"name":"etcd:h:2/p","error":"h:2: found"}],
      "collectors":[],
      "stores":[{"source":"etcd:h:1/p","lastError":"h:1: refused","otherStore":null},
                {"source":"etcd:h:2/p","lastError":"h:2: found","otherStore":"h:2: found"}],
      "storeCounters":[],"setAside":[],"members":[],"unread":[],
      "pipelines":[],"conflicts":[],"tasks":[],"tables":[]})");
  std::string text = renderStatus(status, {}, Shown::all);
  EXPECT_THAT(
      text, testing::HasSubstr("\nsources:\n  name\n  etcd:h:1/p\n  etcd:h:2/p\n  error: h:1: refused\n\n"));
  EXPECT_THAT(text, testing::HasSubstr(
                        "\nstores:\n  source\n  etcd:h:1/p\n  etcd:h:2/p\n  other store: h:2: found\n\n"));
}

// Reasons tell the errors, and nobody who asks whether all is well reads what works.
TEST(RenderTest, Status_BeginsWithTheVerdict_AndLeavesOutWhatWorks) {
  Json status = Json::parse(R"({"daemon":"trelsnmpd","version":"0.1.0","member":3,"uptimeSeconds":1,
      "mode":"standalone","address":"udp:1","connected":true,"ready":true,
      "log":{"waiting":0,"leftOut":0,"lost":0},"sources":[{"name":"file:/x","state":"stale","error":"/x: bad"}],
      "collectors":[{"name":"users","state":"works"},{"name":"mount /a","state":"hangs"}],
      "stores":[],"storeCounters":[],"setAside":[],"members":[],"unread":[],
      "pipelines":[{"name":"p","ready":true}],"conflicts":[],"tasks":[{"name":"task"}],
      "tables":[{"name":"t","rows":2,"version":7,"directAnswers":9}]})");
  Judgement judgement{Verdict::degraded, {{Verdict::degraded, "stale", "source file:/x is stale: /x: bad"}}};
  EXPECT_EQ(renderStatus(status, judgement, Shown::whatMatters),
            "degraded:\n"
            "  - source file:/x is stale: /x: bad\n"
            "\n"
            "trelsnmpd 0.1.0, member 3, up 0:00:01, standalone at udp:1, ready\n"
            "\nsources:\n"
            "  name     state\n"
            "  file:/x  stale\n"
            "\ncollectors that do not work:\n"
            "  name      state\n"
            "  mount /a  hangs\n"
            "\ntables:\n"
            "  name  rows\n"
            "  t        2\n");
}

TEST(RenderTest, Object_ItsAttributesOperationsAndEntities) {
  EXPECT_EQ(
      renderObject(Json::parse(
          R"({"type":"T","attributes":{"name":"x","size":"12"},"operations":["go","ask"],"questions":["ask"],"entities":["1"]})")),
      "T\n"
      "  name  x\n"
      "  size  12\n"
      "  operation go\n  question ask\n"
      "  1\n");
  EXPECT_EQ(
      renderObject(Json::parse(R"({"type":null,"attributes":{},"operations":[],"entities":["a","b"]})")),
      "objects:\n  a\n  b\n");
}

}  // namespace
}  // namespace TrelCtl
