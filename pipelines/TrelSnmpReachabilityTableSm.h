// The reachability pipeline: keeps TrelMib's trelReachabilityTable equal to what every member reports of each
// of its neighbours.
#pragma once

#include "pipelines/framework/CollectionStream.h"
#include "pipelines/framework/DirMachine.h"
#include "pipelines/framework/Output.h"
#include "platform/kor/Dir.h"

namespace TrelSnmp::Agent {

class TrelSnmpReachabilityTableSm;

namespace RivoCode::TrelSnmpReachabilityTableSm {

using ReachabilityDirSm0 = DirMachine<Trel::ReachabilityStatus, Kor::Dir::Entities>;
using EntityPtrSm1 = EntityMachine;
using InputSmScanState = ::TrelSnmp::Agent::InputSmScanState;
using OutputState = ::TrelSnmp::Agent::OutputState;

}  // namespace RivoCode::TrelSnmpReachabilityTableSm

class TrelSnmpReachabilityTableSm final : public Pipeline {
 public:
  using State = Zavro::Ptr<const Trel::ReachabilityState>;

  struct ReachabilityRows {
    using Table = TrelReachabilityTable;
    struct Value {
      State state;
      Zavro::Ptr<const IntfSnmp::IfMib> ifMib;
    };
    static constexpr const char* kOutput = "trelMibTrelReachabilityTableOutput";
    static constexpr const char* kInto = "into( trelMib.trelReachabilityTable[ key ] )";
    static const Table& table(const TrelMib& mib) { return mib.trelReachabilityTable(); }
    static bool same(const TrelReachabilityEntry& entry, const Value& value);
    static void insert(TrelMib& mib, const MemberIdPair& key, const Value& value);
    static void del(TrelMib& mib, const MemberIdPair& key) { mib.trelReachabilityTableDel(key); }
    static std::string text(const MemberIdPair& key, const Value& value);
  };
  using TrelMibTrelReachabilityTableOutputKeyType = MemberIdPair;

  // None of the pointers may be null: the process ends otherwise.
  TrelSnmpReachabilityTableSm(Zavro::Ptr<const Kor::Dir> reachabilityDir,
                              Zavro::Ptr<const IntfSnmp::IfMib> ifMib, Zavro::Ptr<TrelMib> trelMib,
                              const Rvx::SmControl& control);
  ~TrelSnmpReachabilityTableSm() override { stop(); }

  const Zavro::Ptr<const Kor::Dir>& reachabilityDir() const { return reachabilityDir_; }
  const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib() const { return ifMib_; }
  const Output<ReachabilityRows>& trelMibTrelReachabilityTableOutput() const { return output_; }

  // One stream element: member dirKey reports the neighbour nbr, or (null) no longer does. Does nothing while
  // the initial scan is not done.
  void eventToReachabilityStatusStream(const Kor::String& dirKey, Trel::MemberId nbr,
                                       const State& reachabilityStateOpt);
  void handleTrelMibTrelReachabilityTableOutputInputReady() { output_.handleInputReady(); }

 private:
  std::vector<PointerArgument> pointerArguments() const override;
  void machinesIs() override;

  const Zavro::Ptr<const Kor::Dir> reachabilityDir_;
  const Zavro::Ptr<const IntfSnmp::IfMib> ifMib_;
  Output<ReachabilityRows> output_;
};

Zavro::Ptr<TrelSnmpReachabilityTableSm> trelSnmpReachabilityTableSmFactory(
    Zavro::Ptr<const Kor::Dir> reachabilityDir, Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
    Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control);

}  // namespace TrelSnmp::Agent
