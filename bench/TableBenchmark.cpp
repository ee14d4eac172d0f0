// The MIB state object's tables beside the bare ordered trees that they stand on: a std::map of the same
// keys, and an intrusive tree of nodes that hold only the key. Beyond the tree, a table counts references to
// its rows, compares values, counts changes and publishes them.
#include <boost/intrusive/set.hpp>
#include <map>
#include <numeric>
#include <vector>

#include "bench/Ratio.h"
#include "tests/mib-state/TableTraits.h"
#include "tests/support/Random.h"

namespace {

// As many rows as 256 members that all report each other have.
constexpr uint32_t kRows = 256 * 255;

// The numbers of the rows in an order that is random and always the same.
const std::vector<uint32_t>& shuffled() {
  static const std::vector<uint32_t> numbers = [] {
    std::vector<uint32_t> order(kRows);
    std::iota(order.begin(), order.end(), 0u);
    Support::Random(1).shuffle(order);
    return order;
  }();
  return numbers;
}

// The table of a MIB state object; its rows' records exist beforehand.
template <class Traits>
class MibTable {
 public:
  using Cursor = typename Traits::Table::Cursor;
  MibTable() {
    for (uint32_t n = 0; n < kRows; ++n) records_.push_back(Traits::record(n));
  }
  void insert(uint32_t n) { Traits::is(*mib_, n, records_[n]); }
  void erase(uint32_t n) { Traits::del(*mib_, Traits::key(n)); }
  bool contains(uint32_t n) const { return Traits::row(*mib_, n) != nullptr; }
  size_t walk() const {
    size_t rows = 0;
    for (auto row = Traits::table(*mib_).begin(); row; row.next()) ++rows;
    return rows;
  }
  bool empty() const { return Traits::table(*mib_).empty(); }
  void clear() { Traits::delAll(*mib_); }

 private:
  std::vector<typename Traits::Record> records_;
  Zavro::Ptr<TrelSnmp::TrelMib> mib_ = TrelSnmp::trelMibFactory("trelMib");
};

template <class Traits>
class StdMap {
 public:
  void insert(uint32_t n) { rows_.emplace(Traits::key(n), n); }
  void erase(uint32_t n) { rows_.erase(Traits::key(n)); }
  bool contains(uint32_t n) const { return rows_.find(Traits::key(n)) != rows_.end(); }
  size_t walk() const {
    size_t rows = 0;
    for (auto row = rows_.begin(); row != rows_.end(); ++row) ++rows;
    return rows;
  }
  bool empty() const { return rows_.empty(); }
  void clear() { rows_.clear(); }

 private:
  std::map<typename Traits::Table::Key, uint32_t> rows_;
};

template <class Traits>
class BareTree {
 public:
  ~BareTree() { clear(); }
  void insert(uint32_t n) { rows_.insert(*new Node(Traits::key(n))); }
  void erase(uint32_t n) { rows_.erase_and_dispose(rows_.find(Traits::key(n)), std::default_delete<Node>()); }
  bool contains(uint32_t n) const { return rows_.find(Traits::key(n)) != rows_.end(); }
  size_t walk() const {
    size_t rows = 0;
    for (auto row = rows_.begin(); row != rows_.end(); ++row) ++rows;
    return rows;
  }
  bool empty() const { return rows_.empty(); }
  void clear() { rows_.clear_and_dispose(std::default_delete<Node>()); }

 private:
  using Key = typename Traits::Table::Key;
  struct Node : TrelSnmp::TableHook {
    explicit Node(Key k) : key(k) {}
    Key key;
  };
  struct KeyOf {
    using type = Key;
    const Key& operator()(const Node& node) const { return node.key; }
  };
  boost::intrusive::set<Node, boost::intrusive::key_of_value<KeyOf>,
                        boost::intrusive::constant_time_size<false>>
      rows_;
};

enum class Work { insert, erase, lookup, walk };

// The same work on any of the three.
template <class Rows>
class TableWork final : public Bench::Subject {
 public:
  explicit TableWork(Work work) : work_(work) {}

  void prepare() override {
    if (work_ == Work::insert) {
      rows_.clear();
    } else if (rows_.empty()) {
      for (uint32_t n : shuffled()) rows_.insert(n);
    }
  }

  void run() override {
    size_t found = 0;
    switch (work_) {
      case Work::insert:
        for (uint32_t n : shuffled()) rows_.insert(n);
        break;
      case Work::erase:
        for (uint32_t n : shuffled()) rows_.erase(n);
        break;
      case Work::lookup:
        for (uint32_t n : shuffled()) found += rows_.contains(n) ? 1 : 0;
        break;
      case Work::walk:
        found = rows_.walk();
    }
    Bench::keep(found);
  }

 private:
  const Work work_;
  Rows rows_;
};

template <class Rows>
Bench::MakeSubject subject(Work work) {
  return [work] { return std::make_unique<TableWork<Rows>>(work); };
}

template <class Traits>
bool registerTable() {
  for (auto [work, name] : {std::pair{Work::insert, "insert"},
                            {Work::erase, "delete"},
                            {Work::lookup, "lookup"},
                            {Work::walk, "walk"}}) {
    std::string prefix = fmt::format("{}/{}/beside_", Traits::kName, name);
    auto ours = subject<MibTable<Traits>>(work);
    Bench::ratio(prefix + "intrusive_set", kRows, ours, subject<BareTree<Traits>>(work));
    Bench::ratio(prefix + "std_map", kRows, ours, subject<StdMap<Traits>>(work));
  }
  return true;
}

[[maybe_unused]] const bool registered =
    registerTable<IfTableTraits>() && registerTable<ReachabilityTableTraits>() &&
    registerTable<HrSystemTableTraits>() && registerTable<ProcessorTableTraits>() &&
    registerTable<HrStorageTableTraits>();

}  // namespace
