// What is followed: the cluster's topology, which gives for each member and each of its neighbours the
// interface that reaches the neighbour, and the interface MIB's indexes by interface.
//
// What is written: trelIfTable, keyed by interface index; a row names the member at this end and the one at
// the far end. A row exists for index I when some link's interface is a backplane channel interface whose
// index is I.
//
// Both inputs lead to one computation for each member pair: which index does the pair produce now, and which
// did it produce last (kept in a cache)?
//   an index, for the first time    its row is written; another pair's row under that index is deleted first
//   another index than before       the old row is withdrawn before the new one is written
//   no index any more               the row is withdrawn
// A withdrawal deletes a row only if it names this pair: another pair may have the index by then. After a
// withdrawal the other pairs that produce the index are processed again, so that one of them gets the row.
//
// What happens:
//   a link appears, changes or vanishes          its pair is processed
//   a member's topology vanishes                 every pair that it had is processed
//   an index is assigned, changes or vanishes    every pair whose link uses the interface is processed, in
//                                                the order of members, then neighbours
//   an interface that is no backplane channel    is ignored
// Changes are queued by key, so several changes of one link or interface are processed once. When two pairs
// produce the same index, the pair that is processed last has the row; the log and conflicts() report it.
#include "pipelines/TrelSnmpIfTableSm.h"

#include <fmt/ranges.h>

#include <iterator>
#include <map>

