// What the tests of this machine's file systems share: a process that can end and start again, and a machine
// on which file systems are mounted and unmounted, with time and work driven by hand.
#pragma once

#include <gtest/gtest.h>

#include "member/LocalSource.h"
#include "tests/kelstore/World.h"
#include "tests/member/ManualMachine.h"
#include "tests/support/TempDir.h"
#include "tests/support/TraceLog.h"

namespace Member {

// A process: its layers and sources, of which the first two are what others say and the last is local, as
// member 7.
class Life {
 public:
  Life(std::shared_ptr<ManualMachine> machine, Zavro::ManualClock& clock, const std::string& indexFile,
       const std::string& others = "{}", bool indexesHang = false, const std::string& earlier = "{}")
      : io(clock), world(0) {
    auto first = world.layers.addLayer();
    others_ = world.layers.addLayer();
    world.submit(earlier, first);
    world.layers.settledIs(first);
    source.emplace(LocalSource::Settings{7, 5, indexFile}, std::move(machine), world.layers, io, clock);
    says(others);
    source->start();
    if (indexesHang) io.hangFirst();  // it is what is asked for first
    pass(0);
  }
  // What other sources say, and what is notified at once.
  std::string says(const std::string& others) { return world.says(others, others_); }
  std::string pass(uint64_t milliseconds) {
    io.advance(milliseconds);
    return world.drained();
  }

  // "/=100/40 /var=10/1", size and free.
  std::string figures() const {
    std::string text;
    auto host = world.host("7");
    if (!host) return "no member";
    for (auto at = host->storageInfoTable().begin(); at; at.next()) {
      const auto& record = *at.value();
      text += fmt::format("{}{}={}/{}", text.empty() ? "" : " ", at.key(), record->size(), record->free());
    }
    return text;
  }
  // "/=1001 /var=1002"
  std::string rows() const {
    std::string text;
    for (auto at = world.mappings().mountEntries().begin(); at; at.next()) {
      text += fmt::format("{}{}={}", text.empty() ? "" : " ", at.key(), at.value()->index);
    }
    return text;
  }
  // "1=1 2=2", of the kinds of memory.
  std::string memoryRows() const {
    std::map<int32_t, uint32_t> rows;
    for (auto at = world.mappings().memEntries().begin(); at; at.next()) rows[at.key()] = at.value()->index;
    std::string text;
    for (const auto& [memory, index] : rows) {
      text += fmt::format("{}{}={}", text.empty() ? "" : " ", memory, index);
    }
    return text;
  }
  std::vector<std::string> troubles() const {
    std::vector<std::string> all;
    for (const auto& one : source->status().collectors) {
      if (one.state == Collector::State::works) continue;
      all.push_back(fmt::format("{} {}: {}", one.name, stateName(one.state), one.error));
    }
    return all;
  }

  Runtime::ManualIo io;
  Kelstore::World world;
  std::optional<LocalSource> source;

 private:
  Kelstore::LayeredState::Layer others_;
};

class LocalStorageTest : public testing::Test {
 protected:
  // Something is mounted there, anew if something was.
  void mount(const std::string& point, Room room, MountKind kind = MountKind::fixedDisk) {
    unmount(point);
    table().push_back({point, kind, ++lastId_});
    machine_->rooms[point] = room;
  }
  void unmount(const std::string& point) {
    std::erase_if(table(), [&](const Mount& mount) { return mount.point == point; });
  }
  std::vector<Mount>& table() { return *machine_->mounted; }
  // The process ends and starts again.
  Life& restart(const std::string& others = "{}") {
    life_.reset();
    return life_.emplace(machine_, clock_, indexFile_, others);
  }
  // What is notified until the next look is over.
  std::string look() { return life_->pass(5 * Runtime::kSecond); }

  Support::TempDir dir_;
  std::string indexFile_ = dir_.file("indexes.json");
  Zavro::ManualClock clock_{1'000'000'000'000};
  std::shared_ptr<ManualMachine> machine_ = std::make_shared<ManualMachine>();
  uint64_t lastId_ = 20;
  std::optional<Life> life_;
  TraceLog trace_{{"Member"}};
};

}  // namespace Member
