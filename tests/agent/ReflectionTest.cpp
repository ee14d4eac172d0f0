// Everything that carries type information is read and driven by name, at every point of its life: with
// sanitizers this shows a type that is attached to an object of another class, or reaches for what is gone.
#include <set>

#include "tests/agent/AgentFixture.h"
#include "tests/support/Reflection.h"

namespace TrelSnmp::Agent {
namespace {

const std::set<std::string> kEveryType = {"EntityPtrSm1",
                                          "HostResources::HostResources",
                                          "HostResources::MemInfo",
                                          "HostResources::Processor",
                                          "HostResources::StorageInfo",
                                          "HostResourcesDirSm0",
                                          "HostResourcesMib::StorageEntryMappings",
                                          "IfMibSm2",
                                          "InputSmScanState",
                                          "IntfSnmp::IfMib",
                                          "Kor::Dir",
                                          "OutputState",
                                          "ReachabilityDirSm0",
                                          "Snmp::Config",
                                          "Snmp::RegVoidCollByContext",
                                          "Snmp::Status",
                                          "TopoConfigSm1",
                                          "TopologyConfigSm0",
                                          "Trel::ReachabilityState",
                                          "Trel::ReachabilityStatus",
                                          "Trel::TopoConfig",
                                          "Trel::TopologyConfig",
                                          "TrelSnmp::Agent::Agent",
                                          "TrelSnmp::Agent::Root",
                                          "TrelSnmp::Agent::SnmpStatusSm",
                                          "TrelSnmp::Agent::TrelSnmpHostResourcesSm",
                                          "TrelSnmp::Agent::TrelSnmpHrStorageTableSm",
                                          "TrelSnmp::Agent::TrelSnmpIfTableSm",
                                          "TrelSnmp::Agent::TrelSnmpReachabilityTableSm",
                                          "TrelSnmp::TrelHrStorageEntryMem",
                                          "TrelSnmp::TrelHrStorageEntryMount",
                                          "TrelSnmp::TrelHrSystemEntry",
                                          "TrelSnmp::TrelIfEntry",
                                          "TrelSnmp::TrelMib",
                                          "TrelSnmp::TrelProcessorEntry",
                                          "TrelSnmp::TrelReachabilityEntry"};

using Objects = std::vector<Zavro::Ptr<Kor::Object>>;

class Reflection : public AgentTest {
 protected:
  using ReachabilityDirSm0 = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  using TopologyConfigSm0 = RivoCode::TrelSnmpIfTableSm::TopologyConfigSm0;
  using HostResourcesDirSm0 = RivoCode::TrelSnmpHostResourcesSm::HostResourcesDirSm0;

  void SetUp() override {
    AgentTest::SetUp();
    reports("1", 2);
    linked();
    auto host = Zavro::makePtr<HostResources::HostResources>("1");
    host->processorTable().set(1, Zavro::makePtr<const HostResources::Processor>(int16_t{7}));
    host->storageInfoTable().set("/", Zavro::makePtr<const HostResources::StorageInfo>(4096, 100, 60));
    HostResources::MemInfo::Amounts amounts;
    amounts.total = 9;
    host->memInfoIs(Zavro::makePtr<const HostResources::MemInfo>(amounts));
    hostResourcesDir->entityPtrIs(host);
    auto mappings = Kor::Entity::singletonIs(HostResourcesMib::StorageEntryMappings::kTypeName);
    auto& typed = dynamic_cast<HostResourcesMib::StorageEntryMappings&>(*mappings);
    typed.mountEntries().set("/", {{}, "/", 31});
    typed.memEntries().set(1, {{}, "RAM", 1});
  }

