// The cluster's state as a run changes it: two sets of everything that an agent can be given, so that one can
// be exchanged for the other.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <vector>

#include "platform/kor/Dir.h"
#include "platform/snmp/Status.h"
#include "platform/trel/Topology.h"
#include "platform/zavro/Clock.h"
#include "tests/simulation/Rows.h"
#include "tests/simulation/Step.h"

namespace Simulation {

inline constexpr size_t kSets = 2;
// When the agents of a run start, in seconds since 1970-01-01 UTC.
inline constexpr uint64_t kAgentStart = 1'700'000'000;

struct InputSet {
  Zavro::Ptr<TrelSnmp::TrelMib> mib;
  Zavro::Ptr<Snmp::Status> status;
  Zavro::Ptr<IntfSnmp::IfMib> ifMib;
  Zavro::Ptr<Trel::TopologyConfig> topology;
  Zavro::Ptr<Kor::Dir> reachabilityDir;
  Zavro::Ptr<Kor::Dir> hostResourcesDir;
  Zavro::Ptr<HostResourcesMib::StorageEntryMappings> mappings;
};

class State {
 public:
  using Host = HostResources::HostResources;
  using Reach = Trel::ReachabilityStatus;

  // The first set's mappings are the process's.
  State(const Conditions& conditions, Zavro::ManualClock& clock,
        Zavro::Ptr<HostResourcesMib::StorageEntryMappings> mappings);

  const InputSet& set(size_t number) const { return sets_[number]; }
  // Makes a step that changes the state. False when it does not apply or is of another kind.
  bool apply(const Step& step);
  // Called before a mapping is changed, with each row index that it stands for then and will stand for.
  void onMapping(std::function<void(size_t set, uint32_t index)> callback) {
    onMapping_ = std::move(callback);
  }

  uint64_t nowNs() const { return clock_.utcNs(); }
  // The figures of a host, alive or not, by its serial.
  const Host::System& figures(uint64_t host) const { return figures_.at(host); }

  // A row that no pipeline has written. False when there is one under the key already.
  bool stale(const Step& step);

  // What is wrong with what is left when all pipelines are gone: subscribers and references that should not
  // be. Empties the state.
  std::string leftovers();

 private:
  Zavro::Ptr<const Trel::ReachabilityState> reachability(uint32_t draw);
  Zavro::Ptr<const HostResources::Processor> processor();
  Zavro::Ptr<const HostResources::StorageInfo> storage(uint32_t draw);
  Zavro::Ptr<const HostResources::MemInfo> memInfo(uint32_t draw);
  HostResourcesMib::StorageTableEntry mapping(uint32_t index);
  Zavro::Ptr<Reach> newReach();
  Zavro::Ptr<Host> newHost();
  Zavro::Ptr<Kor::Entity> wrongEntity();
  template <class Record>
  Zavro::Ptr<Record> kept(Zavro::Ptr<Record> record) {
    if (keepRecords_)
      (std::is_base_of_v<Kor::Entity, Record> ? keptEntities_ : keptRecords_).emplace_back(record.get());
    return record;
  }

  bool applyReach(const Step& step, const InputSet& in);
  bool applyTopology(const Step& step, const InputSet& in);
  bool applyHost(const Step& step, const InputSet& in);
  bool applyHostEntity(const Step& step, const InputSet& in);
  bool applyMapping(const Step& step, const InputSet& in);
  void draw(Reach& reach, uint32_t value);
  void draw(Trel::TopoConfig& config, uint32_t value);
  void draw(Host& host, uint32_t value);
  void noteMapping(const Step& step, const HostResourcesMib::StorageTableEntry* before);

  bool keepRecords_;
  Zavro::ManualClock& clock_;
  std::array<InputSet, kSets> sets_;
  std::array<Zavro::Ptr<Reach>, kSets> reachOutside_;
  std::array<Zavro::Ptr<Host>, kSets> hostOutside_;
  std::map<uint64_t, Host::System> figures_;
  std::function<void(size_t, uint32_t)> onMapping_ = [](size_t, uint32_t) {};
  std::vector<Zavro::Ptr<const Zavro::Counted>> keptEntities_;  // which may hold records
  std::vector<Zavro::Ptr<const Zavro::Counted>> keptRecords_;
  uint32_t lastSerial_ = 0;
};

// The entity as one of the type, if it is of that very type; null otherwise.
template <class Type>
Type* typed(const Zavro::Ptr<Kor::Entity>& entity) {
  return entity && &entity->korType() == &Type::type() ? static_cast<Type*>(entity.get()) : nullptr;
}

// What the directory holds under the key, if it is of the type; null otherwise.
const State::Reach* reachAt(const Kor::Dir& dir, std::string_view key);
const State::Host* hostAt(const Kor::Dir& dir, std::string_view key);

}  // namespace Simulation
