// Random messages about random clusters, each held against the model.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/wire/Clusters.h"
#include "tests/wire/Conversation.h"
#include "tests/wire/Requests.h"
#include "tests/wire/Settings.h"

namespace Wire {
namespace {

// Between two changes of the state.
constexpr size_t kMessagesPerCluster = 1000;

// The same messages to daemons with either answers.
class RandomMessages : public testing::TestWithParam<E2e::By> {};
INSTANTIATE_TEST_SUITE_P(With, RandomMessages, testing::Values(E2e::By::direct, E2e::By::chain),
                         [](const auto& by) { return E2e::textOf(by.param); });

TEST_P(RandomMessages, EveryAnswerIsTheModels) {
  Subject subject(modelledAccess(), GetParam());
  Clusters clusters(settings().seed, subject.clock());
  Requests requests(settings().seed);
  Conversation conversation(subject);
  size_t asked = 0;
  size_t instances = 0;
  for (size_t states = 1; asked < settings().messages; ++states) {
    const nlohmann::json& cluster = clusters.next();
    ASSERT_NO_THROW(subject.becomes(cluster)) << "after " << states << " states";
    instances = std::max(instances, subject.model().tree().size());
    for (size_t i = 0; i < kMessagesPerCluster && asked < settings().messages; ++i, ++asked) {
      conversation.add(requests.next(subject.model().tree()));
    }
    conversation.finish();
    ASSERT_TRUE(conversation.mismatch().empty())
        << "within " << asked << " messages\n"
        << conversation.mismatch() << "the state: " << cluster.dump();
  }
  EXPECT_EQ(subject.walk(), subject.model().tree()) << difference(subject.model().tree(), subject.walk());
  EXPECT_EQ(subject.complaint(), "");
  uint64_t direct = subject.daemon().directAnswers();
  EXPECT_EQ(direct != 0, GetParam() == E2e::By::direct);
  EXPECT_EQ(subject.end(), "");
  fmt::print("{} random messages, up to {} instances, {} asked again, {} varbinds answered directly\n", asked,
             instances, conversation.repeated(), direct);
}

}  // namespace
}  // namespace Wire
