// A machine below a top machine: it follows one entity of the input. It has no task of its own; its scans are
// part of its parent's runs.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pipelines/framework/InputScan.h"

namespace TrelSnmp::Agent {

class ChildMachine;

// One input stream's part of a child machine. The machine owns it.
class ChildStream {
 public:
  virtual ~ChildStream() = default;
  // Follows the input from here on.
  virtual void subscribe(ChildMachine& machine) = 0;
  // One run of the scan on the parent's task (null: without yielding); true when it is complete.
  virtual bool run(const std::string& machine, Zavro::Ptr<Vem::Task> task) = 0;
  // Sends an absent element for everything that the stream may have sent.
  virtual void deleteAll() = 0;
  // Handles what changed while the machine was inactive.
  virtual void handlePending() = 0;
  virtual ScanState scanState() const = 0;
  virtual void describe(Kor::Type& type, size_t index) const = 0;
};

class ChildMachine final : public Kor::Object {
 public:
  struct Part {
    size_t stream;  // the parent's index of the stream
    size_t number;  // of the pipeline's streams
    std::unique_ptr<ChildStream> input;
    // The parent's task that runs the stream's scan; null when there is none (any more).
    std::function<Zavro::Ptr<Vem::Task>()> task;
    // Lets the task's next run visit this machine.
    std::function<void()> scanWanted;
  };

  // name: such as "EntityPtrSm1", outlives the machine; smKey: the text of the entity's key with the parent.
  ChildMachine(Pipeline& root, const std::string& name, std::string smKey,
               Zavro::Ptr<const Kor::Object> entity, std::vector<Part> parts);

  Pipeline& root() const { return root_; }
  const std::string& smKey() const { return smKey_; }
  const Zavro::Ptr<const Kor::Object>& entity() const { return entity_; }

  bool hasNotificationActive() const { return active_; }
  // Changes are acted on, rather than noted. False once the machine was ended.
  bool reacts() const { return live_ && active_; }
  void hasNotificationActiveIs(bool active);

  // Follows the entity from here on.
  void subscribe();
  // Starts every scan.
  void doInputScan();
  // One run of the stream's scan; true when it is complete.
  bool runScan(size_t stream);
  // Deletes every row that the entity produced; nothing while the pipeline's initial scan is not done.
  void doDeleteAll();
  // Ends the machine, with doDeleteAll() unless the rows are to stay.
  void stop(bool deleteRows);
  const Kor::Type& korType() const override { return type_; }

 private:
  void describe();
  void doInputScan(Part& part);
  bool runScan(Part& part) { return part.input->run(name_, part.task()); }

  Pipeline& root_;
  const std::string& name_;
  const std::string smKey_;
  const Zavro::Ptr<const Kor::Object> entity_;
  std::vector<Part> parts_;
  bool live_ = true;
  bool active_ = true;
  Kor::Type type_;
};

}  // namespace TrelSnmp::Agent
