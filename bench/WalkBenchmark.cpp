// A manager's walk over a column, row by row, beside its GET of a scalar of the same agent. Both cost a round
// trip over UDP; what a row costs beyond the scalar is the agent's way to the row.
#include <fmt/format.h>

#include <vector>

#include "bench/Cluster.h"
#include "bench/Ratio.h"
#include "bench/SnmpSession.h"
#include "tests/e2e/Daemon.h"

namespace {

// Rows of the largest cluster, and how many of them one turn walks over.
constexpr int kMembers = 255;
constexpr size_t kRowsPerTurn = 1000;
constexpr size_t kGetsPerTurn = 1000;

using Bench::Oid;
using Bench::oidOf;
using Bench::SnmpSession;
using Bench::upTime;

// A column of each kind of value, by its place below the maker's MIB modules: an INTEGER, octets, an object
// identifier.
constexpr const char* kReachabilityState = "40.1.2.1.4";
constexpr const char* kStorageDescr = "41.1.3.1.4";
constexpr const char* kStorageType = "41.1.3.1.3";

// One daemon for all benchmarks, started by the first.
const E2e::Daemon& daemonWithAllRows() {
  static E2e::Daemon daemon;
  static const bool started = [] {
    daemon.stateIs(Bench::documentOf(kMembers)).start();
    return true;
  }();
  static_cast<void>(started);
  return daemon;
}

class ScalarGets final : public Bench::Subject {
 public:
  void run() override {
    for (size_t i = 0; i < kGetsPerTurn; ++i) Bench::keep(session_.ask(SNMP_MSG_GET, upTime()).size());
  }

 private:
  SnmpSession session_{daemonWithAllRows().address()};
};

// Goes on where its last turn ended; at the end of the column it starts again.
class ColumnWalk final : public Bench::Subject {
 public:
  ColumnWalk(const char* column, long rowsPerRequest)
      : column_(oidOf(fmt::format("1.3.6.1.4.1.{}.3.{}", TREL_ENTERPRISE_NUMBER, column))),
        rowsPerRequest_(rowsPerRequest) {}

  void run() override {
    for (size_t rows = 0; rows < kRowsPerTurn;) {
      auto names = rowsPerRequest_ == 1 ? session_.ask(SNMP_MSG_GETNEXT, at_)
                                        : session_.ask(SNMP_MSG_GETBULK, at_, rowsPerRequest_);
      rows += names.size();
      bool inColumn = std::equal(column_.begin(), column_.end(), names.back().begin());
      at_ = inColumn ? names.back() : column_;
    }
  }

 private:
  const Oid column_;
  const long rowsPerRequest_;
  SnmpSession session_{daemonWithAllRows().address()};
  Oid at_ = column_;
};

bool registerWalk(const char* name, const char* column, long rowsPerRequest) {
  return Bench::ratio(
      fmt::format("walk/{}/beside_scalar_get", name), kRowsPerTurn,
      [=] { return std::make_unique<ColumnWalk>(column, rowsPerRequest); }, kGetsPerTurn,
      [] { return std::make_unique<ScalarGets>(); });
}

[[maybe_unused]] const bool registered = registerWalk("getnext_per_row", kReachabilityState, 1) &&
                                         registerWalk("getbulk_25_per_row", kReachabilityState, 25) &&
                                         registerWalk("descr/getbulk_25_per_row", kStorageDescr, 25) &&
                                         registerWalk("type/getbulk_25_per_row", kStorageType, 25);

}  // namespace
