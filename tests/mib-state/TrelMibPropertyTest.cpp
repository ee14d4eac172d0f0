// Random changes to the MIB state object, with walks under way, beside one ordered map per table.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <list>
#include <map>
#include <tuple>

#include "tests/mib-state/TableTraits.h"

using TrelSnmp::TrelMib;

struct Step {
  enum Kind : uint8_t { is, del, delByCursor, openCursor, moveCursors, delAll, kinds };
  Kind kind;
  uint32_t row;
};

void showValue(const Step& step, std::ostream& out) {
  static constexpr const char* kNames[] = {"is", "del", "delByCursor", "openCursor", "moveCursors", "delAll"};
  out << kNames[step.kind] << "(" << step.row << ")";
}

template <>
struct rc::Arbitrary<Step> {
  static Gen<Step> arbitrary() {
    auto kind = gen::weightedOneOf<int>({{8, gen::just<int>(Step::is)},
                                         {5, gen::just<int>(Step::del)},
                                         {2, gen::just<int>(Step::delByCursor)},
                                         {3, gen::just<int>(Step::openCursor)},
                                         {6, gen::just<int>(Step::moveCursors)},
                                         {1, gen::just<int>(Step::delAll)}});
    return gen::build<Step>(gen::set(&Step::kind, gen::map(kind, [](int k) { return Step::Kind(k); })),
                            gen::set(&Step::row, gen::inRange<uint32_t>(0, 14)));
  }
};

namespace {

// One table and its model. The model is told of every change by the steps alone; what is published is kept in
// a second map, which a reader that only listens would have.
template <class Traits>
class Scenario {
  using Table = typename Traits::Table;
  using Key = typename Table::Key;
  using Rows = std::map<Key, Zavro::Ptr<const Kor::ValueEntity>>;

 public:
  Scenario() {
    subscription_ = mib_->publisher().subscribe([this](const TrelMib::Change& change) {
      ++published_;
      Key key = std::get<Key>(change.key);
      if (change.entry) {
        heard_[key] = change.entry;
      } else {
        RC_ASSERT(heard_.erase(key) == 1u);
      }
    });
  }

  void run(const Step& step) {
    switch (step.kind) {
      case Step::is:
        insert(step.row);
        break;
      case Step::del:
        erased(Traits::key(step.row), Traits::del(*mib_, Traits::key(step.row)));
        break;
      case Step::delByCursor:
        if (!walks_.empty()) erased(walks_.front().key(), Traits::del(*mib_, walks_.front()));
        break;
      case Step::openCursor:
        open(step.row);
        break;
      case Step::moveCursors:
        for (auto& walk : walks_) move(walk);
        walks_.remove_if([](const auto& walk) { return !walk; });
        break;
      default:
        changes_ += static_cast<uint32_t>(model_.size());
        model_.clear();
        Traits::delAll(*mib_);
    }
    check();
  }

  // Once every walk has ended and the object is gone, only the test holds the rows.
  void end() {
    for (auto& walk : walks_) {
      while (walk) move(walk);
    }
    walks_.clear();
    heard_.clear();
    subscription_.reset();
    Rows last = std::exchange(model_, {});
    mib_.reset();
    for (const auto& [key, row] : last) RC_ASSERT(row->useCount() == 1u);
  }

 private:
  void insert(uint32_t n) {
    Key key = Traits::key(n);
    auto existing = model_.find(key);
    bool replaces = std::is_same_v<Traits, HrStorageTableTraits>;
    bool sameValues = std::is_same_v<Traits, IfTableTraits>;
    try {
      auto row = Traits::is(*mib_, n, Traits::record(n));
      if (existing == model_.end()) {
        ++changes_;
      } else if (replaces) {
        ++replacements_;
      } else {
        RC_ASSERT(sameValues);
        RC_ASSERT(existing->second == row);
      }
      model_[key] = row;
    } catch (const Kor::MutatorReinstantiationException&) {
      RC_ASSERT(existing != model_.end());
      RC_ASSERT(!replaces && !sameValues);
    }
  }