namespace TrelSnmp::Agent {
namespace {

using Lanix::BackplaneChannelIntfId;

const Lumalog::Handle ifTableTrace("TrelSnmpIfTableSm");

constexpr size_t kTopoConfigStream = 0;
constexpr size_t kIfMibIfIndexStream = 1;

constexpr const char* kTopoConfigStreamStatement =
    "topoConfigStream = from( topologyConfig.topoConfig[].neighbor[] ): localMemberId={} remoteMemberId={}";
constexpr const char* kIfMibIfIndexStreamStatement =
    "ifMibIfIndexStream = from( ifMib.ifIndexByIntfId[] ): intfId={}";
constexpr const char* kTrelIfTableStreamStatement =
    "trelIfTableStream = merge( topoConfigStream, ifMibIfIndexStream ): localMemberId={} remoteMemberId={}";
constexpr const char* kBackplaneFilter =
    "filter( BackplaneChannelIntfId::isBackplaneChannelIntfId( intfId ) ) failed, terminating pipeline";
constexpr const char* kMembersFlattened = "foreach( topologyConfig.topoConfig ) flattening {} elements";
constexpr const char* kNeighborsFlattened = "foreach( topoConfig.neighbor ) flattening {} elements";
constexpr const char* kSameIntfFilter = "filter( ( intfId == neighborIntfId ) ) failed, terminating pipeline";
constexpr const char* kOldAndNewFlattened =
    "foreach( [ ( if ( _oldValueOpt6 != _newValueOpt7 ) then _oldValueOpt6 else None, false ), ( "
    "_newValueOpt7, true ) "
    "] ) flattening {} elements";
constexpr const char* kValueFilter = "filter( _valueOpt8 ) failed, terminating pipeline";
constexpr const char* kOwnershipFilter =
    "filter( ( doInsert || ( ( old && ( ( *old ).localMemberId == U32( localMemberId.id ) ) ) && ( ( *old "
    ").remoteMemberId == U32( remoteMemberId.id ) ) ) ) ) failed, terminating pipeline";

// The level at which the cache is traced.
constexpr int kCacheLevel = 8;

}  // namespace

bool TrelSnmpIfTableSm::IfRows::same(const TrelIfEntry& entry, const Value& value) {
  return entry.differsFrom(value.localMemberId, value.remoteMemberId) == nullptr;
}

void TrelSnmpIfTableSm::IfRows::write(TrelMib& mib, uint32_t ifIndex, const Value& value) {
  mib.of<Table>().write(ifIndex, value.localMemberId, value.remoteMemberId);
}

std::string TrelSnmpIfTableSm::IfRows::text(uint32_t ifIndex, const Value& value) {
  return fmt::format("({}, {}, {})", ifIndex, value.localMemberId, value.remoteMemberId);
}

// Events from outside

void TrelSnmpIfTableSm::eventToTopoConfigStream(Trel::MemberId local, Trel::MemberId remote,
                                                const std::optional<Lanix::IntfId>& /*intf*/) {
  if (initialScanDone()) topoConfigStream_.event({local, remote});
}

void TrelSnmpIfTableSm::eventToIfMibIfIndexStream(const Lanix::IntfId& intfId,
                                                  const std::optional<uint32_t>& /*ifIndex*/) {
  if (initialScanDone()) ifMibIfIndexStream_.event(intfId);
}

// Processing of a key

void TrelSnmpIfTableSm::processOneTopoConfigStreamElem(const TopoConfigStreamCodefKeyType& key) {
  eventToTopoConfigStreamInternal(key.local, key.remote);
}

void TrelSnmpIfTableSm::processOneIfMibIfIndexStreamElem(const IfMibIfIndexStreamCodefKeyType& intfId) {
  eventToIfMibIfIndexStreamInternal(intfId);
}

void TrelSnmpIfTableSm::eventToTopoConfigStreamInternal(Trel::MemberId local, Trel::MemberId remote) {
  ifTableTrace.trace(kElementLevel, kTopoConfigStreamStatement, local, remote);
  eventToTrelIfTableStream(local, remote);
}

void TrelSnmpIfTableSm::eventToIfMibIfIndexStreamInternal(const Lanix::IntfId& intfId) {
  ifTableTrace.trace(kElementLevel, kIfMibIfIndexStreamStatement, intfId);
  if (!BackplaneChannelIntfId::isBackplaneChannelIntfId(intfId)) {
    ifTableTrace.trace(kStepLevel, kBackplaneFilter);
    return;
  }
  // The interfaces of a backlog, or of a scan, find their pairs in an index. A single one needs none, and
  // where the steps are traced, each interface has a walk of its own.
  bool several = ifMibIfIndexStream_.size() != 0 || !streamScanned(kIfMibIfIndexStream);
  if ((several || linksByInterface_.current()) && !ifTableTrace.enabled(kStepLevel)) {
    for (const auto& [local, remote] : linksByInterface_.of(intfId)) eventToTrelIfTableStream(local, remote);
  } else {
    walkLinksOf(intfId);
  }
}

void TrelSnmpIfTableSm::walkLinksOf(const Lanix::IntfId& intfId) {
  const auto& members = topologyConfig_->topoConfig();
  ifTableTrace.trace(kStepLevel, kMembersFlattened, members.size());
  for (auto member = members.begin(); member; member.next()) {
    const auto& neighbors = (*member.value())->neighbor();
    ifTableTrace.trace(kStepLevel, kNeighborsFlattened, neighbors.size());
    for (auto neighbor = neighbors.begin(); neighbor; neighbor.next()) {
      const Lanix::IntfId& neighborIntfId = *neighbor.value();
      if (intfId != neighborIntfId) {
        ifTableTrace.trace(kStepLevel, kSameIntfFilter);
        continue;
      }
      eventToTrelIfTableStream(member.key(), neighbor.key());
    }
  }
}

void TrelSnmpIfTableSm::eventToTrelIfTableStream(Trel::MemberId local, Trel::MemberId remote) {
  ifTableTrace.trace(kElementLevel, kTrelIfTableStreamStatement, local, remote);
  MemberIdPair pair(local.id(), remote.id());
  std::optional<uint32_t> newIndex = producedIndex(local, remote);
  std::optional<uint32_t> oldIndex = exchangeCached(pair, newIndex);
  try {
    exchangeRows(oldIndex, newIndex, pair);
  } catch (...) {
    // The pair stays queued. Its next turn needs the old index again, to handle both rows.
    if (oldIndex) cacheAttr0_[pair] = *oldIndex;
    if (!oldIndex) cacheAttr0_.erase(pair);
    interrupted_.insert(pair);
    throw;
  }
}

void TrelSnmpIfTableSm::exchangeRows(const std::optional<uint32_t>& oldIndex,
                                     const std::optional<uint32_t>& newIndex, const MemberIdPair& pair) {
  ifTableTrace.trace(kStepLevel, kOldAndNewFlattened, 2);
  std::optional<uint32_t> left = oldIndex != newIndex ? oldIndex : std::nullopt;
  bool withdrawn = intoTrelIfTable(left, false, pair);
  intoTrelIfTable(newIndex, true, pair);
  if (left) unclaim(*left, pair);
  if (newIndex && newIndex != oldIndex) claim(*newIndex, pair);
  // An interrupted turn may have withdrawn the row already.
  bool interrupted = interrupted_.erase(pair) != 0;
  if (withdrawn || (interrupted && left)) processClaimants(*left);
}

// The index that the pair's link has now, if it is one of a backplane channel interface.
std::optional<uint32_t> TrelSnmpIfTableSm::producedIndex(Trel::MemberId local, Trel::MemberId remote) const {
  const auto* topoConfig = topologyConfig_->topoConfig().find(local);
  const Lanix::IntfId* intf = topoConfig != nullptr ? (*topoConfig)->neighbor().find(remote) : nullptr;
  if (intf == nullptr || !BackplaneChannelIntfId::isBackplaneChannelIntfId(*intf)) return std::nullopt;
  const uint32_t* ifIndex = ifMib_->ifIndexByIntfId().find(*intf);
  return ifIndex != nullptr ? std::optional(*ifIndex) : std::nullopt;
}

// Stores the index, or that there is none, as the pair's last one; returns the one before.
std::optional<uint32_t> TrelSnmpIfTableSm::exchangeCached(const MemberIdPair& pair,
                                                          const std::optional<uint32_t>& ifIndex) {
  std::optional<uint32_t> before;
  auto cached = cacheAttr0_.find(pair);
  if (cached != cacheAttr0_.end()) {
    before = cached->second;
    ifTableTrace.trace(kCacheLevel, "Got value {} with key {} from cache", *before, pair);
  }
  if (ifIndex) {
    ifTableTrace.trace(kCacheLevel, "Inserting value {} with key {} into cache", *ifIndex, pair);
    if (before) {
      cached->second = *ifIndex;
    } else {
      cacheAttr0_.emplace(pair, *ifIndex);
    }
  } else {
    ifTableTrace.trace(kCacheLevel, "Deleting key {} from cache", pair);
    if (before) cacheAttr0_.erase(cached);
  }
  return before;
}

bool TrelSnmpIfTableSm::intoTrelIfTable(const std::optional<uint32_t>& ifIndex, bool doInsert,
                                        const MemberIdPair& pair) {
  if (!ifIndex) {
    ifTableTrace.trace(kStepLevel, kValueFilter);
    return false;
  }
  IfRows::Value value{pair.firstId(), pair.secondId()};
  if (doInsert) {
    output_.write(*ifIndex, value);
    return false;
  }
  // A withdrawal that ends here does not mark the index as seen: a valid row's own pair marks it, and a stale
  // row has to be deleted by reconciliation.
  const TrelIfEntry* old = trelMib()->trelIfTable().find(*ifIndex);
  if (old == nullptr || !IfRows::same(*old, value)) {
    ifTableTrace.trace(kStepLevel, kOwnershipFilter);
    return false;
  }
  output_.del(*ifIndex);
  return true;
}

// Several pairs with one index

void TrelSnmpIfTableSm::claim(uint32_t ifIndex, const MemberIdPair& pair) {
  if (!claims_.insert({ifIndex, pair}).second) return;
  Claimants pairs = claimantsOf(ifIndex);
  if (pairs.size() == 1) return;
  ifTableTrace.trace({"ifIndex", std::to_string(ifIndex)}, Lumalog::kWarningLevel, "{}",
                     conflict(ifIndex, pairs));
}

void TrelSnmpIfTableSm::unclaim(uint32_t ifIndex, const MemberIdPair& pair) {
  if (claims_.erase({ifIndex, pair}) == 0) return;
  Claimants pairs = claimantsOf(ifIndex);
  if (pairs.size() != 1) return;
  ifTableTrace.trace({"ifIndex", std::to_string(ifIndex)}, Lumalog::kWarningLevel,
                     "ifIndex {} is given to one link only now: {}", ifIndex, pairs.front());
}

TrelSnmpIfTableSm::Claimants TrelSnmpIfTableSm::claimantsOf(uint32_t ifIndex) const {
  Claimants pairs;
  for (auto at = claims_.lower_bound({ifIndex, {}}); at != claims_.end() && at->first == ifIndex; ++at) {
    pairs.push_back(at->second);
  }
  return pairs;
}

// The row of an index was withdrawn: another pair that produces the index gets one.
void TrelSnmpIfTableSm::processClaimants(uint32_t ifIndex) {
  for (const MemberIdPair& pair : claimantsOf(ifIndex)) {
    topoConfigStream_.event({Trel::MemberId(static_cast<uint8_t>(pair.firstId())),
                             Trel::MemberId(static_cast<uint8_t>(pair.secondId()))});
  }
}

std::string TrelSnmpIfTableSm::conflict(uint32_t ifIndex, const Claimants& pairs) const {
  const TrelIfEntry* row = trelMib()->trelIfTable().find(ifIndex);
  std::string shown =
      row != nullptr ? Kor::toText(MemberIdPair(row->localMemberId(), row->remoteMemberId())) : "none";
  return fmt::format(
      "ifIndex {} is given to several links: {}; its row shows {}; each needs an interface and an index of "
      "its "
      "own",
      ifIndex, fmt::join(pairs, ", "), shown);
}

std::vector<std::string> TrelSnmpIfTableSm::conflicts() const {
  std::vector<std::string> all;
  for (auto at = claims_.begin(); at != claims_.end();) {
    uint32_t ifIndex = at->first;
    Claimants pairs = claimantsOf(ifIndex);
    if (pairs.size() > 1) all.push_back(conflict(ifIndex, pairs));
    std::advance(at, pairs.size());
  }
  return all;
}

// Machines

void TrelSnmpIfTableSm::createMachines() {
  using TopologyConfigSm0 = RivoCode::TrelSnmpIfTableSm::TopologyConfigSm0;
  TopologyConfigSm0::Statement statement;
  statement.machine = "TopologyConfigSm0";
  statement.childMachine = "TopoConfigSm1";
  statement.entries = "topoConfig";
  statement.children = "childSmTopoConfig";
  statement.wrongType =
      "dynamic cast to type ::Trel::TopoConfig::RawPtrConst from Kor::Entity::PtrConst failed.";
  statement.keyTrace = "{}";
  statement.streams = {{kTopoConfigStream, {}}};
  statement.childInputs = [this](Trel::MemberId local, const Trel::TopoConfig& member) {
    auto emit = [this, local](Trel::MemberId remote, const Lanix::IntfId* intf) {
      eventToTopoConfigStream(local, remote, intf != nullptr ? std::optional(*intf) : std::nullopt);
    };
    EntityMachine::Inputs inputs;
    inputs.push_back({kTopoConfigStream, std::make_unique<CollectionStream<Trel::TopoConfig::Neighbors>>(
                                             "neighbor", member.neighbor(), emit)});
    return inputs;
  };
  addMachine(Zavro::makePtr<TopologyConfigSm0>(*this, topologyConfig_, topologyConfig_->topoConfig(),
                                               std::move(statement)));

  auto emit = [this](const Lanix::IntfId& intfId, const uint32_t* ifIndex) {
    eventToIfMibIfIndexStream(intfId, ifIndex != nullptr ? std::optional(*ifIndex) : std::nullopt);
  };
  EntityMachine::Inputs inputs;
  inputs.push_back({kIfMibIfIndexStream, std::make_unique<CollectionStream<IntfSnmp::IfMib::IfIndexes>>(
                                             "ifIndexByIntfId", ifMib_->ifIndexByIntfId(), emit)});
  addMachine(Zavro::makePtr<EntityMachine>(*this, "IfMibSm2", ifMib_, std::move(inputs)));
}

// The root

TrelSnmpIfTableSm::TrelSnmpIfTableSm(Zavro::Ptr<const Trel::TopologyConfig> topologyConfig,
                                     Zavro::Ptr<const IntfSnmp::IfMib> ifMib, Zavro::Ptr<TrelMib> trelMib,
                                     const Rvx::SmControl& control)
    : Pipeline(ifTableTrace, std::move(trelMib), control, {"topoConfigStream", "ifMibIfIndexStream"}),
      topologyConfig_(std::move(topologyConfig)),
      ifMib_(std::move(ifMib)),
      linksByInterface_(topologyConfig_),
      topoConfigStream_(*this, "topoConfigStream", kTopoConfigStream,
                        [this](const auto& key) { processOneTopoConfigStreamElem(key); }),
      ifMibIfIndexStream_(
          *this, "ifMibIfIndexStream", kIfMibIfIndexStream,
          [this](const auto& key) { processOneIfMibIfIndexStreamElem(key); },
          [this] {
            if (streamScanned(kIfMibIfIndexStream)) linksByInterface_.clear();
          }),
      output_(*this, {kTopoConfigStream, kIfMibIfIndexStream}) {
  start();
}

TrelSnmpIfTableSm::~TrelSnmpIfTableSm() {
  stop();
  if (ownsRows()) withdrawRows();
}

// Deletes the rows that the pairs of the cache wrote. Processing the pairs again would not delete them, since
// the inputs are still there.
void TrelSnmpIfTableSm::withdrawRows() {
  std::map<MemberIdPair, uint32_t> produced(cacheAttr0_.begin(), cacheAttr0_.end());
  for (const auto& [pair, ifIndex] : produced) {
    const TrelIfEntry* row = trelMib()->trelIfTable().find(ifIndex);
    if (row != nullptr && IfRows::same(*row, {pair.firstId(), pair.secondId()})) output_.del(ifIndex);
  }
}

std::vector<Pipeline::PointerArgument> TrelSnmpIfTableSm::pointerArguments() const {
  return {{"topologyConfig", topologyConfig_.get()}, {"ifMib", ifMib_.get()}, {"trelMib", trelMib().get()}};
}

Zavro::Ptr<TrelSnmpIfTableSm> trelSnmpIfTableSmFactory(Zavro::Ptr<const Trel::TopologyConfig> topologyConfig,
                                                       Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
                                                       Zavro::Ptr<TrelMib> trelMib,
                                                       const Rvx::SmControl& control) {
  return Zavro::makePtr<TrelSnmpIfTableSm>(std::move(topologyConfig), std::move(ifMib), std::move(trelMib),
                                           control);
}

}  // namespace TrelSnmp::Agent
