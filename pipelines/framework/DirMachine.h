// The machine at the top of a tree: it follows a keyed collection of entities (a directory, or a collection
// of entities within one) and keeps one child machine for each entity of the expected type.
#pragma once

#include <absl/cleanup/cleanup.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "pipelines/framework/ChildMachine.h"
#include "pipelines/framework/Names.h"
#include "pipelines/framework/ScanTasks.h"

namespace TrelSnmp::Agent {

// Entity is the expected type; Collection maps a key to a Zavro::Ptr of an entity of any type.
template <class Entity, class Collection>
class DirMachine final : public TopMachine {
 public:
  using Key = typename Collection::Key;
  using EntityPtr = Zavro::Ptr<const Entity>;

  struct Stream {
    size_t number;  // of the pipeline's streams
    // The stream's elements are the entities themselves (null: absent). When empty they are inside child
    // machines.
    std::function<void(const Key&, const EntityPtr&)> emitEntity;
  };

  struct Statement {
    std::string machine;       // "ReachabilityDirSm0"
    std::string childMachine;  // "EntityPtrSm1"
    std::string entries;       // attribute name of the entries, "entityPtr"
    std::string children;      // attribute name of the children, "childSm..."
    std::string wrongType;     // the trace for an entity of another type, which counts as absent
    std::string keyTrace;      // the trace for an entry that is handled, with one placeholder
    std::vector<Stream> streams;
    // The inputs of a new child, one for each stream that has no emitEntity, in order.
    std::function<std::vector<std::unique_ptr<ChildStream>>(const Key&, const Entity&)> childStreams;
  };

  // Follows the collection from here on and starts its scans. holder owns the collection.
  DirMachine(Pipeline& root, Zavro::Ptr<const Kor::Object> holder, const Collection& collection,
             Statement statement)
      : root_(root),
        holder_(std::move(holder)),
        collection_(collection),
        statement_(std::move(statement)),
        scans_(statement_.streams.size()),
        tasks_(root_, statement_.machine, numbers(statement_.streams), [this](size_t i) { runScan(i); }),
        type_(statement_.machine) {
    describe();
    version_ = collection_.version();
    subscription_ = collection_.subscribe([this](const Key& key) { handleReactor(key); });
    DirMachine::doInputScan();
  }

  const Zavro::Ptr<Vem::Task>& task(size_t stream) const { return tasks_.task(stream); }
  ScanState inputScanState(size_t stream) const { return scans_[stream].state(); }
  const Key& inputScanBookmark(size_t stream) const { return scans_[stream].bookmark(); }
  bool inputScanComplete(size_t stream) const {
    return completeFor(inputScanState(stream), root_.initialScanDone());
  }
  bool inTask(size_t stream) const { return task(stream) && task(stream)->taskCurrentlyRunning(); }
  bool shouldYield(size_t stream) const { return context(stream).shouldYield(); }
  bool hasNotificationActive() const { return active_; }
  // The child machine for the entity under key, or null.
  Zavro::Ptr<ChildMachine> child(const Key& key) const {
    auto found = children_.find(key);
    return found == children_.end() ? nullptr : found->second;
  }
  size_t children() const { return children_.size(); }

  void doInputScan() override {
    for (size_t i = 0; active_ && i < scans_.size(); ++i) tasks_.start(i);
  }

  void doDeleteAll() override {
    while (!children_.empty()) removeChild(children_.begin()->first, true);
    if (!root_.initialScanDone()) return;
    for (const Stream& stream : statement_.streams) {
      if (!stream.emitEntity) continue;
      for (auto entry = collection_.begin(); entry; entry.next()) stream.emitEntity(entry.key(), nullptr);
    }
  }

  void hasNotificationActiveIs(bool active) override {
    if (active == active_) return;
    active_ = active;
    if (active_) handlePending();
    for (auto& [key, child] : children_) child->hasNotificationActiveIs(active_);
    if (active_) doInputScan();
  }

  void stop(bool deleteRows) override {
    subscription_.reset();
    tasks_.stop();
    while (!children_.empty()) removeChild(children_.begin()->first, deleteRows);
  }

  // "handle<Entry><stream>": brings what the stream has of the entry up to date.
  void handleEntry(size_t stream, const Key& key) {
    root_.traceHandle().traceRuntime(8, statement_.keyTrace, key);
    if (const auto& emitEntity = statement_.streams[stream].emitEntity) {
      emitEntity(key, typedEntity(key));
      return;
    }
    updateChild(key);
  }

  const Kor::Type& korType() const override { return type_; }

 private:
  using Scan = InputScan<Key>;

  static std::vector<size_t> numbers(const std::vector<Stream>& streams) {
    std::vector<size_t> result;
    for (const Stream& stream : streams) result.push_back(stream.number);
    return result;
  }

  ScanContext context(size_t stream) const {
    return {root_, statement_.machine, task(stream), [this] { return collection_.size(); }};
  }

