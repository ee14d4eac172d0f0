// The host-resources pipeline: keeps TrelMib's trelHrSystemTable and trelProcessorTable equal to what every
// member publishes of its host.
#pragma once

#include "pipelines/framework/CollectionStream.h"
#include "pipelines/framework/DirMachine.h"
#include "pipelines/framework/Output.h"
#include "platform/trel/MemberId.h"

namespace TrelSnmp::Agent {

namespace RivoCode::TrelSnmpHostResourcesSm {

using HostResourcesDirSm0 = DirectoryMachine<HostResources::HostResources>;
using EntityPtrSm1 = EntityMachine;
using InputSmScanState = ::TrelSnmp::Agent::InputSmScanState;
using OutputState = ::TrelSnmp::Agent::OutputState;

}  // namespace RivoCode::TrelSnmpHostResourcesSm

class TrelSnmpHostResourcesSm final : public Pipeline {
 public:
  using Host = Zavro::Ptr<const HostResources::HostResources>;
  using Processor = Zavro::Ptr<const HostResources::Processor>;

  struct SystemRows : TableRows<TrelHrSystemTable> {
    using Value = Host;
    static void write(TrelMib& mib, uint32_t member, const Host& host) {
      mib.of<Table>().write(member, host);
    }
    static std::string text(uint32_t member, const Host& host);
  };
  using ProcessorRows = RecordRows<TrelProcessorTable>;
  using TrelMibTrelHrSystemTableOutputKeyType = uint32_t;
  using TrelMibTrelProcessorTableOutputKeyType = ProcessorKey;

  // Neither pointer may be null: the process ends otherwise.
  TrelSnmpHostResourcesSm(Zavro::Ptr<const Kor::Dir> hostResourcesDir, Zavro::Ptr<TrelMib> trelMib,
                          const Rvx::SmControl& control);
  ~TrelSnmpHostResourcesSm() override { stop(); }

  const Zavro::Ptr<const Kor::Dir>& hostResourcesDir() const { return hostResourcesDir_; }
  const Output<SystemRows>& trelMibTrelHrSystemTableOutput() const { return systemOutput_; }
  const Output<ProcessorRows>& trelMibTrelProcessorTableOutput() const { return processorOutput_; }

  // One stream element of member dirKey; null when the member no longer publishes it. Both do nothing before
  // the initial scan is done.
  void eventToHrSystemTableStream(const Kor::String& dirKey, const Host& hrOpt);
  void eventToProcessorTableStream(const Kor::String& dirKey, uint32_t processorIndex,
                                   const Processor& processorOpt);
  void handleTrelMibTrelHrSystemTableOutputInputReady() { systemOutput_.handleInputReady(); }
  void handleTrelMibTrelProcessorTableOutputInputReady() { processorOutput_.handleInputReady(); }

 private:
  std::vector<PointerArgument> pointerArguments() const override;
  void createMachines() override;

  const Zavro::Ptr<const Kor::Dir> hostResourcesDir_;
  Output<SystemRows> systemOutput_;
  Output<ProcessorRows> processorOutput_;
};

Zavro::Ptr<TrelSnmpHostResourcesSm> trelSnmpHostResourcesSmFactory(
    Zavro::Ptr<const Kor::Dir> hostResourcesDir, Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control);

}  // namespace TrelSnmp::Agent
