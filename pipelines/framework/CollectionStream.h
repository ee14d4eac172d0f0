// The stream of a keyed collection's elements, as part of a child machine.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <utility>

#include "pipelines/framework/ChildMachine.h"
#include "pipelines/framework/Names.h"
#include "platform/kor/Notifier.h"

namespace TrelSnmp::Agent {

// A missed notification is our own bug: which rows to delete is not known any more.
[[noreturn]] void missedNotifications(const std::string& collection, uint32_t seen, uint32_t now);

// The stream of a keyed collection's elements.
template <class Collection>
class CollectionStream final : public ChildStream {
 public:
  using Key = typename Collection::Key;
  using Value = typename Collection::Value;
  // value: null when the element is absent.
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
      return true;
    });
    if (complete) version_ = collection_.version();
    return complete;
  }

  void deleteAll() override {
    if (version_ != collection_.version()) missedNotifications(name_, version_, collection_.version());
    std::set<Key> keys = std::exchange(pending_, {});
    for (auto element = collection_.begin(); element; element.next()) keys.insert(element.key());
    for (const Key& key : keys) emit_(key, nullptr);
  }

  void handlePending() override {
    for (const Key& key : std::exchange(pending_, {})) handle(key);
  }

  ScanState scanState() const override { return scan_.state(); }

  void describe(Kor::Type& type, size_t index) const override {
    type.attributeIs({"inputScanBookmark" + std::to_string(index),
                      [this](const Kor::Object&) { return Kor::toText(scan_.bookmark()); },
                      {}});
    type.attributeIs(
        {"version" + capitalised(name_), [this](const Kor::Object&) { return Kor::toText(version_); }, {}});
  }

 private:
  void handleReactor(const Key& key) {
    if (machine_->reacts()) {
      handle(key);
    } else {
      version_ = collection_.version();
      pending_.insert(key);
    }
  }

  void handle(const Key& key) {
    machine_->root().traceHandle().trace(8, "{}", key);
    version_ = collection_.version();
    emit_(key, collection_.find(key));
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
