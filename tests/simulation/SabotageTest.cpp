// That the simulation sees a fault in each stream: every pipeline runs as it is, and what it does to one
// stream is tampered with behind the observer's back.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/simulation/Observer.h"

namespace Simulation {
namespace {

namespace A = TrelSnmp::Agent;

struct Sabotaged {
  const char* name;
  PipelineId pipeline;
  Element element;
  std::vector<Step> before;
  Step change;  // gives the element a row, the first of its table
};
void PrintTo(const Sabotaged& stream, std::ostream* out) { *out << stream.name; }

// Draw entities with nothing in them.
constexpr Step kTopoJoin{.kind = Kind::topoJoin, .value = 10};
constexpr Step kReachJoin{.kind = Kind::reachJoin, .value = 0};
constexpr Step kHostJoin{.kind = Kind::hostJoin, .value = 137};

const Sabotaged kStreams[] = {
    {"link",
     PipelineId::ifTable,
     {Stream::link, 1, 2},
     {kTopoJoin, {.kind = Kind::ifIndex}},
     {.kind = Kind::wire, .item = 1}},
    {"reachability",
     PipelineId::reachability,
     {Stream::reachability, 0, 2},
     {kReachJoin},
     {.kind = Kind::report, .item = 1}},
    {"system", PipelineId::host, {Stream::system, 0, 0}, {}, kHostJoin},
    {"processor", PipelineId::host, {Stream::processor, 0, 1}, {kHostJoin}, {.kind = Kind::load, .item = 1}},
    {"mount",
     PipelineId::storage,
     {Stream::mount, 0, 0},
     {kHostJoin, {.kind = Kind::mapMount}},
     {.kind = Kind::mount}},
    {"memory",
     PipelineId::storage,
     {Stream::memory, 0, 0},
     {kHostJoin, {.kind = Kind::mapMemory, .value = 6}},
     {.kind = Kind::memory}},
};

class SabotageTest : public testing::TestWithParam<Sabotaged>, protected Lumalog::Sink {
 protected:
  void SetUp() override {
    Lumalog::sinkIs(this);
    for (const Step& step : GetParam().before) ASSERT_TRUE(state.apply(step)) << step.text();
    observer.making(GetParam().pipeline, {});
    pipeline = made();
    observer.made(GetParam().pipeline, pipeline.get());
    ASSERT_EQ(afterStep(), "");
    ASSERT_TRUE(rows().empty());
  }

  std::string afterStep() {
    observer.stepEnds(true);
    return observer.failure();
  }
  void change() {
    observer.stateChanged(GetParam().pipeline);
    heard.clear();
    ASSERT_TRUE(state.apply(GetParam().change));
  }
  // The key of the row that the change gives the element.
  Key changed() {
    change();
    EXPECT_EQ(afterStep(), "");
    EXPECT_EQ(rows().size(), 1U);
    return rows().empty() ? Key{} : rows().begin()->first;
  }
  TableId table() const { return tableOf(GetParam().element.stream); }
  const Observer::MirrorTable& rows() const { return observer.rows(0, table()); }
  void erase(const Key& key) {
    TrelSnmp::TrelMib& mib = *state.set(0).mib;
    switch (table()) {
      case TableId::baIf:
        mib.trelIfTableDel(key.first);
        break;
      case TableId::reachability:
        mib.trelReachabilityTableDel({key.first, key.second});
        break;
      case TableId::system:
        mib.trelHrSystemTableDel(key.first);
        break;
      case TableId::processor:
        mib.trelProcessorTableDel({key.first, key.second});
        break;
      default:
        mib.trelHrStorageTableDel({key.first, key.second});
    }
  }
  // Says once more what the pipeline said of the last change.
  void repeatTraces() {
    for (const std::string& text : std::exchange(heard, {})) {
      observer.trace({nameOf(GetParam().pipeline), kStatementLevel, text, "", {}});
    }
  }

  Zavro::ManualClock clock{kAgentStart * 1'000'000'000};
  State state{{}, clock, Zavro::makePtr<HostResourcesMib::StorageEntryMappings>()};
  Observer observer{state, {}};
  std::vector<std::string> heard;    // of the last change: what it says of events
  Zavro::Ptr<A::Pipeline> pipeline;  // last, for it is heard while it goes

 private:
  void trace(const Lumalog::Line& line) override {
    if (line.level == kStatementLevel) heard.emplace_back(line.text);
    observer.trace(line);
  }
  Zavro::Ptr<A::Pipeline> made() const {
    const InputSet& in = state.set(0);
    Rvx::SmControl control;
    control.mode = Rvx::Mode::synchronous;
    switch (GetParam().pipeline) {
      case PipelineId::ifTable:
        return A::trelSnmpIfTableSmFactory(in.topology, in.ifMib, in.mib, control);
      case PipelineId::reachability:
        return A::trelSnmpReachabilityTableSmFactory(in.reachabilityDir, in.ifMib, in.mib, control);
      case PipelineId::host:
        return A::trelSnmpHostResourcesSmFactory(in.hostResourcesDir, in.mib, control);
      default:
        return A::trelSnmpHrStorageTableSmFactory(in.hostResourcesDir, in.mib, in.mappings, control);
    }
  }
};

TEST_P(SabotageTest, ChangeThatThePipelineSleepsThrough) {
  pipeline->hasNotificationActiveIs(false);
  change();
  const Element& element = GetParam().element;
  std::string which =
      element.stream == Stream::link ? fmt::format("link {}.{}", element.key, element.item) : element.text();
  EXPECT_NE(afterStep().find("has not handled " + which), std::string::npos) << observer.failure();
}

TEST_P(SabotageTest, EventWithoutItsWrite) {
  Key key = changed();
  observer.ownWrites(true);
  erase(key);
  observer.ownWrites(false);
  repeatTraces();
  std::string expected = fmt::format("{} was handled, but row {} of {} was not written",
                                     GetParam().element.text(), key.text(), nameOf(table()));
  EXPECT_EQ(afterStep().substr(0, expected.size()), expected);
}

TEST_P(SabotageTest, WriteWithoutItsEvent) {
  Lumalog::sinkIs(nullptr);
  change();
  Lumalog::sinkIs(this);
  EXPECT_NE(observer.failure().find("of " + std::string(nameOf(table())) + " is written"), std::string::npos)
      << observer.failure();
}

TEST_P(SabotageTest, RowThatGoesWithoutAReason) {
  Key key = changed();
  erase(key);
  EXPECT_EQ(observer.failure(),
            fmt::format("row {} of {} goes without a reason", key.text(), nameOf(table())));
}

INSTANTIATE_TEST_SUITE_P(EachStream, SabotageTest, testing::ValuesIn(kStreams),
                         [](const auto& stream) { return std::string(stream.param.name); });

}  // namespace
}  // namespace Simulation