  // The machines of a pipeline, those below before those above, and what it publishes.
  static Objects partsOf(const Pipeline& pipeline) {
    Objects parts;
    for (const auto& machine : pipeline.machines()) {
      for (const auto& child :
           {childOf<ReachabilityDirSm0>(*machine, "1"), childOf<HostResourcesDirSm0>(*machine, "1"),
            childOf<TopologyConfigSm0>(*machine, Trel::MemberId(1))}) {
        if (child) parts.push_back(child);
      }
      parts.push_back(machine);
    }
    parts.push_back(&pipeline.inputSmScanState());
    parts.push_back(&pipeline.outputState());
    return parts;
  }
  // All that there is while the agent lives, parts before what they are parts of.
  Objects everything() {
    Objects all;
    for (const auto& pipeline : root->agent()->pipelines()) {
      for (const auto& part : partsOf(*pipeline)) all.push_back(part);
      all.push_back(pipeline);
    }
    for (const auto& object :
         Objects{root->agent()->snmpStatusSm(), root->agent(), root, status, ifMib, topology, reachabilityDir,
                 hostResourcesDir, reachabilityDir->entityPtr("1"), hostResourcesDir->entityPtr("1"),
                 Snmp::RegVoidCollByContext::singleton(),
                 Kor::Entity::singletonIs(HostResourcesMib::StorageEntryMappings::kTypeName), mib})
      all.push_back(object);
    for (const auto& member : records()) all.push_back(boost::const_pointer_cast<Kor::Object>(member));
    return all;
  }
  static void read(const Objects& objects) {
    for (const auto& object : objects) {
      for (const std::string& name : attributeNames(object->korType())) {
        Kor::attribute(*object, name);
      }
    }
  }
  static void invoke(const Objects& objects) {
    for (const auto& object : objects) {
      for (const std::string& name : operationNames(object->korType())) Kor::invoke(*object, name);
    }
  }

 private:
  template <class DirSm, class Key>
  static Zavro::Ptr<EntityMachine> childOf(const Machine& machine, const Key& key) {
    auto* dir = dynamic_cast<const DirSm*>(&machine);
    return dir != nullptr ? dir->child(key) : nullptr;
  }
  // The rows, and the values that the inputs hold.
  std::vector<Zavro::Ptr<const Kor::Object>> records() const {
    auto& host = dynamic_cast<const HostResources::HostResources&>(*hostResourcesDir->entityPtr("1"));
    auto& reported = dynamic_cast<const Trel::ReachabilityStatus&>(*reachabilityDir->entityPtr("1"));
    std::vector<Zavro::Ptr<const Kor::Object>> records = {
        *topology->topoConfig().find(Trel::MemberId(1)),
        *reported.reachabilityStatus().find(Trel::MemberId(2)),
        *host.processorTable().find(1),
        *host.storageInfoTable().find("/"),
        host.memInfo(),
        mib->trelIfTable(10),
        mib->trelReachabilityTable({1, 2}),
        mib->trelHrSystemTable(1),
        mib->trelProcessorTable({1, 1}),
        mib->trelHrStorageTable({1, 31}),
        mib->trelHrStorageTable({1, 1})};
    records.push_back(Snmp::KelstoreUtil::getSnmpConfig());
    std::erase(records, nullptr);
    return records;
  }
};

TEST_F(Reflection, EveryAttribute_IsReadByNameAfterEverySlice) {
  agentIs();
  read(everything());
  scheduler.drain([&] { read(everything()); });
  std::set<std::string> types;
  for (const auto& object : everything()) types.insert(object->korType().name());
  EXPECT_EQ(types, kEveryType);
}

TEST_F(Reflection, EveryOperation_IsInvokedByNameBeforeAndAfterTheScans) {
  agentIs();
  invoke(everything());
  scheduler.drain();
  invoke(everything());
  scheduler.drain();
  read(everything());
}

TEST_F(Reflection, WhatOutlivesItsPipeline_CanStillBeReadAndDriven) {
  agentIs();
  scheduler.drain();
  Objects parts;
  for (const auto& pipeline : root->agent()->pipelines()) {
    for (const auto& part : partsOf(*pipeline)) parts.push_back(part);
  }
  root->agentDel();
  read(parts);
  invoke(parts);
}

}  // namespace
}  // namespace TrelSnmp::Agent
