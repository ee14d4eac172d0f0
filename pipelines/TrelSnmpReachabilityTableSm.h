// The reachability pipeline: keeps TrelMib's trelReachabilityTable equal to what every member reports of each
// of its neighbours.
#pragma once

#include "pipelines/framework/MemberTablePipeline.h"
#include "platform/trel/Reachability.h"

namespace TrelSnmp::Agent {

namespace RivoCode::TrelSnmpReachabilityTableSm {

using ReachabilityDirSm0 = DirectoryMachine<Trel::ReachabilityStatus>;
using EntityPtrSm1 = EntityMachine;
using InputSmScanState = ::TrelSnmp::Agent::InputSmScanState;
using OutputState = ::TrelSnmp::Agent::OutputState;

}  // namespace RivoCode::TrelSnmpReachabilityTableSm

struct ReachabilityRows : TableRows<TrelReachabilityTable> {
  struct Value {
    const Zavro::Ptr<const Trel::ReachabilityState>& state;
    const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib;
  };
  static void write(TrelMib& mib, const MemberIdPair& key, const Value& value);
  static std::string text(const MemberIdPair& key, const Value& value);
};

struct ReachabilityOfMembers {
  using Entity = Trel::ReachabilityStatus;
  using Rows = ReachabilityRows;
  using State = Zavro::Ptr<const Trel::ReachabilityState>;
  static const Lumalog::Handle kTrace;
  static constexpr const char* kDirectory = "reachabilityDir";
  static constexpr const char* kCollection = "reachabilityStatus";
  static constexpr const char* kStream = "reachabilityStatusStream";
  static constexpr const char* kStatement =
      "reachabilityStatusStream = from( reachabilityDir.entityPtr< ReachabilityStatus "
      ">[].reachabilityStatus[] ): dirKey={} nbr={} reachabilityStateOpt={}";

  static const auto& records(const Entity& member) { return member.reachabilityStatus(); }
  Rows::Value rowOf(const State& state) const { return {state, ifMib}; }
  std::vector<Pipeline::PointerArgument> arguments() const { return {{"ifMib", ifMib.get()}}; }

  Zavro::Ptr<const IntfSnmp::IfMib> ifMib;
};

class TrelSnmpReachabilityTableSm final : public MemberTablePipeline<ReachabilityOfMembers> {
 public:
  using State = ReachabilityOfMembers::State;
  using TrelMibTrelReachabilityTableOutputKeyType = MemberIdPair;

  // None of the pointers may be null: the process ends otherwise.
  TrelSnmpReachabilityTableSm(Zavro::Ptr<const Kor::Dir> reachabilityDir,
                              Zavro::Ptr<const IntfSnmp::IfMib> ifMib, Zavro::Ptr<TrelMib> trelMib,
                              const Rvx::SmControl& control);

  const Zavro::Ptr<const Kor::Dir>& reachabilityDir() const { return directory(); }
  const Zavro::Ptr<const IntfSnmp::IfMib>& ifMib() const { return what().ifMib; }
  const Output<ReachabilityRows>& trelMibTrelReachabilityTableOutput() const { return output(); }

  // One stream element: the state of neighbour nbr as member dirKey reports it; null when it no longer does.
  // Does nothing before the initial scan is done.
  void eventToReachabilityStatusStream(const Kor::String& dirKey, Trel::MemberId nbr,
                                       const State& reachabilityStateOpt) {
    eventToStream(dirKey, nbr, reachabilityStateOpt);
  }
  void handleTrelMibTrelReachabilityTableOutputInputReady() { handleOutputInputReady(); }
};

Zavro::Ptr<TrelSnmpReachabilityTableSm> trelSnmpReachabilityTableSmFactory(
    Zavro::Ptr<const Kor::Dir> reachabilityDir, Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
    Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control);

}  // namespace TrelSnmp::Agent
