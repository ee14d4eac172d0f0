// The backplane interface pipeline: keeps TrelMib's trelIfTable equal to the backplane channel interfaces
// that join members, by interface index.
#pragma once

#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/inlined_vector.h>

#include <optional>
#include <set>
#include <utility>

#include "pipelines/LinksByInterface.h"
#include "pipelines/framework/Backlog.h"
#include "pipelines/framework/CollectionStream.h"
#include "pipelines/framework/DirMachine.h"
#include "pipelines/framework/Output.h"
#include "platform/trel/Topology.h"

namespace TrelSnmp::Agent {

namespace RivoCode::TrelSnmpIfTableSm {

using TopologyConfigSm0 = DirMachine<Trel::TopoConfig, Trel::TopologyConfig::Members>;
using TopoConfigSm1 = EntityMachine;
using IfMibSm2 = EntityMachine;
using InputSmScanState = ::TrelSnmp::Agent::InputSmScanState;
using OutputState = ::TrelSnmp::Agent::OutputState;

}  // namespace RivoCode::TrelSnmpIfTableSm

class TrelSnmpIfTableSm final : public Pipeline {
 public:
  struct TopoConfigStreamCodefKeyType {
    Trel::MemberId local;
    Trel::MemberId remote;
    auto operator<=>(const TopoConfigStreamCodefKeyType&) const = default;
    std::string text() const { return fmt::format("(local={}, remote={})", local, remote); }
  };
  using IfMibIfIndexStreamCodefKeyType = Lanix::IntfId;
  using TrelMibTrelIfTableOutputKeyType = uint32_t;

  struct IfRows : TableRows<TrelIfTable> {
    struct Value {
      uint32_t localMemberId;
      uint32_t remoteMemberId;
    };
    static constexpr const char* kInto = "into( trelMib.trelIfTable[ ifIndex ] )";
    static bool same(const TrelIfEntry& entry, const Value& value);
    static void write(TrelMib& mib, uint32_t ifIndex, const Value& value);
    static std::string text(uint32_t ifIndex, const Value& value);
  };

  // None of the pointers may be null: the process ends otherwise.
  TrelSnmpIfTableSm(Zavro::Ptr<const Trel::TopologyConfig> topologyConfig,
                    Zavro::Ptr<const IntfSnmp::IfMib> ifMib, Zavro::Ptr<TrelMib> trelMib,
                    const Rvx::SmControl& control);
  ~TrelSnmpIfTableSm() override;

  const Zavro::Ptr<const Trel::TopologyConfig>& topologyConfig() const { return topologyConfig_; }
  const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib() const { return ifMib_; }
  const Output<IfRows>& trelMibTrelIfTableOutput() const { return output_; }
  const BacklogBase& topoConfigStreamCodef() const { return topoConfigStream_; }
  const BacklogBase& ifMibIfIndexStreamCodef() const { return ifMibIfIndexStream_; }
  // The index that each member pair produced last.
  const absl::flat_hash_map<MemberIdPair, uint32_t>& cacheAttr0() const { return cacheAttr0_; }
  // What the pairs of an interface are looked up in while there are several interfaces to process.
  const LinksByInterface& linksByInterface() const { return linksByInterface_; }
  // One line for each index that several links produce.
  std::vector<std::string> conflicts() const override;

  // A link or an index was added, changed or (nothing) removed. Only the key is queued: processing reads the
  // state at that time. Both do nothing before the initial scan is done.
  void eventToTopoConfigStream(Trel::MemberId local, Trel::MemberId remote,
                               const std::optional<Lanix::IntfId>& intf);
  void eventToIfMibIfIndexStream(const Lanix::IntfId& intfId, const std::optional<uint32_t>& ifIndex);

 private:
  using Claimants = absl::InlinedVector<MemberIdPair, 4>;  // the pairs that produce an index

  std::vector<PointerArgument> pointerArguments() const override;
  void createMachines() override;

  void processOneTopoConfigStreamElem(const TopoConfigStreamCodefKeyType& key);
  void processOneIfMibIfIndexStreamElem(const IfMibIfIndexStreamCodefKeyType& intfId);
  void eventToTopoConfigStreamInternal(Trel::MemberId local, Trel::MemberId remote);
  void eventToIfMibIfIndexStreamInternal(const Lanix::IntfId& intfId);
  void walkLinksOf(const Lanix::IntfId& intfId);
  void eventToTrelIfTableStream(Trel::MemberId local, Trel::MemberId remote);

  void withdrawRows();
  std::optional<uint32_t> producedIndex(Trel::MemberId local, Trel::MemberId remote) const;
  std::optional<uint32_t> exchangeCached(const MemberIdPair& pair, const std::optional<uint32_t>& ifIndex);
  void claim(uint32_t ifIndex, const MemberIdPair& pair);
  void unclaim(uint32_t ifIndex, const MemberIdPair& pair);
  void processClaimants(uint32_t ifIndex);
  Claimants claimantsOf(uint32_t ifIndex) const;
  std::string conflict(uint32_t ifIndex, const Claimants& claimants) const;
  // Moves the pair's row to newIndex, or writes it where it is.
  void exchangeRows(const std::optional<uint32_t>& oldIndex, const std::optional<uint32_t>& newIndex,
                    const MemberIdPair& pair);
  // Writes (doInsert) or withdraws the pair's row. Returns whether it withdrew a row.
  bool intoTrelIfTable(const std::optional<uint32_t>& ifIndex, bool doInsert, const MemberIdPair& pair);

  const Zavro::Ptr<const Trel::TopologyConfig> topologyConfig_;
  const Zavro::Ptr<const IntfSnmp::IfMib> ifMib_;
  LinksByInterface linksByInterface_;
  Backlog<TopoConfigStreamCodefKeyType> topoConfigStream_;
  Backlog<IfMibIfIndexStreamCodefKeyType> ifMibIfIndexStream_;
  absl::flat_hash_map<MemberIdPair, uint32_t> cacheAttr0_;
  absl::btree_set<std::pair<uint32_t, MemberIdPair>> claims_;  // the cache by index
  std::set<MemberIdPair> interrupted_;                         // their last turn ended with an exception
  Output<IfRows> output_;
};

Zavro::Ptr<TrelSnmpIfTableSm> trelSnmpIfTableSmFactory(Zavro::Ptr<const Trel::TopologyConfig> topologyConfig,
                                                       Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
                                                       Zavro::Ptr<TrelMib> trelMib,
                                                       const Rvx::SmControl& control);

}  // namespace TrelSnmp::Agent
