// A machine below a top machine: it follows one entity of the input. It has no task of its own; its scans are
// part of its parent's runs.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "framework/InputScan.h"
#include "framework/Names.h"
#include "kor/Notifier.h"
#include "zavro/Assert.h"

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
  // Sends an absent element for everything that the stream may have sent. The machine is not live any more.
  virtual void deleteAll() = 0;
  // Handles what changed while the machine was inactive.
  virtual void handlePending() = 0;
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

  // False once the machine was ended; it then sends nothing more, even when it still stands on the stack.
  bool live() const { return live_; }
  bool hasNotificationActive() const { return active_; }
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

// A missed notification is our own bug: which rows to delete is not known any more.
[[noreturn]] void missedNotifications(const std::string& collection, uint32_t seen, uint32_t now);

// The stream of a keyed collection's elements.
template <class Collection>
class CollectionStream final : public ChildStream {
 public:
  using Key = typename Collection::Key;
  using Value = typename Collection::Value;
  // value: null when the element is absent; it lives until emit returns.
  using Emit = std::function<void(const Key& key, const Value* value)>;

  // name: the collection's attribute name. The collection belongs to the machine's entity.
  CollectionStream(std::string name, const Collection& collection, Emit emit)
      : name_(std::move(name)), collection_(collection), emit_(std::move(emit)) {}

  void subscribe(ChildMachine& machine) override {
    machine_ = &machine;
    // Counted from here on: an entity may vanish before its first scan has run.
    version_ = collection_.version();
    subscription_ = collection_.subscribe([this](const Key& key) { handleReactor(key); });
  }

  bool run(const std::string& machine, Zavro::Ptr<Vem::Task> task) override {
    ScanContext context{machine_->root(), machine, std::move(task), [this] { return collection_.size(); }};
    bool complete = scan_.run(context, collection_, [this](const Key& key) {
      handle(key);
      return machine_->live() ? InputScan<Key>::Step::done : InputScan<Key>::Step::gone;
    });
    if (complete) version_ = collection_.version();
    return complete;
  }

  void deleteAll() override {
    if (version_ != collection_.version()) missedNotifications(name_, version_, collection_.version());
    // A copy, since what a deletion makes subscribers do may change the collection.
    std::set<Key> keys = std::exchange(pending_, {});
    for (auto element = collection_.begin(); element; element.next()) keys.insert(element.key());
    for (const Key& key : keys) emit_(key, nullptr);
  }

  void handlePending() override {
    for (const Key& key : std::exchange(pending_, {})) handle(key);
  }

  void describe(Kor::Type& type, size_t index) const override {
    std::string n = std::to_string(index);
    type.attributeIs(
        {"inputScanBookmark" + n, [this](const Kor::Object&) { return Kor::toText(scan_.bookmark()); }, {}});
    type.attributeIs({"inputScanState" + n,
                      [this](const Kor::Object&) { return Kor::toText(static_cast<int>(scan_.state())); },
                      {}});
    type.attributeIs(
        {"version" + capitalised(name_), [this](const Kor::Object&) { return Kor::toText(version_); }, {}});
  }

 private:
  void handleReactor(const Key& key) {
    if (!machine_->live() || !machine_->hasNotificationActive()) {
      version_ = collection_.version();
      pending_.insert(key);
      return;
    }
    Zavro::Ptr<Pipeline> heldRoot = machine_->root().hold();
    Zavro::Ptr<ChildMachine> held(machine_);
    handle(key);
  }

  void handle(const Key& key) {
    machine_->root().traceHandle().trace(8, "{}", key);
    version_ = collection_.version();
    const Value* found = collection_.find(key);
    if (found == nullptr) {
      emit_(key, nullptr);
    } else {
      Value value = *found;  // what it leads to may replace the element
      emit_(key, &value);
    }
  }

  const std::string name_;
  const Collection& collection_;
  Emit emit_;
  ChildMachine* machine_ = nullptr;
  InputScan<Key> scan_;
  uint32_t version_ = 0;
  std::set<Key> pending_;
  Kor::Subscription subscription_;
};

}  // namespace TrelSnmp::Agent
