#include "platform/lumalog/Lumalog.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <optional>

#include "platform/kor/TextForm.h"
#include "tests/support/TraceLog.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LumalogTest : public testing::Test {
 protected:
  Lumalog::Handle a_{"LumalogTestA"};
  Lumalog::Handle b_{"LumalogTestB"};
};

// Counts how often it is turned into text.
struct Costly {
  int* formatted;
  std::string text() const { return std::to_string(++*formatted); }
};

TEST_F(LumalogTest, NewHandle_PassesErrorsAndOneLineEach) {
  TraceLog log({});
  for (int level : {0, 1, 2, 9}) a_.trace(level, "level {}", level);
  EXPECT_THAT(log.lines(), ElementsAre("LumalogTestA/0 level 0", "LumalogTestA/1 level 1"));
}

TEST_F(LumalogTest, Handle_PassesTheLevelsUpToItsOwn) {
  TraceLog log({});
  Lumalog::levelIs("LumalogTestA", 7);
  EXPECT_TRUE(a_.enabled(7));
  EXPECT_FALSE(a_.enabled(8));
  EXPECT_FALSE(b_.enabled(2));
  a_.trace(7, "seen");
  a_.trace(8, "not seen");
  b_.trace(2, "not seen");
  EXPECT_THAT(log.lines(), ElementsAre("LumalogTestA/7 seen"));
}

TEST_F(LumalogTest, LevelMinusOne_Silences) {
  TraceLog log({});
  Lumalog::levelIs("LumalogTestA", -1);
  a_.trace(0, "unheard");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LumalogTest, LevelSetBeforeTheHandleIsMade_Holds) {
  TraceLog log({});
  Lumalog::levelIs("LumalogTestLater", 5);
  Lumalog::Handle later("LumalogTestLater");
  EXPECT_TRUE(later.enabled(5));
  EXPECT_FALSE(later.enabled(6));
}

TEST_F(LumalogTest, Star_MeansThoseWithoutASettingOfTheirOwn_InEitherOrder) {
  TraceLog log({});
  Lumalog::levelIs("LumalogTestA", 2);
  Lumalog::levelIs("*", 6);
  EXPECT_FALSE(a_.enabled(3));
  EXPECT_TRUE(b_.enabled(6));
  Lumalog::levelIs("LumalogTestB", 0);
  EXPECT_FALSE(b_.enabled(1));
  EXPECT_TRUE(Lumalog::Handle("LumalogTestC").enabled(6));
}

TEST_F(LumalogTest, Reset_ForgetsEverySetting) {
  Lumalog::levelIs("*", 9);
  Lumalog::levelIs("LumalogTestA", 9);
  Lumalog::levelsReset();
  for (const Lumalog::Handle* handle : {&a_, &b_}) {
    EXPECT_TRUE(handle->enabled(Lumalog::kDefaultLevel));
    EXPECT_FALSE(handle->enabled(Lumalog::kDefaultLevel + 1));
  }
}

TEST_F(LumalogTest, DisabledLevel_FormatsNothing) {
  TraceLog log({});
  int formatted = 0;
  a_.trace(2, "{}", Costly{&formatted});
  a_.traceRuntime(2, "{}", Costly{&formatted});
  EXPECT_EQ(formatted, 0);
  a_.trace(1, "{}", Costly{&formatted});
  EXPECT_EQ(formatted, 1);
}

TEST_F(LumalogTest, TextsOfRunTime_AreFormattedWithTheirArguments) {
  TraceLog log;
  std::string statement = "into( table[ key ] ): inserting k1={}, value={}";
  a_.traceRuntime(7, statement, "(1, 2)", 3);
  EXPECT_THAT(log.lines(), ElementsAre("LumalogTestA/7 into( table[ key ] ): inserting k1=(1, 2), value=3"));
}

TEST_F(LumalogTest, BracesInArguments_ArePassedThrough) {
  TraceLog log;
  a_.trace(1, "{}", "{no argument}");
  a_.traceRuntime(1, "{}", "{}");
  EXPECT_THAT(log.lines(), ElementsAre("LumalogTestA/1 {no argument}", "LumalogTestA/1 {}"));
}

TEST_F(LumalogTest, HandlesOfOneName_AreSetTogether) {
  TraceLog log({});
  Lumalog::Handle twin("LumalogTestA");
  Lumalog::levelIs("LumalogTestA", 4);
  EXPECT_TRUE(a_.enabled(4));
  EXPECT_TRUE(twin.enabled(4));
}

TEST_F(LumalogTest, Sink_IsExchangedAndMayBeNone) {
  Lumalog::Sink* first = Lumalog::sink();
  ASSERT_NE(first, nullptr);
  {
    TraceLog log;
    EXPECT_EQ(Lumalog::sink(), &log);
    Lumalog::sinkIs(nullptr);
    a_.trace(0, "dropped");
    EXPECT_THAT(log.lines(), IsEmpty());
  }
  EXPECT_EQ(Lumalog::sink(), first);
}

TEST_F(LumalogTest, FirstSink_WritesLinesToStandardError) {
  testing::internal::CaptureStderr();
  a_.trace(0, "state file lost");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "LumalogTestA/0 state file lost\n");
}

TEST_F(LumalogTest, StandardErrorIsClosed_TracingGoesOn) {
  EXPECT_EXIT(
      {
        close(STDERR_FILENO);
        a_.trace(0, "unheard");
        _exit(7);
      },
      testing::ExitedWithCode(7), "");
}

class BlockTimerTest : public LumalogTest {
 protected:
  BlockTimerTest() { Lumalog::clockIs(&clock_); }
  ~BlockTimerTest() override { Lumalog::clockIs(&systemClock()); }
  static const Zavro::Clock& systemClock() {
    static const Zavro::SystemClock clock;
    return clock;
  }
  Zavro::ManualClock clock_;
};

TEST_F(BlockTimerTest, TracesEntryAndDuration) {
  TraceLog log;
  {
    Lumalog::BlockTimer timer(a_, "void f()");
    clock_.advanceNs(1'234'999);
  }
  EXPECT_THAT(log.lines(), ElementsAre("LumalogTestA/9 void f()", "LumalogTestA/9 void f() took 1234 us"));
}

TEST_F(BlockTimerTest, TracesItsTextAtEntry) {
  TraceLog log;
  { Lumalog::BlockTimer timer(a_, "void f()", "starting"); }
  EXPECT_THAT(log.lines(),
              ElementsAre("LumalogTestA/9 void f(): starting", "LumalogTestA/9 void f() took 0 us"));
}

TEST_F(BlockTimerTest, BelowLevelNine_TracesNothing) {
  TraceLog log({});
  Lumalog::levelIs("LumalogTestA", 8);
  { Lumalog::BlockTimer timer(a_, "void f()"); }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(BlockTimerTest, LevelRaisedWithinTheBlock_TracesNoDurationThatWasNotMeasured) {
  TraceLog log({});
  clock_.advanceNs(5'000'000);
  {
    Lumalog::BlockTimer timer(a_, "void f()");
    Lumalog::levelIs("LumalogTestA", 9);
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
