// The pipelines beside the bare ordered maps of the same rows: what a change costs until its row stands, and
// what a start over a whole cluster costs. And, for the backplane interface pipeline, what the change of one
// interface's index costs in clusters of several sizes, beside bare loops over the same links.
#include <map>
#include <string>

#include "bench/Ratio.h"
#include "pipelines/TrelSnmpIfTableSm.h"
#include "pipelines/TrelSnmpReachabilityTableSm.h"

namespace {

using namespace TrelSnmp;
using TrelSnmp::Agent::TrelSnmpIfTableSm;
using TrelSnmp::Agent::TrelSnmpReachabilityTableSm;

constexpr uint32_t kMembers = 256;
constexpr uint32_t kRows = kMembers * (kMembers - 1);

Rvx::SmControl synchronous() {
  Rvx::SmControl control;
  control.mode = Rvx::Mode::synchronous;
  return control;
}

using Record = Zavro::Ptr<const Trel::ReachabilityState>;

Record record(uint32_t n) {
  auto state =
      static_cast<Trel::ReachabilityState::State>(n % Kor::kNames<Trel::ReachabilityState::State>.size());
  return Zavro::makePtr<const Trel::ReachabilityState>(state, std::nullopt, n);
}

// Every member reports every other one.
class Reachability {
 public:
  Reachability() {
    for (uint32_t m = 0; m < kMembers; ++m) {
      auto member = Zavro::makePtr<Trel::ReachabilityStatus>(std::to_string(m));
      for (uint32_t n = 0; n < kMembers; ++n) {
        if (n != m) member->reachabilityStatus().set(Trel::MemberId(static_cast<uint8_t>(n)), record(n));
      }
      dir_->entityPtrIs(member);
    }
  }
  void start() {
    sm_ = Agent::trelSnmpReachabilityTableSmFactory(dir_, Zavro::makePtr<IntfSnmp::IfMib>("ifMib"), mib_,
                                                    synchronous());
  }
  void stop() { sm_.reset(); }
  Trel::ReachabilityStatus::Reachability& reported(uint32_t member) {
    return dynamic_cast<Trel::ReachabilityStatus&>(*dir_->entityPtr(std::to_string(member)))
        .reachabilityStatus();
  }
  size_t rows() const { return mib_->trelReachabilityTable().size(); }

 private:
  Zavro::Ptr<Kor::Dir> dir_ = Zavro::makePtr<Kor::Dir>("reachabilityDir");
  Zavro::Ptr<TrelMib> mib_ = trelMibFactory("trelMib");
  Zavro::Ptr<TrelSnmpReachabilityTableSm> sm_;
};

// One change of each of a member's neighbours, in a cluster whose rows all stand.
class ReachabilityChanges final : public Bench::Subject {
 public:
  ReachabilityChanges() { cluster_.start(); }
  void prepare() override {
    for (uint32_t n = 1; n < kMembers; ++n) records_[n] = record(n);
  }
  void run() override {
    auto& reported = cluster_.reported(0);
    for (uint32_t n = 1; n < kMembers; ++n)
      reported.set(Trel::MemberId(static_cast<uint8_t>(n)), records_[n]);
    Bench::keep(cluster_.rows());
  }

 private:
  Reachability cluster_;
  std::map<uint32_t, Record> records_;
};

class ReachabilityStart final : public Bench::Subject {
 public:
  void prepare() override { cluster_.stop(); }
  void run() override {
    cluster_.start();
    Bench::keep(cluster_.rows());
  }

 private:
  Reachability cluster_;
};

// The same rows in a bare map.
class BareRows {
 public:
  BareRows() {
    for (uint32_t n = 0; n < kMembers; ++n) records_.push_back(record(n));
  }
  void fill() {
    for (uint32_t m = 0; m < kMembers; ++m) {
      for (uint32_t n = 0; n < kMembers; ++n) {
        if (n != m) rows_.emplace(MemberIdPair(m, n), records_[n]);
      }
    }
  }
  void clear() { rows_.clear(); }
  void replace(uint32_t n) {
    rows_.erase(MemberIdPair(0, n));
    rows_.emplace(MemberIdPair(0, n), records_[n]);
  }
  size_t size() const { return rows_.size(); }

 private:
  std::vector<Record> records_;
  std::map<MemberIdPair, Record> rows_;
};

class BareChanges final : public Bench::Subject {
 public:
  BareChanges() { rows_.fill(); }
  void run() override {
    for (uint32_t n = 1; n < kMembers; ++n) rows_.replace(n);
    Bench::keep(rows_.size());
  }

 private:
  BareRows rows_;
};

class BareStart final : public Bench::Subject {
 public:
  void prepare() override { rows_.clear(); }
  void run() override {
    rows_.fill();
    Bench::keep(rows_.size());
  }

