// A top machine without children: it follows one entity and scans its collections on tasks of its own.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "pipelines/framework/ChildMachine.h"
#include "pipelines/framework/ScanTasks.h"

namespace TrelSnmp::Agent {

class LeafMachine final : public TopMachine {
 public:
  struct Input {
    size_t number;  // of the pipeline's streams
    std::unique_ptr<ChildStream> stream;
  };

  // name: such as "IfMibSm2"; entity owns what the inputs follow. Follows from here on and starts the scans.
  LeafMachine(Pipeline& root, std::string name, Zavro::Ptr<const Kor::Object> entity,
              std::vector<Input> inputs);

  void doInputScan() override;
  void doDeleteAll() override { machine_->doDeleteAll(); }
  void hasNotificationActiveIs(bool active) override;
  void stop(bool deleteRows) override;
  const Kor::Type& korType() const override { return machine_->korType(); }

 private:
  void runScan(size_t i);

  const std::string name_;
  ScanTasks tasks_;
  Zavro::Ptr<ChildMachine> machine_;
};

}  // namespace TrelSnmp::Agent
