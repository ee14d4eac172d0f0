// A followed file, on a real file system, with time and notifications driven by hand.
#include "kelstore/FileSource.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "tests/kelstore/World.h"
#include "tests/runtime/ManualIo.h"
#include "tests/support/TempDir.h"
#include "tests/support/TraceLog.h"

namespace Kelstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t kLong = 60'000;

class FileSourceTest : public testing::Test {
 protected:
  void start(const Limits& limits = {}) {
    source_.emplace(file_, world_.layers, io_, clock_, limits);
    source_->start();
  }
  // The file may have changed; time passes until everything that can follow has followed.
  std::string changed() {
    io_.fileChanged();
    io_.advance(kLong);
    return world_.drained();
  }
  std::string settled() {
    io_.advance(kLong);
    return world_.drained();
  }
  // Lines told since the last call, without the file's directory.
  std::vector<std::string> told() {
    std::vector<std::string> lines;
    for (std::string line : trace_.lines()) {
      size_t at = line.find(dir_.path().string() + "/");
      if (at != std::string::npos) line.erase(at, dir_.path().string().size() + 1);
      lines.push_back(line);
    }
    trace_.clear();
    return lines;
  }
  static std::string ifIndexes(const std::string& a) {
    return R"({"interfaces": {"a": {"ifIndex": )" + a + "}}}";
  }
  SourceStatus::State state() const { return source_->status().state; }

  Support::TempDir dir_;
  std::string file_ = dir_.file("state.json");
  Zavro::ManualClock clock_{1'000'000'000'000};
  Runtime::ManualIo io_{clock_};
  World world_{0};
  std::optional<FileSource> source_;
  TraceLog trace_{{"Kelstore"}};
};

TEST_F(FileSourceTest, FileIsReadAtStart) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  EXPECT_EQ(state(), SourceStatus::State::loading);
  io_.work();
  EXPECT_EQ(world_.drained(), "ifIndex[a]");
  EXPECT_EQ(state(), SourceStatus::State::current);
  EXPECT_EQ(source_->status().name, "file:" + file_);
  EXPECT_EQ(source_->status().paths, 1u);
  EXPECT_EQ(source_->status().lastChangeUtcNs, clock_.utcNs());
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(FileSourceTest, FileIsReplacedOrWrittenInPlace_OnlyTheDifferenceIsApplied) {
  dir_.write("state.json", R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 2}}})");
  start();
  settled();
  dir_.replace("state.json", R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 3}}})");
  EXPECT_EQ(changed(), "ifIndex[b]");
  dir_.write("state.json", R"({"interfaces": {"a": {"ifIndex": 4}}})");
  EXPECT_EQ(changed(), "ifIndex[a] -ifIndex[b]");
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(FileSourceTest, TouchedWithoutAChange_NothingHappens) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  settled();
  uint64_t before = source_->status().lastChangeUtcNs;
  dir_.replace("state.json", ifIndexes("1"));
  EXPECT_EQ(changed(), "");
  EXPECT_EQ(source_->status().lastChangeUtcNs, before);
}

TEST_F(FileSourceTest, ManyEventsInARow_TheFileIsReadOnce) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  settled();
  dir_.write("state.json", ifIndexes("2"));
  for (int i = 0; i < 10; ++i) io_.fileChanged();
  io_.fileChanged();
  EXPECT_EQ(io_.jobs(), 0u);
  EXPECT_EQ(settled(), "ifIndex[a]");
}

TEST_F(FileSourceTest, ChangesAgainAndAgain_IsReadAllTheSame) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  settled();
  dir_.write("state.json", ifIndexes("2"));
  for (uint64_t ms = 0; ms <= FileSource::kLongestQuietMs + FileSource::kQuietMs; ms += 20) {
    io_.fileChanged();
    io_.advance(20);
  }
  EXPECT_EQ(world_.drained(), "ifIndex[a]");
}