  // "doInputScan<stream>": one run.
  void runScan(size_t stream) {
    if (!active_) return;
    if (inputScanComplete(stream)) return;
    if (!scans_[stream].run(context(stream), collection_, [&](const Key& key) { return step(stream, key); }))
      return;
    tasks_.completed(stream);
  }

  // False when the entry's child is not finished.
  bool step(size_t stream, const Key& key) {
    stepTo(stream, key);
    Zavro::Ptr<ChildMachine> made = child(key);
    return statement_.streams[stream].emitEntity || !made || made->runScan(stream);
  }

  void stepTo(size_t stream, const Key& key) {
    stepping_ = {stream, key};
    absl::Cleanup over = [this] { stepping_.reset(); };
    handleEntry(stream, key);
  }

  // A child wants to be scanned on the stream's task.
  void childScanWanted(size_t stream, const Key& key) {
    if (stepping_ == std::pair(stream, key)) return;  // the step that made the child goes on to scan it
    scans_[stream].revisit(key);
    task(stream)->scheduleTask();
  }

  void handleReactor(const Key& key) {
    version_ = collection_.version();
    if (!active_) {
      pending_.insert(key);
      return;
    }
    for (size_t i = 0; i < statement_.streams.size(); ++i) handleEntry(i, key);
  }

  void handlePending() {
    for (const Key& key : std::exchange(pending_, {})) handleReactor(key);
  }

  // The entity under the key; null when there is none, or one of another type.
  EntityPtr typedEntity(const Key& key) const {
    const auto* found = collection_.find(key);
    return found != nullptr ? boost::dynamic_pointer_cast<const Entity>(*found) : nullptr;
  }

  void updateChild(const Key& key) {
    EntityPtr entity = typedEntity(key);
    if (!entity && collection_.find(key) != nullptr) root_.traceHandle().trace(1, "{}", statement_.wrongType);
    Zavro::Ptr<ChildMachine> current = child(key);
    if (current && current->entity() == entity) return;
    if (current) removeChild(key, true);
    if (entity) addChild(key, entity);
  }

  void addChild(const Key& key, const EntityPtr& entity) {
    std::vector<ChildMachine::Part> parts;
    auto inputs = statement_.childStreams(key, *entity);
    auto input = inputs.begin();
    for (size_t i = 0; i < statement_.streams.size(); ++i) {
      if (statement_.streams[i].emitEntity) continue;
      parts.push_back({i, statement_.streams[i].number, std::move(*input++), [this, i] { return task(i); },
                       [this, i, key] { childScanWanted(i, key); }});
    }
    auto added = Zavro::makePtr<ChildMachine>(root_, statement_.childMachine, Kor::toText(key), entity,
                                              std::move(parts));
    children_.emplace(key, added);
    added->subscribe();
    added->doInputScan();
  }

  void removeChild(const Key& key, bool deleteRows) {
    auto found = children_.find(key);
    Zavro::Ptr<ChildMachine> removed = std::move(found->second);
    children_.erase(found);
    removed->stop(deleteRows);
  }

  void describe();

  Pipeline& root_;
  const Zavro::Ptr<const Kor::Object> holder_;
  const Collection& collection_;
  const Statement statement_;
  std::vector<Scan> scans_;
  ScanTasks tasks_;
  // Ordered, so that deletions come in the same order in every run of the process.
  std::map<Key, Zavro::Ptr<ChildMachine>> children_;
  std::optional<std::pair<size_t, Key>> stepping_;
  std::set<Key> pending_;
  uint32_t version_ = 0;  // the collection's change counter when it was last heard of
  bool active_ = true;
  Kor::Type type_;
  Kor::Subscription subscription_;
};

template <class Entity, class Collection>
void DirMachine<Entity, Collection>::describe() {
  Kor::TypeBuilder<DirMachine> type(statement_.machine);
  type.attribute(statement_.children, &DirMachine::children)
      .attribute("hasNotificationActive", &DirMachine::hasNotificationActive)
      .attribute("version" + capitalised(statement_.entries), [](const DirMachine& m) { return m.version_; })
      .operation("doInputScan", &DirMachine::doInputScan)
      .operation("doDeleteAll", &DirMachine::doDeleteAll);
  for (size_t i = 0; i < scans_.size(); ++i) {
    std::string n = std::to_string(statement_.streams[i].number);
    type.attribute("inputScanBookmark" + n, [i](const DirMachine& m) { return m.inputScanBookmark(i); })
        .attribute("inputScanState" + n,
                   [i](const DirMachine& m) { return static_cast<int>(m.inputScanState(i)); })
        .attribute("task" + n, [i](const DirMachine& m) { return m.task(i) ? m.task(i)->name() : "None"; })
        .attribute("inTask" + n, [i](const DirMachine& m) { return m.inTask(i); })
        .attribute("shouldYield" + n, [i](const DirMachine& m) { return m.shouldYield(i); })
        .attribute("inputScanComplete" + n, [i](const DirMachine& m) { return m.inputScanComplete(i); })
        .operation("doInputScan" + n, [i](DirMachine& m) { m.runScan(i); });
  }
  type_ = type.build();
}

}  // namespace TrelSnmp::Agent
