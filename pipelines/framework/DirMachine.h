// The machine at the top of a tree: it follows a keyed collection of entities (a directory, or a collection
// in an entity) and keeps one child machine for each entity of the expected type.
#pragma once

#include <absl/cleanup/cleanup.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pipelines/framework/EntityMachine.h"
#include "pipelines/framework/Names.h"
#include "platform/kor/Dir.h"

namespace TrelSnmp::Agent {

// Entity is the expected type; Collection maps a key to a Zavro::Ptr of an entity of any type.
template <class Entity, class Collection>
class DirMachine final : public Machine {
 public:
  using Key = typename Collection::Key;
  using EntityPtr = Zavro::Ptr<const Entity>;

  struct Stream {
    size_t number;  // of the pipeline's streams
    // Called for each element when the entities themselves are the stream's elements (null: absent). Empty
    // when the elements are inside the entities: child machines emit them.
    std::function<void(const Key&, const EntityPtr&)> emitEntity;
  };

  struct Statement {
    std::string machine;       // "ReachabilityDirSm0"
    std::string childMachine;  // "EntityPtrSm1"
    std::string entries;       // attribute name of the entries, "entityPtr"
    std::string children;      // attribute name of the children, "childSm..."
    std::string wrongType;     // trace for an entity of another type, which counts as absent
    std::string keyTrace;      // trace for an entry that is handled: a format that takes the key
    std::vector<Stream> streams;
    // The inputs of a new child, one for each stream that has no emitEntity, in order.
    std::function<EntityMachine::Inputs(const Key&, const Entity&)> childInputs;
  };

  // Subscribes to the collection. holder: the object that the collection belongs to.
  DirMachine(Pipeline& root, Zavro::Ptr<const Kor::Object> holder, const Collection& collection,
             Statement statement)
      : Machine(root, statement.machine),
        holder_(std::move(holder)),
        collection_(collection),
        statement_(std::move(statement)),
        scans_(statement_.streams.size()) {
    describeEntries();
    makeTasks();
    version_ = collection_.version();
    subscription_ = collection_.subscribe([this](const Key& key) { handleReactor(key); });
  }

  size_t streams() const override { return scans_.size(); }
  size_t number(size_t stream) const override { return statement_.streams[stream].number; }
  ScanState inputScanState(size_t stream) const override { return scans_[stream].state(); }
  std::string bookmarkText(size_t stream) const override { return Kor::toText(scans_[stream].bookmark()); }
  // The machine for the entity under key, or null.
  Zavro::Ptr<EntityMachine> child(const Key& key) const {
    auto found = children_.find(key);
    return found == children_.end() ? nullptr : found->second;
  }
  size_t children() const { return children_.size(); }

  void doInputScan() override {
    for (size_t i = 0; hasNotificationActive() && i < streams(); ++i) startScan(i);
  }

  bool runScan(size_t stream) override {
    if (!hasNotificationActive() || inputScanComplete(stream)) return false;
    if (!scans_[stream].run(*this, stream, collection_,
                            [&](const auto& entry) { return step(stream, entry.key()); })) {
      return false;
    }
    scanCompleted(stream);
    return true;
  }

  void resetScans() override {
    for (auto& scan : scans_) scan.again();
    for (auto& [key, child] : children_) child->resetScans();
  }

  void doDeleteAll() override {
    removeChildren(true);
    if (!root().initialScanDone()) return;
    for (const Stream& stream : statement_.streams) {
      if (!stream.emitEntity) continue;
      for (auto entry = collection_.begin(); entry; entry.next()) stream.emitEntity(entry.key(), nullptr);
    }
  }

  // "handle<Entry><stream>": emits the entry, or creates, replaces or removes its child machine.
  void handleEntry(size_t stream, const Key& key) {
    root().traceHandle().traceRuntime(8, statement_.keyTrace, key);
    if (const auto& emitEntity = statement_.streams[stream].emitEntity) {
      emitEntity(key, typedEntity(key));
      return;
    }
    updateChild(key);
  }

 private:
  void activeChanged() override {
    if (hasNotificationActive()) handlePending();
    for (auto& [key, child] : children_) child->hasNotificationActiveIs(hasNotificationActive());
    doInputScan();
  }

  void ends(bool deleteRows) override {
    subscription_.reset();
    removeChildren(deleteRows);
  }

  // False when the scan of the entry's child is incomplete.
  bool step(size_t stream, const Key& key) {
    stepTo(stream, key);
    Zavro::Ptr<EntityMachine> made = child(key);
    return statement_.streams[stream].emitEntity || !made || made->runScan(made->streamPlace(number(stream)));
  }

  void stepTo(size_t stream, const Key& key) {
    stepping_ = {stream, key};
    absl::Cleanup over = [this] { stepping_.reset(); };
    handleEntry(stream, key);
  }

  // A child is to be scanned on the stream's task.
  void childScanWanted(size_t stream, const Key& key) {
    if (stepping_ == std::pair(stream, key)) return;  // the step that created the child scans it next
    scans_[stream].revisit(key);
    startScan(stream);
  }