TEST_F(FileSourceTest, HalfWrittenThenCompleted_NothingIsTold) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  settled();
  dir_.write("state.json", R"({"interfaces": {"a": {"ifIn)");
  io_.fileChanged();
  io_.advance(FileSource::kQuietMs);
  EXPECT_EQ(world_.drained(), "");
  dir_.write("state.json", ifIndexes("2"));
  EXPECT_EQ(changed(), "ifIndex[a]");
  EXPECT_EQ(state(), SourceStatus::State::current);
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(FileSourceTest, ReadAgainSoonAfterItFailed_TheWriterStillHasItsTime) {
  dir_.write("state.json", "{");
  start();
  io_.work();
  io_.fileChanged();
  io_.advance(FileSource::kQuietMs);
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_EQ(state(), SourceStatus::State::loading);
  settled();
  EXPECT_EQ(told().size(), 1u);
}

TEST_F(FileSourceTest, BadForLong_OneLineAndTheLastGoodStateStays_UntilItIsGoodAgain) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  settled();
  dir_.write("state.json", "{\n  \"interfaces\": ?\n}");
  EXPECT_EQ(changed(), "");
  auto lines = told();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], testing::StartsWith("Kelstore/0 state.json:2:17: "));
  EXPECT_EQ(state(), SourceStatus::State::stale);
  EXPECT_NE(source_->status().staleSinceUtcNs, 0u);
  EXPECT_THAT(source_->status().error, testing::StartsWith(file_ + ":2:17: "));
  EXPECT_EQ(source_->status().paths, 1u);

  changed();
  EXPECT_THAT(told(), IsEmpty()) << "the same error is told once";

  dir_.write("state.json", ifIndexes("2"));
  EXPECT_EQ(changed(), "ifIndex[a]");
  EXPECT_EQ(state(), SourceStatus::State::current);
  EXPECT_EQ(source_->status().error, "");
  EXPECT_EQ(source_->status().staleSinceUtcNs, 0u);
}

TEST_F(FileSourceTest, ReadingHangsAtTheStart_OneLineAndOthersNeedNotWait_UntilItEnds) {
  dir_.write("state.json", ifIndexes("1"));
  LayeredState::Layer other = world_.layers.addLayer();
  start();
  io_.hangFirst();
  EXPECT_EQ(world_.says(R"({"interfaces": {"b": {"ifIndex": 2}}})", other), "") << "they wait";
  io_.advance(FileSource::kAnswerMs - 1);
  EXPECT_EQ(world_.drained(), "");
  io_.advance(1);
  EXPECT_EQ(world_.drained(), "ifIndex[b]");
  EXPECT_EQ(state(), SourceStatus::State::stale);
  EXPECT_THAT(
      told(),
      ElementsAre(
          "Kelstore/0 state.json: not read within 3 s, still waiting for it; what was read before stays"));
  EXPECT_EQ(changed(), "");
  EXPECT_THAT(told(), IsEmpty());
  io_.hungReturn();
  EXPECT_EQ(settled(), "ifIndex[a]");
  EXPECT_EQ(state(), SourceStatus::State::current);
}

TEST_F(FileSourceTest, BadAgainAfterItWasGood_IsToldAgain) {
  dir_.write("state.json", "x");
  start();
  settled();
  EXPECT_EQ(told().size(), 1u);
  dir_.write("state.json", "{}");
  changed();
  dir_.write("state.json", "x");
  changed();
  EXPECT_EQ(told().size(), 1u);
}

TEST_F(FileSourceTest, KeepsChangingAndIsAlwaysBad_IsToldAfterAWhile) {
  dir_.write("state.json", "x");
  start();
  for (int i = 0; i < 30; ++i) {
    dir_.write("state.json", std::string(static_cast<size_t>(i) + 2, 'x'));
    io_.fileChanged();
    io_.advance(100);
  }
  EXPECT_GE(told().size(), 1u);
  EXPECT_EQ(state(), SourceStatus::State::stale);
}

