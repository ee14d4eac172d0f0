// A coalescing stream: events only note their key, and a task works the keys off later, in slices. Several
// changes of one key before its turn are worked off once, so what is worked off is the state as it is by
// then. In a synchronous pipeline every key is worked off at once; one that something was thrown at has its
// turn again after the next.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>

#include "pipelines/framework/Pipeline.h"
#include "platform/kor/Text.h"

namespace TrelSnmp::Agent {

class BacklogBase {
 public:
  // stream: such as "topoConfigStream"; number: the stream's number in the pipeline.
  BacklogBase(Pipeline& root, std::string stream, size_t number);
  virtual ~BacklogBase();
  BacklogBase(const BacklogBase&) = delete;
  BacklogBase& operator=(const BacklogBase&) = delete;

  const std::string& stream() const { return stream_; }
  const std::string& name() const { return name_; }  // "<stream>Codef"
  size_t number() const { return number_; }
  // The generations step in twos: doneGen is where the stream will be when all that its scan found is worked
  // off, generation where it is.
  // Published with inputSmScanState(), as the idle flag is.
  uint64_t generation() const { return state().get(generation_); }
  uint64_t doneGen() const { return state().get(doneGen_); }
  bool idle() const { return state().flag(idle_); }  // nothing is left to work off
  bool caughtUp() const { return idle() && generation() == doneGen(); }
  const Zavro::Ptr<Vem::Task>& task() const { return task_; }

  // "handle<Stream>CodefInputReady": called when the pipeline starts and when a stream's scan completes.
  void handleInputReady();
  virtual size_t size() const = 0;
  virtual std::string bookmarkText() const = 0;

  // For the pipeline.
  void start();
  // Working off rests while the pipeline is paused, and goes on now.
  void resume();

 protected:
  Pipeline& root() const { return root_; }
  void scheduleWork();
  // Works off one key; only while size() is not 0.
  virtual void workOffOne() = 0;

 private:
  PublishedState& state() const { return root_.inputSmScanState(); }
  void workOff();
  void idleIs(bool idle);

  Pipeline& root_;
  const std::string stream_;
  const std::string name_;
  const size_t number_;
  Zavro::Ptr<Vem::Task> task_;
  // Their places in the state.
  size_t generation_ = 0;
  size_t doneGen_ = 0;
  size_t idle_ = 0;
};

template <class Key>
class Backlog final : public BacklogBase {
 public:
  using Process = std::function<void(const Key&)>;

  Backlog(Pipeline& root, std::string stream, size_t number, Process processOne)
      : BacklogBase(root, std::move(stream), number), processOne_(std::move(processOne)) {}

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
  // Goes round the keys in their order, so that none waits for one that keeps changing.
  void workOffOne() override {
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
      keys_.insert(key);  // its turn comes again
      scheduleWork();
      throw;
    }
  }

  Process processOne_;
  std::set<Key> keys_;           // ordered, so that every run of the process works them off alike
  std::optional<Key> bookmark_;  // the key that was worked off last
};

}  // namespace TrelSnmp::Agent
