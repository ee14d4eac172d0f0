#include "member/SuggestedMappings.h"

#include <fmt/format.h>

#include <deque>
#include <utility>

#include "member/Figures.h"
#include "member/LocalStorage.h"

namespace Member {
namespace {

using Kelstore::Kind;

class NoWaker final : public Runtime::Io::Waker {
 public:
  void wake() override {}
};

// There is no loop: workAll() does the work, and no timer fires.
class NoLoop final : public Runtime::Io {
 public:
  std::unique_ptr<Activity> watch(const std::string& /*path*/, std::function<void()> /*changed*/) override {
    return std::make_unique<Activity>();
  }
  std::unique_ptr<Activity> after(uint64_t /*milliseconds*/, std::function<void()> /*elapsed*/) override {
    return std::make_unique<Activity>();
  }
  void offLoop(std::function<void()> work, std::function<void()> done) override {
    jobs_.emplace_back(std::move(work), std::move(done));
  }
  std::unique_ptr<Waker> waker(std::function<void()> /*woken*/) override {
    return std::make_unique<NoWaker>();
  }
  void workAll() {
    while (!jobs_.empty()) {
      auto [work, done] = std::move(jobs_.front());
      jobs_.pop_front();
      work();
      done();
    }
  }

 private:
  std::deque<std::pair<std::function<void()>, std::function<void()>>> jobs_;
};

}  // namespace

absl::StatusOr<Kelstore::Values> suggestedMappings(std::shared_ptr<LocalMachine> machine,
                                                   const std::string& indexFile, const Zavro::Clock& clock) {
  Kelstore::Values suggested;
  NoLoop io;
  LocalStorage storage(std::move(machine), indexFile, io, clock, [] {});
  storage.start();
  io.workAll();
  storage.look();
  io.workAll();
  for (auto& [memory, mapping] : memoryMappings()) {
    suggested[{Kind::memoryMapping, std::to_string(memory), ""}] = std::move(mapping);
  }
  for (auto& [point, mapping] : storage.mappings([](uint32_t, const std::string&) { return false; })) {
    suggested[{Kind::mountMapping, point, ""}] = std::move(mapping);
  }
  storage.keepIndexes();
  io.workAll();
  // A mount whose collector failed is left out; the collector has logged it.
  for (const Collector* collector : storage.collectors()) {
    bool essential = collector->status().name == "mounts" || collector->status().name == "indexes";
    const std::string& error = collector->status().error;
    if (essential && !error.empty()) return absl::UnavailableError(error);
  }
  return suggested;
}

}  // namespace Member
