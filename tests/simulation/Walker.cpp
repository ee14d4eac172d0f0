#include "tests/simulation/Walker.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "platform/snmp/RegVoidCollByContext.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"
#include "tests/simulation/Universe.h"
#include "tests/support/Random.h"

namespace Simulation {
namespace {

using Turn = Snmp::OrderedTableIteratorCounterTypes;

constexpr size_t kMostHeld = 6;

// How a table is served.
struct Served {
  const char* name;
  const char* at;  // for SnmpTest::DirectWalk
  Netsnmp_Node_Handler* handler;
  std::vector<u_char> index;
  std::vector<unsigned> columns;
};

const Served& served(TableId table) {
  static const std::array<Served, kTables> kServed = {{
      {"veldaTrelBaIfTable", "1", &veldaTrelBaIfTable_handler, {ASN_INTEGER}, {2, 3}},
      {"veldaTrelReachabilityTable",
       "2",
       &veldaTrelReachabilityTable_handler,
       {ASN_INTEGER, ASN_INTEGER},
       {3, 4, 5}},
      {"veldaTrelHrSystemTable", "hr.1", &veldaTrelHrSystemTable_handler, {ASN_INTEGER}, {2, 3, 4, 5, 6}},
      {"veldaTrelProcessorTable", "hr.2", &veldaTrelProcessorTable_handler, {ASN_INTEGER, ASN_UNSIGNED}, {3}},
      {"veldaTrelStorageTable",
       "hr.3",
       &veldaTrelStorageTable_handler,
       {ASN_INTEGER, ASN_INTEGER},
       {3, 4, 5, 6, 7}},
  }};
  return kServed[static_cast<size_t>(table)];
}

std::string indexText(const Key& key, size_t parts) {
  return parts == 1 ? fmt::format("{}", key.first) : fmt::format("{}.{}", key.first, key.second);
}

std::string dateText(double seconds) {
  using namespace std::chrono;
  auto tenths = static_cast<int64_t>(seconds * 10 + 0.5);
  sys_time<duration<int64_t, std::deci>> time{duration<int64_t, std::deci>(tenths)};
  auto day = floor<days>(time);
  year_month_day date{day};
  hh_mm_ss clock{time - day};
  auto year = static_cast<unsigned>(static_cast<int>(date.year()));
  return fmt::format("x:{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}2b0000", year >> 8, year & 0xff,
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count(), tenths % 10);
}

// An INTEGER of 32 bits as net-snmp reads it back.
std::string integer(uint32_t value) { return fmt::format("i:{}", static_cast<int32_t>(value)); }

const char* kGeneralError = "error 5";

}  // namespace

Walker::Walker(Observer& observer, const State& state, size_t set, TableId table)
    : observer_(observer), state_(state), set_(set), table_(table), walk_(served(table).at) {}

Walker::~Walker() {
  for (size_t i = 0; i < held_.size(); ++i) {
    if (takenAlong_ != i) walk_.freeData(held_[i].context);  // that one is the walk's
  }
}

Walker::Counters Walker::counters() const {
  Counters all{};
  Snmp::RegVoid* record = Snmp::RegVoidCollByContext::singleton()->regVoid("", served(table_).name);
  for (size_t kind = 0; kind < all.size(); ++kind) {
    all[kind] = record->counters().orderedIterCntr(static_cast<Turn>(kind));
  }
  return all;
}

void Walker::expectCounted(const Counters& before, std::initializer_list<Turn> kinds) {
  Counters expected = before;
  for (Turn kind : kinds) ++expected[static_cast<size_t>(kind)];
  if (counters() != expected)
    observer_.fail(fmt::format("a walk of {} is counted wrongly", served(table_).name));
}

std::optional<Shown> Walker::shownAt(const Key& key) const {
  Shown shown{.table = table_, .key = key, .row = observer_.rows(set_, table_).at(key).row};
  const TrelSnmp::TrelMib& mib = *state_.set(set_).mib;
  if (table_ == TableId::reachability) {
    const auto& record = *mib.trelReachabilityTable({key.first, key.second})->reachabilityState();
    shown.state = record.state();
    if (record.backplaneChannelIntfId()) shown.interface = record.backplaneChannelIntfId()->name();
    shown.lastChangeNs = record.lastChangeNs();
  }
  if (table_ == TableId::storage) {
    auto entry = mib.trelHrStorageTable({key.first, key.second});
    if (shown.row.y == kMountRow) {
      const auto& info = *static_cast<const TrelSnmp::TrelHrStorageEntryMount&>(*entry).storageInfo();
      shown.units = info.allocationUnits();
      shown.size = static_cast<uint32_t>(info.size());
      shown.used = static_cast<uint32_t>(info.size()) - static_cast<uint32_t>(info.free());
    } else {
      const auto& amounts = static_cast<const TrelSnmp::TrelHrStorageEntryMem&>(*entry).memInfo()->amounts();
      shown.units = 1024;
      shown.size = amounts.total.value_or(0);
      auto without = [&](const std::optional<uint32_t>& amount) { return shown.size - amount.value_or(0); };
      if (shown.size != 0) {
        switch (key.second) {
          case 1:
            shown.used = without(amounts.free);
            break;
          case 100:
            shown.used = without(amounts.available);
            break;
          case 2:
            shown.used = without(amounts.nonBuffer);
            break;
          case 3:
            shown.used = without(amounts.nonCache);
            break;
          default:
            break;
        }
      }
    }
  }
  return shown;
}

// The index of a row that is there, of one that is not, or of no row at all.
std::vector<SnmpTest::Component> Walker::hint(uint32_t draw, std::optional<Key>& exact) {
  Support::Random random(draw);
  const auto& types = served(table_).index;
  const auto& table = observer_.rows(set_, table_);
  Key key{random.below(4), types.size() == 2 ? random.below(4) : 0};
  if (!table.empty() && random.percent(70)) {
    key = random.of(table).first;
  }
  if (random.percent(20)) {
    // One beside it, also beyond what fits.
    (types.size() == 1 || random.percent(50) ? key.first : key.second) += random.percent(50) ? 1U : ~0U;
  }
  std::vector<SnmpTest::Component> components = {{key.first, types[0]}};
  if (types.size() == 2) components.push_back({key.second, types[1]});
  if (table.contains(key)) exact = key;
  SnmpTest::Component& one = random.of(components);
  switch (random.below(12)) {
    case 0:
      one.type = one.type == ASN_INTEGER ? ASN_UNSIGNED : ASN_INTEGER;
      exact.reset();
      break;
    case 1:
      one.value = random.percent(50) ? -1 : 0x100000000;
      exact.reset();
      break;
    case 2:
      components.pop_back();
      exact.reset();
      break;
    case 3:
      components.push_back({1, ASN_INTEGER});
      exact.reset();
      break;
    default:
      break;
  }
  return components;
}

void Walker::first(uint32_t draw) {
  std::optional<Key> exact;
  Counters before = counters();
  bool wholeHint = false;
  std::vector<uint32_t> asked;
  std::string got;
  if (draw % 3 == 0) {
    got = walk_.first();
  } else {
    auto components = hint(draw, exact);
    const auto& types = served(table_).index;
    wholeHint = components.size() == types.size();
    for (size_t i = 0; wholeHint && i < types.size(); ++i) {
      wholeHint =
          components[i].type == types[i] && components[i].value >= 0 && components[i].value <= 0xffffffff;
    }
    got = walk_.first(components);
    for (const SnmpTest::Component& component : components) {
      asked.push_back(static_cast<uint32_t>(component.value));
    }
  }
  const auto& table = observer_.rows(set_, table_);
  if (exact) {
    expectCounted(before, {Turn::hintMatched});
  } else if (wholeHint) {
    expectCounted(before, {Turn::hintKeyNotFound, Turn::startedAtFirst});
  } else {
    expectCounted(before, {Turn::startedAtFirst});
  }
  if (!asked.empty()) askDirectly(asked);
  begun_ = true;
  begunAt_ = observer_.steps();
  visited_.clear();
  // The data context that the walk took along stays with its row until the walk moves on.
  stand(got, exact ? exact : table.empty() ? std::nullopt : std::optional(table.begin()->first));
}

bool Walker::next() {
  if (!begun_) return false;
  Counters before = counters();
  bool wasAtEnd = !at_;
  std::string got = walk_.next();
  const auto& table = observer_.rows(set_, table_);
  std::optional<Key> expected;
  if (at_) {
    auto after = table.upper_bound(at_->key);
    if (after != table.end()) expected = after->first;
  }
  expectCounted(before, {wasAtEnd ? Turn::nextAfterEnd : expected ? Turn::advanced : Turn::reachedEnd});
  if (at_) {
    askDirectly(served(table_).index.size() == 1 ? std::vector{at_->key.first}
                                                 : std::vector{at_->key.first, at_->key.second});
  }
  stand(got, expected);
  if (takenAlong_ && !wasAtEnd) held_[*takenAlong_].shown = at_;
  if (!at_ && !wasAtEnd) visitedAll();
  return true;
}

// The walk has got somewhere.
void Walker::stand(const std::string& got, std::optional<Key> expected) {
  observer_.looked();
  observer_.note(got);
  std::string text = expected ? indexText(*expected, served(table_).index.size()) : "end";
  if (got != text) {
    at_.reset();
    return observer_.fail(
        fmt::format("a walk of {} gets to {} instead of {}", served(table_).name, got, text));
  }
  at_ = expected ? shownAt(*expected) : std::nullopt;
  if (!at_) return;
  if (!visited_.empty() && !(visited_.back() < at_->key)) {
    observer_.fail(fmt::format("a walk of {} does not advance at {}", served(table_).name, got));
  }
  visited_.push_back(at_->key);
}

std::string Walker::cellText(unsigned column, const Key& key) const {
  const Served& as = served(table_);
  return fmt::format("{}.1.{}.{}={}", as.at, column, indexText(key, as.index.size()),
                     expectedColumn(*shownAt(key), column));
}

void Walker::askDirectly(const std::vector<uint32_t>& index) {
  constexpr int kRepetitions = 4;
  const Served& as = served(table_);
  const auto& rows = observer_.rows(set_, table_);
  Key key{index[0], index.size() > 1 && as.index.size() > 1 ? index[1] : 0};
  bool isWhole = index.size() == as.index.size();
  auto firstBehind = index.size() < as.index.size() ? rows.lower_bound(key) : rows.upper_bound(key);
  for (size_t place = 0; place < as.columns.size(); ++place) {
    std::string name = fmt::format("{}.1.{}.{}", as.at, as.columns[place], fmt::join(index, "."));
    bool isThere = isWhole && rows.contains(key);
    std::string got = isThere ? cellText(as.columns[place], key) : name + "=noSuchInstance";
    bool failed = got.ends_with(kGeneralError);
    expectDirect(MODE_GET, name, 1, failed ? "5: error 5" : "0: " + got);

    // The cells behind it, to the end of the table.
    std::string all = "0:";
    size_t column = place;
    auto row = firstBehind;
    for (int i = 0; i < kRepetitions; ++i) {
      while (column < as.columns.size() && row == rows.end()) {
        row = rows.begin();
        ++column;
        if (rows.empty()) column = as.columns.size();
      }
      bool atEnd = column == as.columns.size();
      std::string cell = atEnd ? "end" : cellText(as.columns[column], row->first);
      if (cell.ends_with(kGeneralError)) cell = i == 0 ? kGeneralError : "again";
      if (cell == kGeneralError) all = "5:";
      all += ' ' + cell;
      if (i == 0) expectDirect(MODE_GETNEXT, name, 1, all);
      if (atEnd || cell == kGeneralError || cell == "again") break;
      ++row;
    }
    expectDirect(MODE_GETBULK, name, kRepetitions, all);
  }
}

void Walker::expectDirect(int mode, const std::string& name, int repetitions, const std::string& expected) {
  std::string got = SnmpTest::askDirectly(served(table_).at, mode, name, repetitions);
  observer_.note(got);
  if (got == expected) return;
  observer_.fail(
      fmt::format("a direct answer in mode {} to {} is {} instead of {}", mode, name, got, expected));
}

// Whatever was there all the time from where the walk began.
void Walker::visitedAll() {
  if (visited_.empty()) return;
  auto visited = visited_.begin();
  const auto& table = observer_.rows(set_, table_);
  for (auto row = table.lower_bound(visited_.front()); row != table.end(); ++row) {
    while (visited != visited_.end() && *visited < row->first) ++visited;
    bool seen = visited != visited_.end() && *visited == row->first;
    if (!seen && row->second.born < begunAt_) {
      observer_.fail(fmt::format("a walk of {} missed {}", served(table_).name, row->first.text()));
    }
  }
}

bool Walker::hold(bool takeAlong) {
  if (!begun_ || held_.size() >= kMostHeld || (takeAlong && takenAlong_)) return false;
  if (takeAlong) takenAlong_ = held_.size();
  held_.push_back({walk_.makeData(takeAlong), at_});
  return true;
}

bool Walker::drop(uint32_t draw) {
  if (held_.empty()) return false;
  size_t place = draw % held_.size();
  if (takenAlong_ == place) return false;
  walk_.freeData(held_[place].context);
  held_.erase(held_.begin() + static_cast<long>(place));
  if (takenAlong_ && *takenAlong_ > place) --*takenAlong_;
  return true;
}

bool Walker::read(uint32_t draw) {
  if (held_.empty()) return false;
  Support::Random random(draw);
  Held& held = random.of(held_);
  const auto& columns = served(table_).columns;
  // Sometimes one that is not served.
  unsigned column = random.percent(5) ? random.below(9) : random.of(columns);
  bool isServed = std::find(columns.begin(), columns.end(), column) != columns.end();
  bool set = random.percent(3);
  std::string got = SnmpTest::handle(served(table_).handler, set ? MODE_SET_RESERVE1 : MODE_GET,
                                     {{.column = column, .dataContext = held.context}});
  observer_.note(got);
  std::string expected;
  if (set) {
    expected = "0: error 17";
  } else if (!held.shown) {
    expected = "0: untouched";
  } else if (!isServed) {
    expected = "0: noSuchObject";
  } else {
    expected = expectedColumn(*held.shown, column);
    expected = (expected == kGeneralError ? "5: " : "0: ") + expected;
  }
  if (got != expected) {
    observer_.fail(fmt::format("column {} of a held row {} of {} reads {} instead of {}", column,
                               held.shown ? held.shown->key.text() : "past the end", served(table_).name, got,
                               expected));
  }
  return true;
}

std::string Walker::expectedColumn(const Shown& shown, unsigned column) const {
  const Row& row = shown.row;
  switch (table_) {
    case TableId::baIf:
      return integer(column == 2 ? row.x : row.y);
    case TableId::reachability: {
      if (column == 4)
        return integer(shown.state < Kor::kNames<Trel::ReachabilityState::State>.size() ? shown.state + 1
                                                                                        : 0);
      if (column == 3) {
        const auto& indexes = state_.set(row.x).ifMib->ifIndexByIntfId();
        const uint32_t* index = indexes.find(Lanix::IntfId(shown.interface.value_or("")));
        return integer(index != nullptr ? *index : 0);
      }
      // A change in the future reads as the uptime of now, which is anything, and a tick counts as full from
      // a thousandth before its end on.
      constexpr uint64_t kSecondNs = 1'000'000'000;
      uint64_t changed = std::min(shown.lastChangeNs, state_.nowNs());
      uint64_t uptime = changed - std::min(changed, kAgentStart * kSecondNs);
      double ticks = std::floor(static_cast<double>(uptime) / 1e9 * 100 + 1e-3);
      return fmt::format("t:{}", static_cast<uint32_t>(static_cast<uint64_t>(ticks)));
    }
    case TableId::system: {
      const auto& figures = state_.figures(row.record);
      switch (column) {
        case 2:
          if (figures.systemUptime < 0) return kGeneralError;
          return fmt::format("t:{}", static_cast<uint32_t>(figures.systemUptime * 100 + 0.5));
        case 3:
          return dateText(figures.currentTimeUtc);
        case 4:
          return fmt::format("u:{}", figures.systemNumUsers);
        case 5:
          return fmt::format("u:{}", figures.systemProcesses);
        default:
          return integer(figures.memorySize);
      }
    }
    case TableId::processor:
      return fmt::format("i:{}", static_cast<int16_t>(static_cast<uint16_t>(row.record)));
    default:
      switch (column) {
        case 3:
          return "o:" + mappingType(row.x);
        case 4: {
          std::string description = mappingDescription(row.x);
          return description.size() > 255 ? kGeneralError : "s:" + description;
        }
        case 5:
          return integer(shown.units);
        case 6:
          return integer(shown.size);
        default:
          return integer(shown.used);
      }
  }
}

}  // namespace Simulation
