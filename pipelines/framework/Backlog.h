// A coalescing stream: an event only queues its key, and a task processes the queued keys later, in slices.
// Several changes of one key are processed once, with the state at that time. A synchronous pipeline
// processes each key at once. A key whose processing throws stays queued: for the task's next run or, in a
// synchronous pipeline, until the next event.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>

#include "pipelines/framework/Pipeline.h"
#include "platform/kor/TextForm.h"

namespace TrelSnmp::Agent {

class BacklogBase {
 public:
  // stream: its name, such as "topoConfigStream"; number: its number in the pipeline.
  BacklogBase(Pipeline& root, std::string stream, size_t number, std::function<void()> allProcessed);
  virtual ~BacklogBase();
  BacklogBase(const BacklogBase&) = delete;
  BacklogBase& operator=(const BacklogBase&) = delete;

  const std::string& stream() const { return stream_; }
  const std::string& name() const { return name_; }  // "<stream>Codef"
  size_t number() const { return number_; }
  // Generations advance by 2. A completed scan sets doneGen() to the generation that the stream reaches when
  // all queued keys have been processed. These and the idle flag are published with inputSmScanState().
  uint64_t generation() const { return state().get(generation_); }
  uint64_t doneGen() const { return state().get(doneGen_); }
  bool idle() const { return state().flag(idle_); }  // all queued keys were processed
  bool caughtUp() const { return idle() && generation() == doneGen(); }
  const Zavro::Ptr<Vem::Task>& task() const { return task_; }

  // "handle<Stream>CodefInputReady": called when the pipeline starts and when a stream's scan completes.
  void handleInputReady();
  virtual size_t size() const = 0;
  virtual std::string bookmarkText() const = 0;

  // For the pipeline.
  void start();
  // Processing stops while the pipeline is paused; this continues it.
  void resume();

 protected:
  Pipeline& root() const { return root_; }
  void scheduleWork();
  // Requires: size() is not 0.
  virtual void processNext() = 0;

 private:
  PublishedState& state() const { return root_.inputSmScanState(); }
  void processKeys();
  void idleIs(bool idle);

  Pipeline& root_;
  const std::string stream_;
  const std::function<void()> allProcessed_;
  const std::string name_;
  const size_t number_;
  Zavro::Ptr<Vem::Task> task_;
  // Places of the published fields.
  size_t generation_ = 0;
  size_t doneGen_ = 0;
  size_t idle_ = 0;
};

template <class Key>
class Backlog final : public BacklogBase {
 public:
  using Process = std::function<void(const Key&)>;

  // allProcessed is called when no key waits any more; a scan that is under way may bring others.
  Backlog(
      Pipeline& root, std::string stream, size_t number, Process processOne,
      std::function<void()> allProcessed = [] {})
      : BacklogBase(root, std::move(stream), number, std::move(allProcessed)),
        processOne_(std::move(processOne)) {}

  void event(const Key& key) {
    if (root().synchronous() && !root().paused()) {
      process(key);
      if (size() != 0) resume();
      return;
    }
    keys_.insert(key);
    scheduleWork();
  }

  size_t size() const override { return keys_.size(); }
  std::string bookmarkText() const override { return Kor::optText(bookmark_); }

 private:
  // Takes the keys in turn, so that a key that keeps changing does not hold up the others.
  void processNext() override {
    auto next = bookmark_ ? keys_.upper_bound(*bookmark_) : keys_.begin();
    if (next == keys_.end()) next = keys_.begin();
    bookmark_ = *next;
    process(*bookmark_);
  }

  void process(Key key) {
    keys_.erase(key);
    try {
      processOne_(key);
    } catch (...) {
      keys_.insert(key);
      scheduleWork();
      throw;
    }
  }

  Process processOne_;
  std::set<Key> keys_;           // ordered, so that every run of the program takes them in the same order
  std::optional<Key> bookmark_;  // the key that was processed last
};

}  // namespace TrelSnmp::Agent