 private:
  BareRows rows_;
};

std::string intfName(uint32_t member, uint32_t neighbour) {
  return fmt::format("Backplane{}/{}", member, neighbour);
}

// Members 1 to size, each wired to each other one over an interface of its own.
class Wiring {
 public:
  explicit Wiring(uint32_t size) {
    for (uint32_t m = 1; m <= size; ++m) {
      auto member = Zavro::makePtr<Trel::TopoConfig>(Trel::MemberId(static_cast<uint8_t>(m)));
      for (uint32_t n = 1; n <= size; ++n) {
        if (n == m) continue;
        Lanix::IntfId intf(intfName(m, n));
        member->neighbor().set(Trel::MemberId(static_cast<uint8_t>(n)), intf);
        ifMib_->ifIndexByIntfId().set(intf, m * 1000 + n);
      }
      topology_->topoConfig().set(Trel::MemberId(static_cast<uint8_t>(m)), member);
    }
  }
  void start() { sm_ = Agent::trelSnmpIfTableSmFactory(topology_, ifMib_, mib_, synchronous()); }
  void stop() {
    sm_.reset();
    mib_->trelIfTableDelAll();
  }
  IntfSnmp::IfMib::IfIndexes& indexes() { return ifMib_->ifIndexByIntfId(); }
  size_t rows() const { return mib_->trelIfTable().size(); }

 private:
  Zavro::Ptr<Trel::TopologyConfig> topology_ = Zavro::makePtr<Trel::TopologyConfig>("topology");
  Zavro::Ptr<IntfSnmp::IfMib> ifMib_ = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  Zavro::Ptr<TrelMib> mib_ = trelMibFactory("trelMib");
  Zavro::Ptr<TrelSnmpIfTableSm> sm_;
};

// One interface's index goes up and down again.
class IndexChange final : public Bench::Subject {
 public:
  explicit IndexChange(uint32_t size) : wiring_(size), intf_(intfName(1, 2)) { wiring_.start(); }
  void run() override {
    wiring_.indexes().set(intf_, 70);
    wiring_.indexes().set(intf_, 71);
    Bench::keep(wiring_.rows());
  }

 private:
  Wiring wiring_;
  Lanix::IntfId intf_;
};

// Bare loops over the same links, looking for one interface.
class BareLoops final : public Bench::Subject {
 public:
  explicit BareLoops(uint32_t size) : sought_(intfName(1, 2)) {
    for (uint32_t m = 1; m <= size; ++m) {
      for (uint32_t n = 1; n <= size; ++n) {
        if (n != m) links_[m][n] = intfName(m, n);
      }
    }
  }
  void run() override {
    size_t found = 0;
    for (int change = 0; change < 2; ++change) {
      for (const auto& [member, neighbours] : links_) {
        for (const auto& [neighbour, intf] : neighbours) found += intf == sought_ ? 1 : 0;
      }
    }
    Bench::keep(found);
  }

 private:
  std::map<uint32_t, std::map<uint32_t, std::string>> links_;
  std::string sought_;
};

class WiringStart final : public Bench::Subject {
 public:
  explicit WiringStart(uint32_t size) : wiring_(size) {}
  void prepare() override { wiring_.stop(); }
  void run() override {
    wiring_.start();
    Bench::keep(wiring_.rows());
  }

 private:
  Wiring wiring_;
};

// A bare map that is filled with as many rows.
class BareWiringStart final : public Bench::Subject {
 public:
  explicit BareWiringStart(uint32_t size) : size_(size) {}
  void prepare() override { rows_.clear(); }
  void run() override {
    for (uint32_t m = 1; m <= size_; ++m) {
      for (uint32_t n = 1; n <= size_; ++n) {
        if (n != m) rows_.emplace(m * 1000 + n, std::pair(m, n));
      }
    }
    Bench::keep(rows_.size());
  }

 private:
  uint32_t size_;
  std::map<uint32_t, std::pair<uint32_t, uint32_t>> rows_;
};

template <class S, class... Args>
Bench::MakeSubject make(Args... args) {
  return [args...] { return std::make_unique<S>(args...); };
}

void start(uint32_t size) {
  Bench::ratio(fmt::format("interface/start/{}-members", size), size_t{size} * (size - 1),
               make<WiringStart>(size), make<BareWiringStart>(size));
}

const bool registered = [] {
  Bench::ratio("reachability/change-to-row", kMembers - 1, make<ReachabilityChanges>(), make<BareChanges>());
  Bench::ratio("reachability/start-65280-rows", kRows, make<ReachabilityStart>(), make<BareStart>());
  for (uint32_t size : {16U, 32U, 64U, 128U, 255U}) {
    Bench::ratio(fmt::format("interface/index-change/{}-members", size), 2, make<IndexChange>(size),
                 make<BareLoops>(size));
  }
  for (uint32_t size : {16U, 128U, 255U}) start(size);
  return true;
}();

}  // namespace
