// The daemon's log: who reads it, or does not, and how much is said.
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"
#include "tests/support/Etcd.h"
#include "tests/support/SystemLogger.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using namespace std::chrono_literals;

// So much is traced of each request that no pipe and no socket holds the traces of a few.
const Support::Argv kTalkative = {"--trace", "*/9"};

size_t count(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

int64_t waiting(const Daemon& daemon) { return daemon.status().at("log").at("waiting").get<int64_t>(); }

// Walks until lines have to wait, and then some more. True when all was answered.
testing::AssertionResult answersWhileItsLogIsNotRead(const Daemon& daemon) {
  bool held =
      Support::waitUntil([&] { return daemon.manager().bulkWalk("reach") != "" && waiting(daemon) > 100; });
  if (!held) return testing::AssertionFailure() << "somebody reads its log";
  for (int i = 0; i < 10; ++i) {
    std::string answer = daemon.manager().get({"reach.4.1.2"});
    if (answer != "reach.4.1.2 = INTEGER: 3\n") return testing::AssertionFailure() << answer;
  }
  return testing::AssertionSuccess();
}

// A daemon whose standard error is a named pipe.
class Piped : public testing::Test {
 protected:
  Piped() {
    mkfifo(pipe_.c_str(), 0600);
    daemon_.runBy({"/bin/sh", "-c", R"(exec 2>"$0"; exec "$@")", pipe_})
        .stateIs(documentOf(kReports))
        .with(kTalkative);
  }
  Daemon daemon_;
  std::string pipe_ = daemon_.dir().file("log");
};

TEST_F(Piped, ReaderThatStops_SnmpIsAnswered_AndItGetsAllOnceItGoesOn) {
  Support::Process reader({"cat", pipe_});
  daemon_.start();
  ASSERT_TRUE(Support::waitUntil([&] { return waiting(daemon_) == 0; }));
  reader.signal(SIGSTOP);
  EXPECT_TRUE(answersWhileItsLogIsNotRead(daemon_));
  reader.signal(SIGCONT);
  ASSERT_TRUE(Support::waitUntil([&] { return waiting(daemon_) == 0; }));
  EXPECT_EQ(daemon_.process().stop(), 0);
  ASSERT_EQ(reader.wait(), 0);
  EXPECT_GE(
      count(reader.out(), "request GET for column veldaTrelReachabilityState, key (firstId=1, secondId=2)"),
      10u);
  EXPECT_EQ(count(reader.out(), "lines are lost here"), 0u);
}

TEST_F(Piped, NobodyReads_SnmpIsAnswered_AndTheDaemonEnds) {
  int reading = open(pipe_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reading, 0);
  daemon_.start();
  EXPECT_TRUE(answersWhileItsLogIsNotRead(daemon_));
  EXPECT_EQ(daemon_.process().stop(), 0);
  close(reading);
}

TEST_F(Piped, ReaderIsGone_SnmpIsAnswered) {
  {
    Support::Process reader({"cat", pipe_});
    daemon_.start();
  }
  ASSERT_TRUE(Support::waitUntil(
      [&] { return daemon_.manager().walk("reach") != "" && daemon_.status().at("log").at("lost") > 0; }));
  EXPECT_EQ(daemon_.manager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
  EXPECT_EQ(daemon_.process().stop(), 0);
}

// The next file would be standard error otherwise, and a trace would go to a manager.
class WithoutStreams : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Closed, WithoutStreams, testing::Values("0<&- 1>&- 2>&-", "2>&-"),
                         [](const auto& closed) { return std::string(closed.index == 0 ? "All" : "Error"); });

TEST_P(WithoutStreams, ServesAndEnds) {
  Daemon daemon;
  daemon.runBy({"/bin/sh", "-c", fmt::format(R"(exec "$0" "$@" {})", GetParam())})
      .stateIs(documentOf(kReports))
      .with(kTalkative)
      .start();
  EXPECT_EQ(daemon.manager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
  EXPECT_EQ(std::filesystem::read_symlink(fmt::format("/proc/{}/fd/2", daemon.process().pid())), "/dev/null");
  EXPECT_EQ(daemon.process().stop(), 0);
}

// A daemon whose lines go to a socket of the test's, which reads what it wants to.
class Unread : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (std::string why = Support::SystemLogger::notAllowed(); !why.empty()) GTEST_SKIP() << why;
    daemon_.runBy(logger_.runner())
        .stateIs(documentOf(kReports))
        .with(kTalkative)
        .with({"--log", GetParam(), "--conf", daemon_.dir().write("trel.conf", "rocommunity public\n")});
  }

  Daemon daemon_;
  Support::SystemLogger logger_{daemon_.dir().file("namespace"), GetParam()};
};
INSTANTIATE_TEST_SUITE_P(To, Unread, testing::Values("syslog", "journal"),
                         [](const auto& to) { return std::string(to.param); });

TEST_P(Unread, SocketThatIsFull_SnmpIsAnswered_AndTheDaemonEnds) {
  daemon_.start();
  EXPECT_TRUE(answersWhileItsLogIsNotRead(daemon_));
  EXPECT_THAT(logger_.received(), HasSubstr("trelsnmpd"));
  EXPECT_EQ(daemon_.process().stop(), 0);
}

// Who is connected with the socket before would write to it on and on.
TEST_P(Unread, LoggerStartsAnew_LinesAfterSighupGoToIt) {
  daemon_.start();
  ASSERT_TRUE(Support::waitUntil([&] { return !logger_.received().empty(); }));
  logger_.startAnew();
  daemon_.process().signal(SIGHUP);
  std::string before;
  std::string anew;
  EXPECT_TRUE(Support::waitUntil([&] {
    before += logger_.receivedBefore();
    anew += logger_.received();
    return count(anew, ": reloaded: ") == 1;
  })) << before;
  EXPECT_EQ(count(before, ": reloaded: "), 0u);
  EXPECT_EQ(daemon_.process().stop(), 0);
}

TEST(LogOfAStore, WriterThatSpoilsAKeyAgainAndAgain_AFewLinesAndACount) {
  Support::EtcdCluster etcd;
  Daemon daemon;
  auto put = [&](const std::string& key, int value) {
    etcd.ctl({"put", "trel/" + key, fmt::format(R"({{"load": "{}"}})", value)});
  };
  daemon.with({"--state", "etcd:" + etcd.endpoint() + "/trel"}).start();
  constexpr int kTimes = 12;  // all of them well within the minute that counts
  for (int i = 0; i < kTimes; ++i) put("members/1/processors/1", i);
  put("members/1/processors/2", 7);
  ASSERT_TRUE(Support::waitUntil([&] { return daemon.status().at("setAside").size() == 2; }));
  std::string log = daemon.log();
  EXPECT_EQ(count(log, "processors/1: load: found"), 5u) << log;
  EXPECT_EQ(count(log, "processors/2: load: found"), 1u) << log;
  EXPECT_THAT(daemon.ctl({"status"}).out,
              HasSubstr(fmt::format("log: {} lines left out, 0 lost", kTimes - 5)));
  EXPECT_EQ(daemon.process().stop(), 0);
  EXPECT_THAT(daemon.log(), testing::ContainsRegex(fmt::format(
                                "{} more like this in the last [0-9]+ s left out, the last: .*processors/1: "
                                "load: found \"{}\"",
                                kTimes - 5, kTimes - 1)));
}

}  // namespace
}  // namespace E2e
