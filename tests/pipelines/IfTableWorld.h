// A cluster's wiring and interface indexes as a test sets them up, and the table as a test compares it.
#pragma once

#include <string>

#include "pipelines/TrelSnmpIfTableSm.h"
#include "tests/support/DrivenScheduler.h"

namespace TrelSnmp::Agent {

struct IfTableWorld {
  DrivenScheduler scheduler;
  Zavro::Ptr<Trel::TopologyConfig> topology = Zavro::makePtr<Trel::TopologyConfig>("topology");
  Zavro::Ptr<IntfSnmp::IfMib> ifMib = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  Zavro::Ptr<TrelMib> mib = trelMibFactory("trelMib");
  Zavro::Ptr<TrelSnmpIfTableSm> sm;

  Trel::TopoConfig* member(uint8_t local) const {
    const auto* found = topology->topoConfig().find(Trel::MemberId(local));
    return found != nullptr ? found->get() : nullptr;
  }
  // A new, unwired topology of that member, whatever was there.
  Trel::TopoConfig& joins(uint8_t local) {
    auto entity = Zavro::makePtr<Trel::TopoConfig>(Trel::MemberId(local));
    topology->topoConfig().set(Trel::MemberId(local), entity);
    return *entity;
  }
  void leaves(uint8_t local) { topology->topoConfig().del(Trel::MemberId(local)); }
  void wires(uint8_t local, uint8_t remote, const std::string& intf) {
    Trel::TopoConfig* config = member(local);
    (config != nullptr ? *config : joins(local)).neighbor().set(Trel::MemberId(remote), Lanix::IntfId(intf));
  }
  void unwires(uint8_t local, uint8_t remote) {
    if (Trel::TopoConfig* config = member(local)) config->neighbor().del(Trel::MemberId(remote));
  }
  void indexIs(const std::string& intf, uint32_t ifIndex) {
    ifMib->ifIndexByIntfId().set(Lanix::IntfId(intf), ifIndex);
  }
  void indexDel(const std::string& intf) { ifMib->ifIndexByIntfId().del(Lanix::IntfId(intf)); }

  Zavro::Ptr<TrelSnmpIfTableSm> makePipeline(Rvx::Mode mode = Rvx::Mode::pipelineDefault) const {
    Rvx::SmControl control;
    control.scheduler = scheduler.get();
    control.mode = mode;
    return trelSnmpIfTableSmFactory(topology, ifMib, mib, control);
  }
  void start(Rvx::Mode mode = Rvx::Mode::pipelineDefault) {
    sm = makePipeline(mode);
    sm->hasNotificationActiveIs(true);
  }
  void startAndDrain() {
    start();
    scheduler.drain();
  }

  // "[ 10=(1,2) 12=(2,1) ]"
  std::string rows() const {
    std::string text = "[ ";
    for (auto row = mib->trelIfTable().begin(); row; row.next()) {
      text +=
          fmt::format("{}=({},{}) ", row.key(), row.entry()->localMemberId(), row.entry()->remoteMemberId());
    }
    return text + "]";
  }
};

}  // namespace TrelSnmp::Agent
