// The machine at the top of a tree: it follows a keyed collection of entities (a directory, or a collection
// of entities within one) and keeps one child machine for each entity of the expected type.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "framework/ChildMachine.h"

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
    std::string entry;         // attribute name of an entry, "entityPtr"
    std::string children;      // attribute name of the children, "childSm..."
    std::string wrongType;     // the trace for an entity of another type
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
        tasks_(statement_.streams.size()),
        type_(statement_.machine) {
    for (size_t i = 0; i < tasks_.size(); ++i) {
      tasks_[i] = root_.newTask(
          fmt::format("TrelSnmp::Agent::{}-{}InputScanTask{}", root_.name(), statement_.machine, i),
          [this, i] { runScan(i); });
    }
    describe();
    subscription_ = collection_.subscribe([this](const Key& key) { handleReactor(key); });
    DirMachine::doInputScan();
  }

  const Zavro::Ptr<Vem::Task>& task(size_t stream) const { return tasks_[stream]; }
  ScanState inputScanState(size_t stream) const { return scans_[stream].state(); }
  const Key& inputScanBookmark(size_t stream) const { return scans_[stream].bookmark(); }
  bool inputScanComplete(size_t stream) const { return scans_[stream].completeFor(root_.initialScanDone()); }
  bool inTask(size_t stream) const { return tasks_[stream] && tasks_[stream]->taskCurrentlyRunning(); }
  bool shouldYield(size_t stream) const { return context(stream).shouldYield(); }
  bool hasNotificationActive() const { return active_; }
  // The child machine for the entity under key, or null.
  Zavro::Ptr<ChildMachine> child(const Key& key) const {
    auto found = children_.find(key);
    return found == children_.end() ? nullptr : found->second;
  }
  size_t children() const { return children_.size(); }

  void doInputScan() override {
    for (size_t i = 0; i < scans_.size(); ++i) doInputScan(i);
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
    std::vector<Zavro::Ptr<ChildMachine>> children;
    for (auto& [key, child] : children_) children.push_back(child);
    for (auto& child : children) child->hasNotificationActiveIs(active_);
    if (active_) doInputScan();
  }

  void stop(bool deleteRows) override {
    subscription_.reset();
    for (auto& task : tasks_) dropTask(task);
    while (!children_.empty()) removeChild(children_.begin()->first, deleteRows);
  }

  // "handle<Entry><stream>": brings what the stream has of the entry up to date.
  void handleEntry(size_t stream, const Key& key) {
    root_.traceHandle().traceRuntime(8, statement_.keyTrace, key);
    if (const auto& emitEntity = statement_.streams[stream].emitEntity) {
      emitEntity(key, typedEntity(key));
      return;
    }
    // What a child's deletion makes subscribers do may change the same entry again: the change waits its
    // turn.
    auto [under, first] = handling_.try_emplace(key, false);
    if (!first) {
      under->second = true;
      return;
    }
    do {
      handling_[key] = false;
      updateChild(key);
    } while (handling_[key]);
    handling_.erase(key);
  }

  const Kor::Type& korType() const override { return type_; }

 private:
  using Scan = InputScan<Key>;

  ScanContext context(size_t stream) const {
    return {root_, statement_.machine, tasks_[stream], [this] { return collection_.size(); }};
  }

  void doInputScan(size_t stream) {
    if (!active_) return;
    if (tasks_[stream]) {
      tasks_[stream]->scheduleTask();
    } else {
      runScan(stream);
    }
  }

  // "doInputScan<stream>": one run.
  void runScan(size_t stream) {
    if (!active_) return;
    if (inputScanComplete(stream)) return;
    if (!scans_[stream].run(context(stream), collection_, [&](const Key& key) { return step(stream, key); }))
      return;
    if (root_.initialScanDone()) dropTask(tasks_[stream]);
    root_.streamScanCompleted(statement_.streams[stream].number);
  }

  typename Scan::Step step(size_t stream, const Key& key) {
    stepping_ = {stream, key};
    handleEntry(stream, key);
    stepping_.reset();
    Zavro::Ptr<ChildMachine> held = child(key);
    if (statement_.streams[stream].emitEntity || !held) return Scan::Step::done;
    return held->runScan(stream) || !held->live() ? Scan::Step::done : Scan::Step::unfinished;
  }

  // A child wants to be scanned on the stream's task.
  void childScanWanted(size_t stream, const Key& key) {
    if (stepping_ == std::pair(stream, key)) return;  // the step that made the child goes on to scan it
    scans_[stream].revisit(key);
    tasks_[stream]->scheduleTask();
  }

  void handleReactor(const Key& key) {
    if (!active_) {
      pending_.insert(key);
      return;
    }
    Zavro::Ptr<Pipeline> held = root_.hold();
    for (size_t i = 0; i < statement_.streams.size(); ++i) handleEntry(i, key);
  }

  void handlePending() {
    for (const Key& key : std::exchange(pending_, {})) handleReactor(key);
  }

  EntityPtr typedEntity(const Key& key) const {
    const auto* found = collection_.find(key);
    if (found == nullptr) return nullptr;
    EntityPtr entity = boost::dynamic_pointer_cast<const Entity>(*found);
    if (!entity) root_.traceHandle().trace(1, "{}", statement_.wrongType);
    return entity;
  }

  void updateChild(const Key& key) {
    EntityPtr entity = typedEntity(key);
    Zavro::Ptr<ChildMachine> current = child(key);
    if (current && current->entity() != entity) removeChild(key, true);
    if (!entity || child(key) || handling_[key]) return;
    addChild(key, entity);
  }

  void addChild(const Key& key, const EntityPtr& entity) {
    std::vector<ChildMachine::Part> parts;
    auto inputs = statement_.childStreams(key, *entity);
    auto input = inputs.begin();
    for (size_t i = 0; i < statement_.streams.size(); ++i) {
      if (statement_.streams[i].emitEntity) continue;
      parts.push_back({i, std::move(*input++), [this, i] { return tasks_[i]; },
                       [this, i, key] { childScanWanted(i, key); }});
    }
    auto added = Zavro::makePtr<ChildMachine>(root_, statement_.childMachine, Kor::toText(key), entity,
                                              std::move(parts));
    children_.emplace(key, added);
    added->start();
  }

  void removeChild(const Key& key, bool deleteRows) {
    auto found = children_.find(key);
    Zavro::Ptr<ChildMachine> removed = std::move(found->second);
    children_.erase(found);
    removed->stop(deleteRows);
  }

  static void dropTask(Zavro::Ptr<Vem::Task>& task) {
    if (task) task->cancel();
    task.reset();
  }

  void describe();

  Pipeline& root_;
  const Zavro::Ptr<const Kor::Object> holder_;
  const Collection& collection_;
  const Statement statement_;
  std::vector<Scan> scans_;
  std::vector<Zavro::Ptr<Vem::Task>> tasks_;
  // Ordered, so that deletions come in the same order in every run of the process.
  std::map<Key, Zavro::Ptr<ChildMachine>> children_;
  std::map<Key, bool> handling_;  // entries being handled, and whether they changed meanwhile
  std::optional<std::pair<size_t, Key>> stepping_;
  std::set<Key> pending_;
  bool active_ = true;
  Kor::Type type_;
  Kor::Subscription subscription_;
};

template <class Entity, class Collection>
void DirMachine<Entity, Collection>::describe() {
  Kor::TypeBuilder<DirMachine> type(statement_.machine);
  type.attribute(statement_.children, &DirMachine::children)
      .attribute("hasNotificationActive", &DirMachine::hasNotificationActive)
      .operation("doInputScan", [](DirMachine& m) { m.doInputScan(); })
      .operation("doDeleteAll", &DirMachine::doDeleteAll);
  for (size_t i = 0; i < scans_.size(); ++i) {
    std::string n = std::to_string(i);
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