  void handleReactor(const Key& key) {
    version_ = collection_.version();
    if (!hasNotificationActive()) {
      pending_.insert(key);
      return;
    }
    pending_.erase(key);
    handleChanged(key);
    handlePending();
  }

  void handlePending() {
    while (!pending_.empty()) {
      Key key = *pending_.begin();
      handleChanged(key);
      pending_.erase(key);
    }
  }

  void handleChanged(const Key& key) {
    version_ = collection_.version();
    try {
      for (size_t i = 0; i < streams(); ++i) handleEntry(i, key);
    } catch (...) {
      pending_.insert(key);  // handled again after the next event
      throw;
    }
  }

  // The entity under the key; null when there is none, or one of another type.
  EntityPtr typedEntity(const Key& key) const {
    const auto* found = collection_.find(key);
    return found != nullptr ? boost::dynamic_pointer_cast<const Entity>(*found) : nullptr;
  }

  void updateChild(const Key& key) {
    EntityPtr entity = typedEntity(key);
    if (!entity && collection_.find(key) != nullptr)
      root().traceHandle().trace(1, "{}", statement_.wrongType);
    auto current = children_.find(key);
    if (current != children_.end()) {
      if (current->second->entity() == entity) {
        // An exception may have ended the child's scan early; without tasks nothing else continues it.
        if (root().synchronous() && !stepping_) current->second->doInputScan();
        return;
      }
      removeChild(current, true);
    }
    if (entity) addChild(key, entity);
  }

  void addChild(const Key& key, const EntityPtr& entity) {
    EntityMachine::Parent parent{*this, Kor::toText(key),
                                 [this, key](size_t n) { childScanWanted(streamPlace(n), key); }};
    auto added = Zavro::makePtr<EntityMachine>(root(), statement_.childMachine, entity,
                                               statement_.childInputs(key, *entity), std::move(parent));
    children_.emplace(key, added);
    added->doInputScan();
  }

  // Ordered, so that deletions come in the same order in every run of the program.
  using Children = std::map<Key, Zavro::Ptr<EntityMachine>>;

  void removeChild(typename Children::iterator at, bool deleteRows) {
    Zavro::Ptr<EntityMachine> removed = at->second;
    removed->stop(deleteRows);  // if this throws, the child stays
    children_.erase(at);
  }
  void removeChildren(bool deleteRows) {
    while (!children_.empty()) removeChild(children_.begin(), deleteRows);
  }

  void describeEntries() {
    Kor::Type& type = describe();
    type.attributeIs(
        {statement_.children, [this](const Kor::Object&) { return Kor::toText(children()); }, {}});
    type.attributeIs({"version" + capitalised(statement_.entries),
                      [this](const Kor::Object&) { return Kor::toText(version_); },
                      {}});
    for (size_t i = 0; i < streams(); ++i) {
      std::string handler = "handle" + capitalised(statement_.entries) + std::to_string(number(i));
      type.operationIs({handler, [this, i](Kor::Object&) {
                          for (auto entry = collection_.begin(); entry; entry.next())
                            handleEntry(i, entry.key());
                        }});
      type.operationIs({handler + "Reactor", [this](Kor::Object&) {
                          for (auto entry = collection_.begin(); entry; entry.next())
                            handleReactor(entry.key());
                        }});
      if (statement_.streams[i].emitEntity) continue;
      type.operationIs({"onChildEvent" + std::to_string(number(i)), [this, i](Kor::Object&) {
                          for (auto& [key, child] : children_) child->sendAll(child->streamPlace(number(i)));
                        }});
    }
  }

  const Zavro::Ptr<const Kor::Object> holder_;
  const Collection& collection_;
  const Statement statement_;
  std::vector<InputScan<Key>> scans_;
  Children children_;
  std::optional<std::pair<size_t, Key>> stepping_;
  std::set<Key> pending_;  // changed while the machine was inactive, or their handling threw
  uint32_t version_ = 0;   // the collection's change counter at the last notification
  Kor::Subscription subscription_;
};

// A machine for a directory of members' entities.
template <class Entity>
using DirectoryMachine = DirMachine<Entity, Kor::Dir::Entities>;

// The names and traces of such a machine. directory: the pipeline's name for it.
template <class Entity>
typename DirectoryMachine<Entity>::Statement directoryStatement(const std::string& directory) {
  const std::string& type = Entity::type().name();
  typename DirectoryMachine<Entity>::Statement statement;
  statement.machine = capitalised(directory) + "Sm0";
  statement.childMachine = "EntityPtrSm1";
  statement.entries = "entityPtr";
  statement.children = "childSmEntityPtr" + withoutColons(type) + "PtrConst";
  statement.wrongType =
      fmt::format("dynamic cast to type ::{}::RawPtrConst from Kor::Entity::PtrConst failed.", type);
  statement.keyTrace = "{}";
  return statement;
}

}  // namespace TrelSnmp::Agent
