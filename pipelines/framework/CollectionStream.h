// The stream of a keyed collection's elements, as part of an entity's machine.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <type_traits>

#include "pipelines/framework/EntityMachine.h"
#include "pipelines/framework/Names.h"
#include "platform/kor/Notifier.h"

namespace TrelSnmp::Agent {

// Ends the process: after a missed notification it is not known which rows to delete.
[[noreturn]] void missedNotifications(const std::string& collection, uint32_t seen, uint32_t now);

template <class Collection>
class CollectionStream final : public EntityStream {
 public:
  using Key = typename Collection::Key;
  using Value = typename Collection::Value;
  // value: null when the element is absent.
  using Emit = std::function<void(const Key& key, const Value* value)>;

  // name: the collection's attribute name. The collection belongs to the machine's entity.
  CollectionStream(std::string name, const Collection& collection, Emit emit)
      : name_(std::move(name)), collection_(collection), emit_(std::move(emit)) {}

  void follow(const Machine& machine, size_t stream) override {
    machine_ = &machine;
    stream_ = stream;
    // Set here already: the entity may vanish before its first scan has run.
    version_ = collection_.version();
    subscription_ = collection_.subscribe([this](const Key& key) { handleReactor(key); });
  }

  bool runScan() override {
    auto step = [this](const typename Collection::Cursor& element) {
      handle(element.key(), element.value());
      return true;
    };
    bool complete = scan_.run(*machine_, stream_, collection_, step);
    if (complete) version_ = collection_.version();
    return complete;
  }

  void scanAgain() override { scan_.again(); }

  void sendAll() override {
    for (auto element = collection_.begin(); element; element.next()) emit_(element.key(), element.value());
  }

  void deleteAll() override {
    if (kCounted && version_ != collection_.version()) {
      missedNotifications(name_, version_, collection_.version());
    }
    for (auto element = collection_.begin(); element; element.next()) pending_.insert(element.key());
    for (const Key& key : pending_) emit_(key, nullptr);
    pending_.clear();
  }

  void handlePending() override {
    while (!pending_.empty()) {
      Key key = *pending_.begin();
      handle(key);
      pending_.erase(key);
    }
  }

  ScanState scanState() const override { return scan_.state(); }
  std::string bookmarkText() const override { return Kor::toText(scan_.bookmark()); }

  void describe(Kor::Type& type, size_t number) override {
    std::string handler = "handle" + capitalised(name_) + std::to_string(number);
    type.operationIs({handler, [this](Kor::Object&) {
                        for (auto at = collection_.begin(); at; at.next()) handle(at.key());
                      }});
    type.operationIs({handler + "Reactor", [this](Kor::Object&) {
                        for (auto at = collection_.begin(); at; at.next()) handleReactor(at.key());
                      }});
    if (!kCounted) return;
    type.attributeIs(
        {"version" + capitalised(name_), [this](const Kor::Object&) { return Kor::toText(version_); }, {}});
  }

 private:
  // An attribute is a single element without a key: a missed notification leaves no unknown rows.
  static constexpr bool kCounted = !std::is_empty_v<Key>;

  void handleReactor(const Key& key) {
    if (machine_->hasNotificationActive()) {
      handle(key);
      handlePending();
    } else {
      version_ = collection_.version();
      pending_.insert(key);
    }
  }

  void handle(const Key& key) { handle(key, collection_.find(key)); }

  void handle(const Key& key, const Value* value) {
    machine_->root().traceHandle().trace(8, "{}", key);
    version_ = collection_.version();
    try {
      emit_(key, value);
    } catch (...) {
      pending_.insert(key);  // handled again after the next event
      throw;
    }
  }

  const std::string name_;
  const Collection& collection_;
  Emit emit_;
  const Machine* machine_ = nullptr;
  size_t stream_ = 0;
  InputScan<Key> scan_;
  uint32_t version_ = 0;
  std::set<Key> pending_;  // changed while the machine was inactive, or their handling threw
  Kor::Subscription subscription_;
};

// An input that follows a collection of counted records. emit gets a key and its record, or null when it is
// absent.
template <class Collection, class Emit>
EntityMachine::Input recordsInput(size_t number, const char* name, const Collection& collection, Emit emit) {
  auto emitOrNull = [emit = std::move(emit)](const typename Collection::Key& key,
                                             const typename Collection::Value* record) {
    emit(key, record != nullptr ? *record : nullptr);
  };
  return {number, std::make_unique<CollectionStream<Collection>>(name, collection, std::move(emitOrNull))};
}

}  // namespace TrelSnmp::Agent
