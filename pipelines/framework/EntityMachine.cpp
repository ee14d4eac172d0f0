#include "pipelines/framework/EntityMachine.h"

#include "pipelines/framework/CollectionStream.h"
#include "platform/zavro/Assert.h"

namespace TrelSnmp::Agent {

EntityMachine::EntityMachine(Pipeline& root, std::string name, Zavro::Ptr<const Kor::Object> entity,
                             Inputs inputs, std::optional<Parent> parent)
    : Machine(root, std::move(name)),
      entity_(std::move(entity)),
      inputs_(std::move(inputs)),
      parent_(std::move(parent)) {
  auto en = [this] { return entity_ != nullptr; };
  zavroAssert(en() && "Sm args can only be null if marked as Optional in the SM type declaration");
  Kor::Type& type = describe();
  if (parent_) {
    type.attributeIs({"smKey", [key = parent_->smKey](const Kor::Object&) { return key; }, {}});
  } else {
    makeTasks();
  }
  for (size_t i = 0; i < inputs_.size(); ++i) {
    inputs_[i].stream->describe(type, number(i));
    inputs_[i].stream->follow(*this, i);
  }
}

Zavro::Ptr<Vem::Task> EntityMachine::task(size_t stream) const {
  return parent_ ? parent_->machine.task(parent_->machine.streamPlace(number(stream)))
                 : Machine::task(stream);
}

void EntityMachine::activeChanged() {
  if (!hasNotificationActive()) return;
  for (Input& input : inputs_) input.stream->handlePending();
  doInputScan();
}

void EntityMachine::doInputScan() {
  if (!hasNotificationActive()) return;
  for (size_t i = 0; i < inputs_.size(); ++i) {
    if (parent_ && task(i)) {
      parent_->scanWanted(number(i));
    } else {
      startScan(i);
    }
  }
}

bool EntityMachine::runScan(size_t stream) {
  if (!hasNotificationActive() || !inputs_[stream].stream->runScan()) return false;
  if (!parent_) scanCompleted(stream);
  return true;
}

void EntityMachine::resetScans() {
  for (Input& input : inputs_) input.stream->scanAgain();
}

void EntityMachine::doDeleteAll() {
  if (!root().initialScanDone()) return;
  for (Input& input : inputs_) input.stream->deleteAll();
}

void EntityMachine::ends(bool deleteRows) {
  if (deleteRows) doDeleteAll();
  inputs_.clear();
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
