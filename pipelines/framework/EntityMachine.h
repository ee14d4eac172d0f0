// A machine that follows one entity of the input: below another machine, whose runs its scans are part of, or
// at the top of the tree.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pipelines/framework/InputScan.h"

namespace TrelSnmp::Agent {

// One input stream's part of such a machine, which owns it.
class EntityStream {
 public:
  virtual ~EntityStream() = default;
  // Follows the input from here on, as the machine's stream at that place.
  virtual void follow(const Machine& machine, size_t stream) = 0;
  // One run of the scan; true when it is complete.
  virtual bool runScan() = 0;
  // The next run starts anew.
  virtual void scanAgain() = 0;
  // Sends every element that is there.
  virtual void sendAll() = 0;
  // Sends an absent element for everything that the stream may have sent.
  virtual void deleteAll() = 0;
  // Handles what changed while the machine was inactive.
  virtual void handlePending() = 0;
  virtual ScanState scanState() const = 0;
  virtual std::string bookmarkText() const = 0;
  // number: of the pipeline's streams.
  virtual void describe(Kor::Type& type, size_t number) = 0;
};

class EntityMachine final : public Machine {
 public:
  // The input of one of the pipeline's streams.
  struct Input {
    size_t number;
    std::unique_ptr<EntityStream> stream;
  };
  using Inputs = std::vector<Input>;
  struct Parent {
    const Machine& machine;
    std::string smKey;  // the text of the entity's key there
    // Lets the next run of the parent's scan of that stream, which is on a task, visit the machine.
    std::function<void(size_t number)> scanWanted;
  };

  // Follows the entity from here on. The inputs belong to it. Without a parent the machine is at the top.
  EntityMachine(Pipeline& root, std::string name, Zavro::Ptr<const Kor::Object> entity, Inputs inputs,
                std::optional<Parent> parent = {});

  const Zavro::Ptr<const Kor::Object>& entity() const { return entity_; }

  // Sends every element that the stream has now.
  void sendAll(size_t stream) { inputs_[stream].stream->sendAll(); }

  void doInputScan() override;
  void doDeleteAll() override;
  size_t streams() const override { return inputs_.size(); }
  size_t number(size_t stream) const override { return inputs_[stream].number; }
  ScanState inputScanState(size_t stream) const override { return inputs_[stream].stream->scanState(); }
  std::string bookmarkText(size_t stream) const override { return inputs_[stream].stream->bookmarkText(); }
  Zavro::Ptr<Vem::Task> task(size_t stream) const override;
  bool runScan(size_t stream) override;
  void scansAgain() override;

 private:
  void activeChanged() override;
  void ends(bool deleteRows) override;

  const Zavro::Ptr<const Kor::Object> entity_;
  Inputs inputs_;
  const std::optional<Parent> parent_;
};

}  // namespace TrelSnmp::Agent
