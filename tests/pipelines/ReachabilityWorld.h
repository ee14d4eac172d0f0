// A cluster's reachability as a test sets it up, and the table as a test compares it.
#pragma once

#include <memory>
#include <string>

#include "pipelines/TrelSnmpReachabilityTableSm.h"
#include "tests/support/DrivenScheduler.h"

namespace TrelSnmp::Agent {

struct ReachabilityWorld {
  using State = Trel::ReachabilityState;
  using Record = Zavro::Ptr<const State>;

  DrivenScheduler scheduler;
  Zavro::Ptr<Kor::Dir> dir = Zavro::makePtr<Kor::Dir>("reachabilityDir");
  Zavro::Ptr<IntfSnmp::IfMib> ifMib = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  Zavro::Ptr<TrelMib> mib = trelMibFactory("trelMib");
  Zavro::Ptr<TrelSnmpReachabilityTableSm> sm;

  static Record record(State::State state) { return Zavro::makePtr<State>(state, std::nullopt, 0); }

  Trel::ReachabilityStatus* member(const std::string& key) const {
    return dynamic_cast<Trel::ReachabilityStatus*>(dir->entityPtr(key).get());
  }
  // Puts a new entity under the key, whatever is there.
  Trel::ReachabilityStatus& joins(const std::string& key) {
    auto entity = Zavro::makePtr<Trel::ReachabilityStatus>(key);
    dir->entityPtrIs(key, entity);
    return *entity;
  }
  void leaves(const std::string& key) { dir->entityPtrDel(key); }
  void reports(const std::string& key, uint8_t neighbour, const Record& state) {
    Trel::ReachabilityStatus* entity = member(key);
    (entity != nullptr ? *entity : joins(key)).reachabilityStatus().set(Trel::MemberId(neighbour), state);
  }
  void reports(const std::string& key, uint8_t neighbour, State::State state) {
    reports(key, neighbour, record(state));
  }
  void withdraws(const std::string& key, uint8_t neighbour) {
    if (auto* entity = member(key)) entity->reachabilityStatus().del(Trel::MemberId(neighbour));
  }

  Rvx::SmControl control(Rvx::Mode mode = Rvx::Mode::pipelineDefault) const {
    Rvx::SmControl control;
    control.scheduler = scheduler.get();
    control.mode = mode;
    return control;
  }
  Zavro::Ptr<TrelSnmpReachabilityTableSm> makePipeline(Rvx::Mode mode = Rvx::Mode::pipelineDefault) const {
    return trelSnmpReachabilityTableSmFactory(dir, ifMib, mib, control(mode));
  }
  void start(Rvx::Mode mode = Rvx::Mode::pipelineDefault) {
    sm = makePipeline(mode);
    sm->hasNotificationActiveIs(true);
  }
  void startAndDrain() {
    start();
    scheduler.drain();
  }

  // A row that no event of this world has written.
  void staleRow(uint32_t member, uint32_t neighbour, const Record& state) const {
    mib->trelReachabilityTableIs({member, neighbour}, state, ifMib);
  }

  // "[ (1,3)=unreachable (3,1)=reachable ]"
  std::string rows() const {
    std::string text = "[ ";
    for (auto row = mib->trelReachabilityTable().begin(); row; row.next()) {
      text += rowText(row.key(), row.entry()->reachabilityState()->state());
    }
    return text + "]";
  }

 private:
  static std::string rowText(const MemberIdPair& key, State::State state) {
    return fmt::format("({},{})={} ", key.firstId(), key.secondId(), Kor::nameOf(state));
  }
};

}  // namespace TrelSnmp::Agent