TEST_F(FileSourceTest, WrongValue_OneLine_ItsLastGoodValueStaysAndTheRestIsApplied) {
  dir_.write("state.json", R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 1}}})");
  start();
  settled();
  dir_.write("state.json", R"({"interfaces": {"a": {"ifIndex": -1}, "b": {"ifIndex": 2}}})");
  EXPECT_EQ(changed(), "ifIndex[b]");
  EXPECT_THAT(told(),
              ElementsAre("Kelstore/0 state.json: interfaces/a/ifIndex: found -1, expected an integer "
                          "from 0 to 4294967295"));
  EXPECT_EQ(state(), SourceStatus::State::partial);
  EXPECT_EQ(source_->status().paths, 2u);

  dir_.write("state.json", R"({"interfaces": {"a": {"ifIndex": -1}, "b": {"ifIndex": 3}}})");
  EXPECT_EQ(changed(), "ifIndex[b]");
  EXPECT_THAT(told(), IsEmpty()) << "what goes on being wrong is not told again";
  EXPECT_EQ(state(), SourceStatus::State::partial);

  dir_.write("state.json", R"({"interfaces": {"b": {"ifIndex": 3}}})");
  EXPECT_EQ(changed(), "-ifIndex[a]");
  EXPECT_EQ(state(), SourceStatus::State::current);
}

TEST_F(FileSourceTest, WrongThroughout_TwentyLinesAndTheirNumber) {
  std::string document;
  for (int i = 0; i < 100; ++i) {
    document += (document.empty() ? R"({"interfaces": {")" : ", \"") + std::to_string(i) + "\": 7";
  }
  dir_.write("state.json", document + "}}");
  start();
  settled();
  auto lines = told();
  ASSERT_EQ(lines.size(), 21u);
  EXPECT_EQ(lines.back(), "Kelstore/0 state.json: 80 more like these");
}

TEST_F(FileSourceTest, UnknownMember_OneWarningOnceAndTheRestIsTaken) {
  dir_.write("state.json", R"({"colour": 1, "interfaces": {"a": {"ifIndex": 1}}})");
  start();
  EXPECT_EQ(settled(), "ifIndex[a]");
  EXPECT_THAT(told(), ElementsAre("Kelstore/1 state.json: colour: unknown member, ignored"));
  EXPECT_EQ(state(), SourceStatus::State::current);
  dir_.write("state.json", R"({"colour": 1, "interfaces": {"a": {"ifIndex": 2}}})");
  changed();
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(FileSourceTest, NoFileAtStart_OneLine_AndItIsReadWhenItAppears) {
  start();
  settled();
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: No such file or directory"));
  EXPECT_TRUE(world_.layers.idle());
  dir_.write("state.json", ifIndexes("1"));
  EXPECT_EQ(changed(), "ifIndex[a]");
  EXPECT_EQ(state(), SourceStatus::State::current);
}

TEST_F(FileSourceTest, FileVanishes_TheStateStays) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  settled();
  std::filesystem::remove(file_);
  EXPECT_EQ(changed(), "");
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: No such file or directory"));
  EXPECT_EQ(state(), SourceStatus::State::stale);
  EXPECT_EQ(source_->status().paths, 1u);
}

TEST_F(FileSourceTest, SomethingElseInItsPlace_OneLineEach) {
  std::filesystem::create_directory(file_);
  start();
  settled();
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: found a directory, expected a file"));
  std::filesystem::remove(file_);
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  changed();
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: found a pipe, expected a file"));
}

TEST_F(FileSourceTest, NotReadable_OneLine) {
  if (geteuid() == 0) {
    // Root reads everything; a path through a file is refused to anybody.
    file_ = dir_.write("file", "") + "/state.json";
    start();
    settled();
    EXPECT_EQ(told().size(), 1u);
    EXPECT_THAT(source_->status().error, testing::EndsWith("Not a directory"));
    return;
  }
  dir_.write("state.json", "{}");
  chmod(file_.c_str(), 0);
  start();
  settled();
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: Permission denied"));
}

TEST_F(FileSourceTest, LargerThanTheLimit_OneLineAndTheLastGoodStateStays) {
  dir_.write("state.json", ifIndexes("1"));
  start({.documentBytes = 100});
  settled();
  dir_.write("state.json", ifIndexes("2") + std::string(100, ' '));
  EXPECT_EQ(changed(), "");
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: found 137 bytes, expected at most 100"));
  dir_.write("state.json", ifIndexes("2") + std::string(63, ' '));
  EXPECT_EQ(changed(), "ifIndex[a]");
}

