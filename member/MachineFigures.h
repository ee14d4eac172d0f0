// What this machine has to say of itself: system, processors, memory and file systems, looked at in
// intervals.
//
// What could not be read at a look stays as it was last known. On the event loop's thread; what is read is
// read off it.
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
  // The second look comes sooner than later ones, as it takes two to know a load.
  static constexpr uint64_t kSecondLookMs = 1000;

  struct Settings {
    uint8_t member = 1;
    uint32_t intervalSeconds = kDefaultIntervalSeconds;
    std::string indexFile;  // where indexes of mount points are kept; empty: nowhere
  };

  // `told` is called on the loop when there is news; answers that come together are told together. Io and
  // clock outlive this; the machine may be in use for longer, by a question that hangs.
  MachineFigures(const Settings& settings, std::shared_ptr<LocalMachine> machine, Runtime::Io& io,
                 const Zavro::Clock& clock, std::function<void()> told);

  void start();
  // Between two looks from now on; the next one comes after such a time. Requires: it was started.
  void intervalIs(uint32_t seconds);
  // Whether it was known once how every collector does.
  bool heard() const { return heard_; }
  // Whether the last look is over: no answer is missing, but for those that hang.
  bool lookedAtAll() const;
  // All that is known, with the time of day at this call. A figure of the system that was never known is 0,
  // as the others are not to wait for it.
  std::vector<Kelstore::Snapshot::Entry> entries() const;
  std::vector<const Collector*> collectors() const;
  LocalStorage& storage() { return storage_; }

 private:
  template <class Answer>
  void addCollector(std::string name, absl::StatusOr<Answer> (LocalMachine::*question)(),
                    void (MachineFigures::*take)(Answer));
  void uptimeIs(double seconds) { uptimeSeconds_ = seconds; }
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

  // What is known; absent until it was known once.
  std::optional<double> uptimeSeconds_;
  std::optional<uint32_t> users_;
  std::optional<uint32_t> processes_;
  std::optional<MemoryInUse> memory_;
  std::optional<std::vector<ProcessorTime>> processors_;
  std::map<uint32_t, int16_t> loads_;  // of the processors, by number
  LocalStorage storage_;
};

}  // namespace Member
