// A machine that follows one entity: the child of another machine, in whose runs it is scanned, or at the top
// of the tree.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pipelines/framework/InputScan.h"

namespace TrelSnmp::Agent {

// The part of an EntityMachine that follows one input stream. The machine owns it.
class EntityStream {
 public:
  virtual ~EntityStream() = default;
  // Subscribes to the input. stream: the place among the machine's streams.
  virtual void follow(const Machine& machine, size_t stream) = 0;
  // One run of the scan; true when it is complete.
  virtual bool runScan() = 0;
  // The next run starts from the beginning.
  virtual void scanAgain() = 0;
  // Emits every element.
  virtual void sendAll() = 0;
  // Emits an absent element for every key that may have been emitted.
  virtual void deleteAll() = 0;
  // Handles what changed while the machine was inactive.
  virtual void handlePending() = 0;
  virtual ScanState scanState() const = 0;
  virtual std::string bookmarkText() const = 0;
  // number: the stream's number in the pipeline.
  virtual void describe(Kor::Type& type, size_t number) = 0;
};

class EntityMachine final : public Machine {
 public:
  struct Input {
    size_t number;  // of the stream, in the pipeline
    std::unique_ptr<EntityStream> stream;
  };
  using Inputs = std::vector<Input>;
  struct Parent {
    const Machine& machine;
    std::string smKey;  // text of the entity's key in the parent's collection
    // Has the next run of that stream's task scan this machine.
    std::function<void(size_t number)> scanWanted;
  };

  // Subscribes to the inputs, which are parts of the entity. Without a parent the machine is at the top.
  EntityMachine(Pipeline& root, std::string name, Zavro::Ptr<const Kor::Object> entity, Inputs inputs,
                std::optional<Parent> parent = {});

  const Zavro::Ptr<const Kor::Object>& entity() const { return entity_; }

  // Emits every element of the stream.
  void sendAll(size_t stream) { inputs_[stream].stream->sendAll(); }

  void doInputScan() override;
  void doDeleteAll() override;
  size_t streams() const override { return inputs_.size(); }
  size_t number(size_t stream) const override { return inputs_[stream].number; }
  ScanState inputScanState(size_t stream) const override { return inputs_[stream].stream->scanState(); }
  std::string bookmarkText(size_t stream) const override { return inputs_[stream].stream->bookmarkText(); }
  Zavro::Ptr<Vem::Task> task(size_t stream) const override;
  bool runScan(size_t stream) override;
  void resetScans() override;

 private:
  void activeChanged() override;
  void ends(bool deleteRows) override;

  const Zavro::Ptr<const Kor::Object> entity_;
  Inputs inputs_;
  const std::optional<Parent> parent_;
};

}  // namespace TrelSnmp::Agent
