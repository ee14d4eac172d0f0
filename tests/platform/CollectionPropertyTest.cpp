// Random changes to a collection, with cursors that walk meanwhile, beside a std::map.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <list>
#include <map>
#include <set>

#include "platform/kor/Collection.h"

using Numbers = Kor::Collection<uint8_t, int>;

struct Step {
  enum Kind : uint8_t { set, del, openCursor, moveCursors, kinds };
  Kind kind;
  uint8_t key;
  int value;
};

void showValue(const Step& step, std::ostream& out) {
  static constexpr const char* kNames[] = {"set", "del", "openCursor", "moveCursors"};
  out << kNames[step.kind] << "(" << int{step.key} << ", " << step.value << ")";
}

template <>
struct rc::Arbitrary<Step> {
  static Gen<Step> arbitrary() {
    return gen::build<Step>(gen::set(&Step::kind, gen::map(gen::inRange<int>(0, Step::kinds),
                                                           [](int k) { return Step::Kind(k); })),
                            gen::set(&Step::key, gen::inRange<uint8_t>(0, 12)), gen::set(&Step::value));
  }
};

namespace {

// A cursor beside what it may and must see.
struct Walk {
  Numbers::Cursor cursor;
  std::set<uint8_t> owed;  // ahead of it all the time since it was opened
};

class Scenario {
 public:
  Scenario() {
    subscription_ = numbers_.subscribe([this](uint8_t key) {
      auto expected = model_.find(key);
      const int* found = numbers_.find(key);
      RC_ASSERT((found != nullptr) == (expected != model_.end()));
      if (found) RC_ASSERT(*found == expected->second);
      ++notified_;
    });
  }

  void run(const Step& step) {
    switch (step.kind) {
      case Step::set:
        model_[step.key] = step.value;
        ++changes_;
        numbers_.set(step.key, step.value);
        break;
      case Step::del: {
        bool existed = model_.erase(step.key) == 1;
        changes_ += existed ? 1 : 0;
        RC_ASSERT(numbers_.del(step.key) == existed);
        for (Walk& walk : walks_) walk.owed.erase(step.key);
        break;
      }
      case Step::openCursor:
        open(step.key);
        break;
      default:
        for (Walk& walk : walks_) move(walk);
        walks_.remove_if([](const Walk& walk) { return !walk.cursor; });
    }
    check();
  }

  void finishWalks() {
    for (Walk& walk : walks_) {
      while (walk.cursor) move(walk);
      RC_ASSERT(walk.owed.empty());
    }
  }

 private:
  void open(uint8_t key) {
    Walk walk{numbers_.from(key), {}};
    auto first = model_.lower_bound(key);
    RC_ASSERT(bool(walk.cursor) == (first != model_.end()));
    if (!walk.cursor) return;
    RC_ASSERT(walk.cursor.key() == first->first);
    for (auto it = std::next(first); it != model_.end(); ++it) walk.owed.insert(it->first);
    walks_.push_back(walk);
  }

  void move(Walk& walk) {
    uint8_t before = walk.cursor.key();
    walk.cursor.next();
    auto expected = model_.upper_bound(before);
    RC_ASSERT(bool(walk.cursor) == (expected != model_.end()));
    if (!walk.cursor) return;
    RC_ASSERT(walk.cursor.key() == expected->first);
    walk.owed.erase(walk.cursor.key());
  }

  void check() {
    RC_ASSERT(numbers_.size() == model_.size());
    RC_ASSERT(numbers_.version() == changes_);
    RC_ASSERT(notified_ == changes_);
    auto expected = model_.begin();
    for (auto cursor = numbers_.begin(); cursor; cursor.next(), ++expected) {
      RC_ASSERT(cursor.key() == expected->first);
    }
    RC_ASSERT(expected == model_.end());
  }

  std::map<uint8_t, int> model_;
  std::list<Walk> walks_;
  uint32_t changes_ = 0;
  uint32_t notified_ = 0;
  Numbers numbers_;
  Kor::Subscription subscription_;
};

RC_GTEST_PROP(CollectionPropertyTest, RandomChanges_EqualAMap_AndCursorsMissNothing,
              (const std::vector<Step>& steps)) {
  Scenario scenario;
  for (const Step& step : steps) scenario.run(step);
  scenario.finishWalks();
}

}  // namespace
