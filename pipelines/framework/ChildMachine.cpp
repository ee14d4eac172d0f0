#include "pipelines/framework/ChildMachine.h"

#include "pipelines/framework/CollectionStream.h"
#include "platform/zavro/Assert.h"

namespace TrelSnmp::Agent {

ChildMachine::ChildMachine(Pipeline& root, const std::string& name, std::string smKey,
                           Zavro::Ptr<const Kor::Object> entity, std::vector<Part> parts)
    : root_(root),
      name_(name),
      smKey_(std::move(smKey)),
      entity_(std::move(entity)),
      parts_(std::move(parts)),
      type_(name) {
  auto en = [this] { return entity_ != nullptr; };
  zavroAssert(en() && "Sm args can only be null if marked as Optional in the SM type declaration");
  describe();
}

void ChildMachine::describe() {
  Kor::TypeBuilder<ChildMachine> type(name_);
  type.attribute("smKey", &ChildMachine::smKey)
      .attribute("hasNotificationActive", &ChildMachine::hasNotificationActive)
      .operation("doInputScan", [](ChildMachine& m) { m.doInputScan(); })
      .operation("doDeleteAll", &ChildMachine::doDeleteAll);
  for (size_t i = 0; i < parts_.size(); ++i) {
    std::string n = std::to_string(parts_[i].number);
    type.attribute("inputScanState" + n,
                   [i](const ChildMachine& m) { return static_cast<int>(m.parts_[i].input->scanState()); })
        .attribute("inputScanComplete" + n,
                   [i](const ChildMachine& m) {
                     return completeFor(m.parts_[i].input->scanState(), m.root_.initialScanDone());
                   })
        .attribute("inTask" + n,
                   [i](const ChildMachine& m) {
                     auto task = m.parts_[i].task();
                     return task && task->taskCurrentlyRunning();
                   })
        .attribute("shouldYield" + n,
                   [i](const ChildMachine& m) {
                     auto task = m.parts_[i].task();
                     return !m.root_.synchronous() && task && task->taskShouldYield();
                   })
        .operation("doInputScan" + n, [i](ChildMachine& m) { m.doInputScan(m.parts_[i]); });
  }
  type_ = type.build();
  for (const Part& part : parts_) part.input->describe(type_, part.number);
}

void ChildMachine::hasNotificationActiveIs(bool active) {
  if (active == active_ || !live_) return;
  active_ = active;
  if (!active_) return;
  for (Part& part : parts_) part.input->handlePending();
  doInputScan();
}

void ChildMachine::subscribe() {
  for (Part& part : parts_) part.input->subscribe(*this);
}

void ChildMachine::doInputScan() {
  for (Part& part : parts_) doInputScan(part);
}

void ChildMachine::doInputScan(Part& part) {
  if (!reacts()) return;
  if (part.task()) {
    part.scanWanted();
  } else {
    runScan(part);
  }
}

bool ChildMachine::runScan(size_t stream) {
  for (Part& part : parts_) {
    if (part.stream == stream) return runScan(part);
  }
  return true;
}

void ChildMachine::doDeleteAll() {
  if (!root_.initialScanDone()) return;
  for (Part& part : parts_) part.input->deleteAll();
}

void ChildMachine::stop(bool deleteRows) {
  if (!live_) return;
  live_ = false;
  if (deleteRows) doDeleteAll();
}

void missedNotifications(const std::string& collection, uint32_t seen, uint32_t now) {
  std::string name = capitalised(collection);
  Zavro::assertFailed(
      fmt::format("{0}.version() == version{1} && \"We missed notifications that happened to {0} before the "
                  "enclosing entity got deleted\"",
                  collection, name),
      "void doDeleteAll()", static_cast<const char*>(__FILE__), __LINE__,
      fmt::format("version={} version{}={}", now, name, seen));
}

}  // namespace TrelSnmp::Agent
