// Layers and a mirror under a driven scheduler, with everything that the mirror's entities notify written
// down.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kelstore/Document.h"
#include "kelstore/LayeredState.h"
#include "kelstore/Mirror.h"
#include "tests/support/DrivenScheduler.h"

namespace Kelstore {

class World {
 public:
  explicit World(size_t count = 1) : layers(scheduler.get(), mirror) {
    for (size_t i = 0; i < count; ++i) layers.addLayer();
    clearMappings();
    followAll();
  }
  ~World() { clearMappings(); }

  // Sets the layer to the document and applies it. Returns the notifications.
  std::string says(const std::string& document, LayeredState::Layer layer = 0) {
    submit(document, layer);
    layers.settledIs(layer);
    return drained();
  }
  void submit(const std::string& document, LayeredState::Layer layer = 0) {
    Document parsed = parseDocument(document);
    auto before = layers.snapshot(layer);
    auto after = std::make_shared<const Snapshot>(withLastGood(std::move(parsed), *before));
    auto changed = differences(*before, *after);
    layers.snapshotIs(layer, after, std::move(changed));
  }
  std::string drained() {
    scheduler.drain();
    return takeLog();
  }
  std::string takeLog() {
    std::string text;
    for (const std::string& line : log_) text += (text.empty() ? "" : " ") + line;
    log_.clear();
    return text;
  }

  Zavro::Ptr<HostResources::HostResources> host(const std::string& member) const {
    return boost::static_pointer_cast<HostResources::HostResources>(
        mirror.hostResourcesDir()->entityPtr(member));
  }
  Zavro::Ptr<Trel::ReachabilityStatus> reachability(const std::string& member) const {
    return boost::static_pointer_cast<Trel::ReachabilityStatus>(mirror.reachabilityDir()->entityPtr(member));
  }
  static HostResourcesMib::StorageEntryMappings& mappings() {
    return static_cast<HostResourcesMib::StorageEntryMappings&>(
        *Kor::Entity::singletonIs(HostResourcesMib::StorageEntryMappings::kTypeName));
  }

  DrivenScheduler scheduler;
  Mirror mirror;
  LayeredState layers;

 private:
  static void clearMappings() {
    auto mounts = mappings().mountEntries().begin();
    for (; mounts; mounts.next()) mappings().mountEntries().del(mounts.key());
    auto memory = mappings().memEntries().begin();
    for (; memory; memory.next()) mappings().memEntries().del(memory.key());
  }

  template <class Collection>
  void follow(std::string name, const Collection& collection) {
    subscriptions_.push_back(collection.subscribe([this, name, &collection](const auto& key) {
      log_.push_back((collection.find(key) != nullptr ? name : "-" + name) + "[" + Kor::toText(key) + "]");
    }));
  }

  // A member's collections are followed while its entity is in the directory.
  void followAll() {
    follow("ifIndex", mirror.ifMib()->ifIndexByIntfId());
    follow("mount", mappings().mountEntries());
    follow("mem", mappings().memEntries());
    subscriptions_.push_back(
        mirror.subscribeSysname([this] { log_.push_back("sysname=" + mirror.sysname()); }));
    follow("topo", mirror.topologyConfig()->topoConfig());
    const auto& topology = mirror.topologyConfig()->topoConfig();
    subscriptions_.push_back(topology.subscribe([this, &topology](Trel::MemberId member) {
      if (const auto* config = topology.find(member)) follow(member.text() + ".link", (*config)->neighbor());
    }));
    follow("host", mirror.hostResourcesDir()->entities());
    subscriptions_.push_back(
        mirror.hostResourcesDir()->entities().subscribe([this](const std::string& member) {
          auto entity = host(member);
          if (!entity) return;
          follow(member + ".cpu", entity->processorTable());
          follow(member + ".storage", entity->storageInfoTable());
          subscriptions_.push_back(entity->memInfoElement().subscribe(
              [this, member](const auto&) { log_.push_back(member + ".memory"); }));
          keep_.push_back(entity);
        }));
    follow("status", mirror.reachabilityDir()->entities());
    subscriptions_.push_back(
        mirror.reachabilityDir()->entities().subscribe([this](const std::string& member) {
          auto entity = reachability(member);
          if (!entity) return;
          follow(member + ".reach", entity->reachabilityStatus());
          keep_.push_back(entity);
        }));
  }

  std::vector<std::string> log_;
  std::vector<Zavro::Ptr<Kor::Entity>> keep_;  // so that what happens to one after it left would show
  std::vector<Kor::Subscription> subscriptions_;
};

}  // namespace Kelstore