  void erased(Key key, const Zavro::Ptr<const Kor::ValueEntity>& row) {
    auto existing = model_.find(key);
    RC_ASSERT(row == (existing == model_.end() ? nullptr : existing->second));
    if (existing == model_.end()) return;
    model_.erase(existing);
    ++changes_;
  }

  void open(uint32_t n) {
    const Table& table = Traits::table(*mib_);
    auto walk = n % 3 == 0   ? table.begin()
                : n % 3 == 1 ? table.lowerBoundCursor(Traits::key(n))
                             : table.upperBoundCursor(Traits::key(n));
    auto expected = n % 3 == 0   ? model_.begin()
                    : n % 3 == 1 ? model_.lower_bound(Traits::key(n))
                                 : model_.upper_bound(Traits::key(n));
    expectAt(walk, expected);
    if (walk) walks_.push_back(walk);
  }

  void move(typename Table::Cursor& walk) {
    Key before = walk.key();
    walk.next();
    expectAt(walk, model_.upper_bound(before));
  }

  void expectAt(const typename Table::Cursor& walk, typename Rows::iterator expected) {
    RC_ASSERT(bool(walk) == (expected != model_.end()));
    if (!walk) return;
    RC_ASSERT(walk.key() == expected->first);
    RC_ASSERT(Zavro::Ptr<const Kor::ValueEntity>(walk.entry()) == expected->second);
  }

  void check() {
    const Table& table = Traits::table(*mib_);
    RC_ASSERT(table.size() == model_.size());
    RC_ASSERT(table.version() == changes_);
    RC_ASSERT(published_ == changes_ + replacements_);
    RC_ASSERT(heard_ == model_);
    auto expected = model_.begin();
    for (auto row = table.begin(); row; row.next()) expectAt(row, expected++);
    RC_ASSERT(expected == model_.end());
    for (uint32_t n = 0; n < 14; ++n) {
      auto found = model_.find(Traits::key(n));
      Zavro::Ptr<const Kor::ValueEntity> row = Traits::row(*mib_, n);
      RC_ASSERT(row == (found == model_.end() ? nullptr : found->second));
    }
  }

  Rows model_;
  Rows heard_;
  std::list<typename Table::Cursor> walks_;
  uint32_t changes_ = 0;
  uint32_t replacements_ = 0;
  uint32_t published_ = 0;
  Zavro::Ptr<TrelMib> mib_ = TrelSnmp::trelMibFactory("trelMib");
  Kor::Subscription subscription_;
};

template <class Traits>
class TrelMibPropertyTest : public testing::Test {};
using AllTables = testing::Types<IfTableTraits, ReachabilityTableTraits, HrSystemTableTraits,
                                 ProcessorTableTraits, HrStorageTableTraits>;
TYPED_TEST_SUITE(TrelMibPropertyTest, AllTables);

TYPED_TEST(TrelMibPropertyTest, RandomChanges_EqualAMap_AndWalksMissNothing) {
  EXPECT_TRUE(rc::check([](const std::vector<Step>& steps) {
    Scenario<TypeParam> scenario;
    for (const Step& step : steps) scenario.run(step);
    scenario.end();
  }));
}

RC_GTEST_PROP(KeysPropertyTest, AnyKey_ComparesAsItsPairOfNumbers_AndIsReadBackFromItsText,
              (uint32_t a1, uint32_t a2, uint32_t b1, uint32_t b2, bool sameFirst)) {
  if (sameFirst) b1 = a1;
  TrelSnmp::MemberIdPair a(a1, a2), b(b1, b2);
  RC_ASSERT((a <=> b) == (std::tuple(a1, a2) <=> std::tuple(b1, b2)));
  RC_ASSERT(TrelSnmp::MemberIdPair::fromText(a.text()) == a);
}

RC_GTEST_PROP(KeysPropertyTest, AnyText_IsAKeyOrAParseError, (const std::string& text)) {
  for (const std::string& candidate : {text, "(firstId=" + text, "(firstId=1, secondId=" + text}) {
    try {
      TrelSnmp::MemberIdPair::fromText(candidate);
    } catch (const Kor::ParseException&) {
    }
  }
}

}  // namespace
