// What is followed: a directory with one HostResources::HostResources for each member, named by the member's
// id, and in each of them the collection processorTable.
//
// What is written: trelHrSystemTable, one row for each member, which holds the member's entity; and
// trelProcessorTable, one row for each (member, processor index), which holds the processor's record. The
// columns of both are computed when they are read, so a figure that changes inside an entity needs no new
// row.
//
// What happens to rows:
//   a member's entity appears       its system row is inserted, and a row for each of its processors
//   it is set again                 nothing
//   it is replaced                  the system row is deleted and inserted with the new entity; all processor
//                                   rows are deleted and the new entity's inserted
//   it vanishes                     its system row is deleted, then its processor rows
//   a processor appears, vanishes   its row is inserted, deleted
//   its record is replaced          the row is deleted and inserted with the new record
//   an entity of another type       is traced and counts as absent
//
// Each table is filled by a stream with a scan of its own, so one may be ready while the other is still being
// scanned. When the pipeline is destroyed, the processor rows are deleted, which child machines wrote. The
// system rows stay for a successor to verify, unless doDeleteAll() was called before.
//
// Two directory keys may spell the same member ("3" and "03"): the later event on a row wins.
#include "pipelines/TrelSnmpHostResourcesSm.h"

namespace TrelSnmp::Agent {
namespace {

const Lumalog::Handle hostTrace("TrelSnmpHostResourcesSm");

constexpr size_t kHrSystemTableStream = 0;
constexpr size_t kProcessorTableStream = 1;

constexpr const char* kHrSystemTableStreamStatement =
    "hrSystemTableStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[] ): dirKey={} "
    "hrOpt={}";
constexpr const char* kProcessorTableStreamStatement =
    "processorTableStream = from( hostResourcesDir.entityPtr< HostResources::HostResources "
    ">[].processorTable[] ): dirKey={} processorIndex={} processorOpt={}";

uint32_t memberId(const Kor::String& dirKey) { return Trel::MemberId::fromString(dirKey).id(); }

}  // namespace

std::string TrelSnmpHostResourcesSm::SystemRows::text(uint32_t /*member*/, const Host& host) {
  return Kor::toText(host);
}

// Events from outside

void TrelSnmpHostResourcesSm::eventToHrSystemTableStream(const Kor::String& dirKey, const Host& hrOpt) {
  if (!initialScanDone()) return;
  if (hostTrace.enabled(kElementLevel)) {
    hostTrace.trace(kElementLevel, kHrSystemTableStreamStatement, dirKey, Kor::optText(hrOpt));
  }
  uint32_t key = memberId(dirKey);
  if (hrOpt) {
    systemOutput_.write(key, hrOpt);
  } else {
    systemOutput_.del(key);
  }
}

void TrelSnmpHostResourcesSm::eventToProcessorTableStream(const Kor::String& dirKey, uint32_t processorIndex,
                                                          const Processor& processorOpt) {
  if (!initialScanDone()) return;
  if (hostTrace.enabled(kElementLevel)) {
    hostTrace.trace(kElementLevel, kProcessorTableStreamStatement, dirKey, processorIndex,
                    Kor::optText(processorOpt));
  }
  ProcessorKey key(memberId(dirKey), processorIndex);
  if (processorOpt) {
    processorOutput_.write(key, processorOpt);
  } else {
    processorOutput_.del(key);
  }
}

// Machines

void TrelSnmpHostResourcesSm::createMachines() {
  using HostResourcesDirSm0 = RivoCode::TrelSnmpHostResourcesSm::HostResourcesDirSm0;
  auto statement = directoryStatement<HostResources::HostResources>("hostResourcesDir");
  statement.wrongType += ' ';
  statement.keyTrace = "k: {}";
  statement.streams = {
      {kHrSystemTableStream,
       [this](const Kor::String& dirKey, const Host& host) { eventToHrSystemTableStream(dirKey, host); }},
      {kProcessorTableStream, {}}};
  statement.childInputs = [this](const Kor::String& dirKey, const HostResources::HostResources& member) {
    EntityMachine::Inputs inputs;
    inputs.push_back(recordsInput(kProcessorTableStream, "processorTable", member.processorTable(),
                                  [this, dirKey](uint32_t processorIndex, const Processor& processor) {
                                    eventToProcessorTableStream(dirKey, processorIndex, processor);
                                  }));
    return inputs;
  };
  addMachine(Zavro::makePtr<HostResourcesDirSm0>(*this, hostResourcesDir_, hostResourcesDir_->entities(),
                                                 std::move(statement)));
}

// The root

TrelSnmpHostResourcesSm::TrelSnmpHostResourcesSm(Zavro::Ptr<const Kor::Dir> hostResourcesDir,
                                                 Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control)
    : Pipeline(hostTrace, std::move(trelMib), control, {"hrSystemTableStream", "processorTableStream"}),
      hostResourcesDir_(std::move(hostResourcesDir)),
      systemOutput_(*this, {kHrSystemTableStream}),
      processorOutput_(*this, {kProcessorTableStream}) {
  start();
}

std::vector<Pipeline::PointerArgument> TrelSnmpHostResourcesSm::pointerArguments() const {
  return {{"hostResourcesDir", hostResourcesDir_.get()}, {"trelMib", trelMib().get()}};
}

Zavro::Ptr<TrelSnmpHostResourcesSm> trelSnmpHostResourcesSmFactory(
    Zavro::Ptr<const Kor::Dir> hostResourcesDir, Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control) {
  return Zavro::makePtr<TrelSnmpHostResourcesSm>(std::move(hostResourcesDir), std::move(trelMib), control);
}

}  // namespace TrelSnmp::Agent