TEST_F(FileSourceTest, AHundredMegabytes_OneLineWithoutReadingThem) {
  dir_.write("state.json", "");
  ASSERT_EQ(truncate(file_.c_str(), 100 << 20), 0);
  start();
  settled();
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: found 104857600 bytes, expected at most 67108864"));
}

TEST_F(FileSourceTest, MoreRowsThanAreTaken_TheOthersAreServed_AndWhatIsLeftOutIsCounted) {
  auto interfaces = [](int count) {
    std::string text;
    for (int i = 1; i <= count; ++i)
      text += fmt::format("{}\"i{}\": {{\"ifIndex\": {}}}", i == 1 ? "" : ", ", i, i);
    return "{\"sysname\": \"x\", \"interfaces\": {" + text + "}}";
  };
  dir_.write("state.json", interfaces(5));
  start({.clusterRows = 2});
  EXPECT_EQ(settled(), "sysname=x ifIndex[i1] ifIndex[i2]");
  EXPECT_EQ(state(), SourceStatus::State::partial);
  EXPECT_EQ(source_->status().setAside, 3u);
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: interfaces: 3 left out, as there are more than 2"));
  dir_.write("state.json", interfaces(2));
  EXPECT_EQ(changed(), "");
  EXPECT_EQ(state(), SourceStatus::State::current);
  EXPECT_EQ(source_->status().setAside, 0u);
}

#ifndef TREL_SANITIZED
// Limits the process's address space to so much more than it has, for as long as it lives.
class LittleMemory {
 public:
  explicit LittleMemory(size_t bytes) {
    getrlimit(RLIMIT_AS, &before_);
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit now{pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + bytes, before_.rlim_max};
    setrlimit(RLIMIT_AS, &now);
  }
  ~LittleMemory() { setrlimit(RLIMIT_AS, &before_); }

 private:
  rlimit before_{};
};

TEST_F(FileSourceTest, NoMemoryForTheDocument_OneLine_AndTheLastGoodStateStays) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  settled();
  std::string text;
  for (int member = 0; member < 50; ++member) {
    text += fmt::format("{}\"{}\": {{\"processors\": {{", member == 0 ? "" : ", ", member);
    for (int i = 1; i <= 4000; ++i) text += fmt::format("{}\"{}\": {{\"load\": 1}}", i == 1 ? "" : ", ", i);
    text += "}}";
  }
  dir_.write("state.json", "{\"members\": {" + text + "}}");
  for (size_t megabytes : {1, 34, 40, 50}) {
    LittleMemory little(megabytes << 20);
    EXPECT_EQ(changed(), "") << megabytes;
    EXPECT_EQ(state(), SourceStatus::State::stale);
    EXPECT_THAT(source_->status().error,
                testing::EndsWith("state.json: out of memory, what was read before stays"));
  }
  EXPECT_THAT(told(), ElementsAre("Kelstore/0 state.json: out of memory, what was read before stays"));
  changed();
  EXPECT_EQ(state(), SourceStatus::State::current);
  EXPECT_EQ(world_.host("49")->processorTable().size(), 4000u);
}
#endif

TEST_F(FileSourceTest, ChangesWhileItIsRead_IsReadAgain) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  io_.fileChanged();
  dir_.write("state.json", ifIndexes("2"));
  EXPECT_EQ(settled(), "ifIndex[a]");
  EXPECT_EQ(*world_.mirror.ifMib()->ifIndexByIntfId().find(Lanix::IntfId("a")), 2u);
}

TEST_F(FileSourceTest, SourceGoesWhileItsFileIsRead_NothingHappens) {
  dir_.write("state.json", ifIndexes("1"));
  start();
  ASSERT_EQ(io_.jobs(), 1u);
  source_.reset();
  EXPECT_EQ(settled(), "");
}

}  // namespace
}  // namespace Kelstore
