// The source `local`: this machine, as one member of the cluster, looked at in intervals.
//
// It alone speaks for the host resources of its member: what sources before it say of them does not count, so
// that a processor that goes offline is gone, whatever an example says of it. The storage mappings that it
// makes up, on the other hand, count only where no other source has one. What could not be read at a look
// stays as it was last known. On the event loop's thread; what is read is read off it.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "Collector.h"
#include "LocalStorage.h"
#include "Machine.h"
#include "Source.h"
#include "Store.h"

namespace Member {

class LocalSource final : public Kelstore::Source {
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

  // Store, io and clock outlive the source; the machine may be in use for longer, by a question that hangs.
  LocalSource(const Settings& settings, std::shared_ptr<Machine> machine, Kelstore::Store& store,
              Kelstore::Io& io, const Zavro::Clock& clock);

  void start() override;
  // Current while every collector works, partial while one does not.
  Kelstore::SourceStatus status() const override;

 private:
  template <class Answer>
  void collectorIs(std::string name, Result<Answer> (Machine::*question)(),
                   void (LocalSource::*take)(Answer));
  void uptimeIs(double seconds) { uptimeSeconds_ = seconds; }
  void usersIs(uint32_t users) { users_ = users; }
  void processesIs(uint32_t processes) { processes_ = processes; }
  void memoryIs(MemoryInUse memory) { memory_ = memory; }
  void processorsIs(std::vector<ProcessorTime> processors);

  void look(uint64_t nextMs);
  void publishSoon();
  void publish();
  void publish(Kelstore::Store::Layer layer, Kelstore::Snapshot snapshot);
  Kelstore::Snapshot figures() const;
  Kelstore::Snapshot mappings();
  std::vector<const Collector*> collectors() const;

  const std::string member_;
  const uint64_t intervalMs_;
  std::shared_ptr<Machine> machine_;
  Kelstore::Store& store_;
  Kelstore::Io& io_;
  const Zavro::Clock& clock_;
  const Kelstore::Store::Layer layer_;
  // The mappings are below what other sources say, so that a mapping of theirs is respected.
  const Kelstore::Store::Layer mappingsLayer_;
  std::vector<std::unique_ptr<Collector>> collectors_;
  std::unique_ptr<Kelstore::Io::Activity> nextLook_;
  std::unique_ptr<Kelstore::Io::Activity> publication_;
  bool settled_ = false;
  uint64_t lastChangeUtcNs_ = 0;

  // What is known; absent until it was known once.
  std::optional<double> uptimeSeconds_;
  std::optional<uint32_t> users_;
  std::optional<uint32_t> processes_;
  std::optional<MemoryInUse> memory_;
  std::optional<std::vector<ProcessorTime>> processors_;
  std::map<uint32_t, int16_t> loads_;  // of the processors, by number
  std::set<int32_t> leftOut_;          // kinds of memory whose index is another source's, of which was told
  LocalStorage storage_;
};

}  // namespace Member
