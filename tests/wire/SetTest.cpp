// Every type of value, set at every column, by somebody who may write: refused, and nothing is changed.
#include <gtest/gtest.h>

#include "tests/wire/Clusters.h"
#include "tests/wire/Conversation.h"
#include "tests/wire/Requests.h"
#include "tests/wire/Settings.h"

namespace Wire {
namespace {

class Sets : public testing::Test {
 protected:
  // A row that is there and one that is not, indexes too short and too long, and none.
  static std::vector<Oid> names(const TableShape& table, uint32_t column, const Tree& tree) {
    Oid there = table.root;
    there.insert(there.end(), {1, table.firstColumn});
    auto first = tree.upper_bound(there);
    Oid index(first->first.end() - static_cast<std::ptrdiff_t>(table.indexes), first->first.end());
    Oid other(table.indexes, 77);
    std::vector<Oid> names;
    for (Oid row :
         {index, other, Oid(), Oid(table.indexes - 1, 1), Oid(table.indexes + 1, 1), Oid(100, 4294967295)}) {
      names.push_back(table.root);
      names.back().insert(names.back().end(), {1, column});
      names.back().insert(names.back().end(), row.begin(), row.end());
    }
    return names;
  }

  void set(const Oid& name) {
    for (const Value& value : valuesOfEveryType()) {
      for (Version version : {Version::v1, Version::v2c}) {
        Message message{version, kWriter, {PduType::set, ++requestId_, 0, 0, {{name, value}}}};
        std::optional<Message> expected = subject_.model().answerTo(message);
        // The one thing that this is about, whatever the model makes of the rest.
        ASSERT_TRUE(!expected || expected->pdu.first != 0) << text(message);
        conversation_.add(message);
      }
    }
    conversation_.finish();
    ASSERT_TRUE(conversation_.mismatch().empty()) << conversation_.mismatch();
  }

  Subject subject_;
  Conversation conversation_{subject_};
  int64_t requestId_ = 0;
};

TEST_F(Sets, EveryTypeAtEveryColumn_RefusedAndNothingChanges) {
  Clusters clusters(settings().seed, subject_.clock());
  auto everyTableHasRows = [this] {
    std::set<const TableShape*> tables;
    for (const auto& [name, value] : subject_.model().tree()) tables.insert(tableOf(name));
    return tables.size() == tableShapes().size();
  };
  do {
    subject_.becomes(clusters.next());
  } while (!everyTableHasRows());
  for (const TableShape& table : tableShapes()) {
    set(table.root);
    Oid entry = table.root;
    for (uint32_t number : {0u, 1u, 2u}) {
      entry.resize(table.root.size());
      entry.push_back(number);
      set(entry);
    }
    for (uint32_t column = 0; column <= table.lastColumn + 1; ++column) {
      for (const Oid& name : names(table, column, subject_.model().tree())) set(name);
    }
  }
  EXPECT_EQ(difference(subject_.model().tree(), subject_.walk()), difference({}, {}));
  EXPECT_EQ(subject_.end(), "");
}

TEST_F(Sets, OfWhatIsInNoView_Refused) {
  for (const Oid& name : {Oid{1, 3, 6, 1, 2, 1, 1, 5, 0}, Oid{1, 3, 6, 1, 4, 1}, Oid{2, 5}}) set(name);
  EXPECT_EQ(subject_.end(), "");
}

}  // namespace
}  // namespace Wire
