// SNMP walks of a run, made of single calls of the registered tables' callbacks, as net-snmp makes them:
// first, next, make a data context, hand it to the handler, free it. Between any two of them the tables
// change.
//
// What a call is to give follows from the rows as they were published: the first row, the hinted row, or the
// first one after the row at which the walk stands. What a held row is to show is noted when the walk gets to
// it. From each hint and row the handler of the direct answers is asked too: GET, GETNEXT and GETBULK from
// each column, for what follows from the same rows.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "platform/snmp/RegVoidCollByContext.h"
#include "tests/simulation/Observer.h"
#include "tests/snmp-modules/Callbacks.h"

namespace Simulation {

// The values of a row as columns show them.
struct Shown {
  TableId table{};
  Key key;
  Row row;
  // reachability
  uint32_t state = 0;
  std::optional<std::string> interface {};
  uint64_t lastChangeNs = 0;
  // storage
  uint32_t units = 0;
  uint32_t size = 0;
  uint32_t used = 0;
};

class Walker {
 public:
  // set: whose MIB state object is registered.
  Walker(Observer& observer, const State& state, size_t set, TableId table);
  ~Walker();
  Walker(const Walker&) = delete;
  Walker& operator=(const Walker&) = delete;

  TableId table() const { return table_; }
  void first(uint32_t draw);
  // False when the walk has not begun.
  bool next();
  // Holds the row at which the walk stands. False when there is none, or too many are held.
  bool hold(bool takeAlong);
  bool read(uint32_t draw);
  bool drop(uint32_t draw);

 private:
  struct Held {
    void* context;
    std::optional<Shown> shown;  // none: the walk took it along past the end
  };
  using Counters = std::array<uint64_t, Snmp::TableCounters::kKinds>;

  void stand(const std::string& got, std::optional<Key> expected);
  // Asks from this index, which may be of a row that is there or not, or shorter or longer than one.
  void askDirectly(const std::vector<uint32_t>& index);
  void expectDirect(int mode, const std::string& name, int repetitions, const std::string& expected);
  std::string cellText(unsigned column, const Key& key) const;
  void expectCounted(const Counters& before,
                     std::initializer_list<Snmp::OrderedTableIteratorCounterTypes> kinds);
  Counters counters() const;
  void visitedAll();
  std::optional<Shown> shownAt(const Key& key) const;
  std::string expectedColumn(const Shown& shown, unsigned column) const;
  std::vector<SnmpTest::Component> hint(uint32_t draw, std::optional<Key>& exact);

  Observer& observer_;
  const State& state_;
  const size_t set_;
  const TableId table_;
  SnmpTest::DirectWalk walk_;
  bool begun_ = false;
  std::optional<Shown> at_;  // the row at which the walk stands; none: past the end
  uint64_t begunAt_ = 0;     // step
  std::vector<Key> visited_;
  std::vector<Held> held_;
  std::optional<size_t> takenAlong_;  // place in held_
};

}  // namespace Simulation
