#include "platform/rvx/SmControl.h"

#include <gtest/gtest.h>

#include "platform/kor/TextForm.h"

namespace {

TEST(SmControlTest, Default_HasNoSchedulerNoNameDefaultPriorityAndMode) {
  Rvx::SmControl control;
  EXPECT_EQ(control.scheduler, nullptr);
  EXPECT_EQ(control.parentScheduler, nullptr);
  EXPECT_EQ(control.taskName, "");
  EXPECT_EQ(control.priority, Vem::kDefaultPriority);
  EXPECT_EQ(control.mode, Rvx::Mode::pipelineDefault);
  EXPECT_EQ(control.text(), "(taskName=, priority=128, mode=0)");
}

TEST(SmControlTest, Modes_AreNumberedFromDefaultToAsynchronous) {
  EXPECT_EQ(static_cast<int>(Rvx::Mode::pipelineDefault), 0);
  EXPECT_EQ(static_cast<int>(Rvx::Mode::synchronous), 1);
  EXPECT_EQ(static_cast<int>(Rvx::Mode::asynchronous), 2);
}

TEST(SmControlTest, TextForm_IsReadBack_SchedulersStay) {
  Zavro::ManualClock clock;
  Vem::TimeSlice policy(clock);
  Rvx::SmControl control;
  control.scheduler = Zavro::makePtr<Vem::TaskScheduler>(policy);
  Zavro::Ptr<Vem::TaskScheduler> scheduler = control.scheduler;
  control.textIs("(taskName=scan, priority=255, mode=2)");
  EXPECT_EQ(control.taskName, "scan");
  EXPECT_EQ(control.priority, 255);
  EXPECT_EQ(control.mode, Rvx::Mode::asynchronous);
  EXPECT_EQ(control.scheduler, scheduler);
  EXPECT_EQ(control.text(), "(taskName=scan, priority=255, mode=2)");
  control.textIs("(taskName=,priority=0,mode=1)");
  EXPECT_EQ(control.text(), "(taskName=, priority=0, mode=1)");
}

TEST(SmControlTest, MalformedText_ChangesNothing) {
  Rvx::SmControl control;
  control.textIs("(taskName=kept, priority=7, mode=1)");
  for (const char* bad :
       {"", "sync", "taskName=a, priority=1, mode=1", "(taskName=a)", "(taskName=a, priority=1)",
        "(taskName=a, priority=256, mode=1)", "(taskName=a, priority=1, mode=3)",
        "(taskName=a, priority=-1, mode=1)", "(taskName=a, priority=1, mode=1",
        "(taskName=a, priority=1, mode=1)x", "(taskName=a, mode=1, priority=1)",
        "(taskName=a,b, priority=1, mode=1)", "(taskName=a, priority=1) mode=1)"}) {
    EXPECT_THROW(control.textIs(bad), Kor::ParseException) << bad;
    EXPECT_EQ(control.text(), "(taskName=kept, priority=7, mode=1)") << bad;
  }
}

}  // namespace
