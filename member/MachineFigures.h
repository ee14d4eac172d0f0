// The figures of this machine, read in intervals: system, processors, memory and file systems.
//
// A figure that cannot be read stays as it was, but for the uptime, which goes on. On the event loop's
// thread; figures are read off it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "member/Collector.h"
#include "member/LocalMachine.h"
#include "member/LocalStorage.h"

namespace Member {

class MachineFigures final {
 public:
  static constexpr uint32_t kDefaultIntervalSeconds = 5;
  static constexpr uint32_t kMinIntervalSeconds = 1;
  static constexpr uint32_t kMaxIntervalSeconds = 3600;
  // The second look comes soon, since a load takes two.
  static constexpr uint64_t kSecondLookMs = 1000;

  struct Settings {
    uint8_t member = 1;
    uint32_t intervalSeconds = kDefaultIntervalSeconds;  // between two looks
    std::string indexFile;                               // keeps the indexes of mount points; empty: none
  };

  // told: called on the loop after answers, once for those that come together, and when a question begins to
  // hang. Io and clock outlive this. A question that hangs may use the machine for longer.
  MachineFigures(const Settings& settings, std::shared_ptr<LocalMachine> machine, Runtime::Io& io,
                 const Zavro::Clock& clock, std::function<void()> told);

  void start();
  // Sets the time between two looks; the next one comes after it, if it changed. Requires: it was started.
  void intervalIs(uint32_t seconds);
  // Whether every collector has answered, failed or hung once.
  bool heard() const { return heard_; }
  // Whether the last look is over, but for questions that hang.
  bool lookedAtAll() const;
  // All that is known, with the time of day and the uptime at this call. A figure of the system that was
  // never read is 0, so that the others need not wait for it.
  std::vector<Kelstore::Snapshot::Entry> entries() const;
  std::vector<const Collector*> collectors() const;
  LocalStorage& storage() { return storage_; }

 private:
  template <class Answer>
  void addCollector(std::string name, absl::StatusOr<Answer> (LocalMachine::*question)(),
                    void (MachineFigures::*take)(Answer));
  void uptimeIs(double seconds);
  void usersIs(uint32_t users) { users_ = users; }
  void processesIs(uint32_t processes) { processes_ = processes; }
  void memoryIs(MemoryInUse memory) { memory_ = memory; }
  void processorsIs(std::vector<ProcessorTime> processors);
  void look(uint64_t nextMs);
  void lookAfter(uint64_t milliseconds);
  void tellSoon();
  void tell();

  const std::string member_;
  uint64_t intervalMs_;
  std::shared_ptr<LocalMachine> machine_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  std::function<void()> told_;
  std::vector<std::unique_ptr<Collector>> collectors_;
  std::unique_ptr<Runtime::Io::Activity> nextLook_;
  std::unique_ptr<Runtime::Io::Activity> news_;
  bool heard_ = false;

  // Figures; nothing until the first answer.
  std::optional<double> uptimeSeconds_;
  uint64_t uptimeAtNs_ = 0;  // when it was that
  std::optional<uint32_t> users_;
  std::optional<uint32_t> processes_;
  std::optional<MemoryInUse> memory_;
  std::optional<std::vector<ProcessorTime>> processors_;
  std::map<uint32_t, int16_t> loads_;  // of the processors, by number
  LocalStorage storage_;
};

}  // namespace Member
