#include "pipelines/framework/LeafMachine.h"

namespace TrelSnmp::Agent {
namespace {

std::vector<size_t> numbers(const std::vector<LeafMachine::Input>& inputs) {
  std::vector<size_t> result;
  for (const LeafMachine::Input& input : inputs) result.push_back(input.number);
  return result;
}

}  // namespace

LeafMachine::LeafMachine(Pipeline& root, std::string name, Zavro::Ptr<const Kor::Object> entity,
                         std::vector<Input> inputs)
    : name_(std::move(name)), tasks_(root, name_, numbers(inputs), [this](size_t i) { runScan(i); }) {
  std::vector<ChildMachine::Part> parts;
  for (size_t i = 0; i < inputs.size(); ++i) {
    parts.push_back({i, inputs[i].number, std::move(inputs[i].stream), [this, i] { return tasks_.task(i); },
                     [this, i] { tasks_.start(i); }});
  }
  machine_ = Zavro::makePtr<ChildMachine>(root, name_, "", std::move(entity), std::move(parts));
  machine_->subscribe();
  LeafMachine::doInputScan();
}

void LeafMachine::doInputScan() {
  for (size_t i = 0; i < tasks_.size(); ++i) tasks_.start(i);
}

void LeafMachine::runScan(size_t i) {
  if (machine_->hasNotificationActive() && machine_->runScan(i)) tasks_.completed(i);
}

void LeafMachine::hasNotificationActiveIs(bool active) {
  machine_->hasNotificationActiveIs(active);
  if (active) doInputScan();
}

void LeafMachine::stop(bool deleteRows) {
  tasks_.stop();
  machine_->stop(deleteRows);
}

}  // namespace TrelSnmp::Agent
