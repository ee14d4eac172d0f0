#include "member/MachineFigures.h"

#include <algorithm>
#include <utility>

#include "member/Figures.h"
#include "runtime/Text.h"

namespace Member {

using Kelstore::Kind;

MachineFigures::MachineFigures(const Settings& settings, std::shared_ptr<LocalMachine> machine,
                               Runtime::Io& io, const Zavro::Clock& clock, std::function<void()> told)
    : member_(std::to_string(settings.member)),
      intervalMs_(uint64_t{settings.intervalSeconds} * 1000),
      machine_(std::move(machine)),
      io_(io),
      clock_(clock),
      told_(std::move(told)),
      storage_(machine_, settings.indexFile, io, clock, [this] { tellSoon(); }) {
  addCollector("uptime", &LocalMachine::uptime, &MachineFigures::uptimeIs);
  addCollector("users", &LocalMachine::users, &MachineFigures::usersIs);
  addCollector("processes", &LocalMachine::processes, &MachineFigures::processesIs);
  addCollector("memory", &LocalMachine::memory, &MachineFigures::memoryIs);
  addCollector("processors", &LocalMachine::processors, &MachineFigures::processorsIs);
}

template <class Answer>
void MachineFigures::addCollector(std::string name, absl::StatusOr<Answer> (LocalMachine::*question)(),
                                  void (MachineFigures::*take)(Answer)) {
  auto ask = asking<Answer>([machine = machine_, question] { return ((*machine).*question)(); },
                            [this, take](Answer answer) { (this->*take)(std::move(answer)); });
  collectors_.push_back(
      std::make_unique<Collector>(std::move(name), std::move(ask), io_, clock_, [this] { tellSoon(); }));
}

void MachineFigures::uptimeIs(double seconds) {
  uptimeSeconds_ = seconds;
  uptimeAtNs_ = clock_.monotonicNs();
}

void MachineFigures::processorsIs(std::vector<ProcessorTime> processors) {
  std::map<uint32_t, ProcessorTime> before;
  for (const ProcessorTime& time : processors_.value_or(std::vector<ProcessorTime>())) {
    before[time.number] = time;
  }
  loads_.clear();
  for (const ProcessorTime& time : processors) {
    auto earlier = before.find(time.number);
    loads_[time.number] = earlier == before.end() ? kUnknownLoad : loadBetween(earlier->second, time);
  }
  processors_ = std::move(processors);
}

void MachineFigures::start() {
  storage_.start();
  look(kSecondLookMs);
}

void MachineFigures::intervalIs(uint32_t seconds) {
  uint64_t intervalMs = uint64_t{seconds} * 1000;
  if (intervalMs == std::exchange(intervalMs_, intervalMs)) return;
  lookAfter(intervalMs_);
}

void MachineFigures::lookAfter(uint64_t milliseconds) {
  nextLook_ = io_.after(milliseconds, [this] { look(intervalMs_); });
}

void MachineFigures::look(uint64_t nextMs) {
  lookAfter(nextMs);
  for (const auto& collector : collectors_) collector->collect();
  storage_.look();
}

void MachineFigures::tellSoon() {
  if (!news_) news_ = io_.after(0, [this] { tell(); });
}

void MachineFigures::tell() {
  news_.reset();
  auto all = collectors();
  heard_ = heard_ || std::all_of(all.begin(), all.end(), [](const Collector* one) { return one->heard(); });
  told_();
}

bool MachineFigures::lookedAtAll() const {
  auto all = collectors();
  return std::none_of(all.begin(), all.end(), [](const Collector* one) {
    return one->asking() && one->status().state != Collector::State::hangs;
  });
}

std::vector<Kelstore::Snapshot::Entry> MachineFigures::entries() const {
  std::vector<Kelstore::Snapshot::Entry> entries;
  auto add = [&](Kind kind, const std::string& second, const Kelstore::Value& value) {
    entries.push_back({{kind, member_, second}, value});
  };
  std::string name = machine_->name();
  if (!name.empty() && Runtime::isPlain(name)) add(Kind::name, "", name);
  if (uptimeSeconds_ || users_ || processes_ || memory_) {
    double sinceAnswer = static_cast<double>(clock_.monotonicNs() - uptimeAtNs_) / 1e9;
    add(Kind::system, "",
        Kelstore::System{uptimeSeconds_ ? *uptimeSeconds_ + sinceAnswer : 0,
                         static_cast<double>(clock_.utcNs()) / 1e9, users_.value_or(0),
                         processes_.value_or(0), memory_ ? kib(memory_->total) : 0});
  }
  if (memory_) add(Kind::memory, "", memoryOf(*memory_));
  if (processors_) add(Kind::processors, "", Kelstore::Present());
  for (const auto& [number, load] : loads_) {
    add(Kind::processor, std::to_string(processorIndex(number)), Kelstore::Processor{load});
  }
  if (storage_.known()) add(Kind::storageAreas, "", Kelstore::Present());
  for (const auto& [mountPoint, storage] : storage_.figures()) add(Kind::storage, mountPoint, storage);
  return entries;
}

std::vector<const Collector*> MachineFigures::collectors() const {
  std::vector<const Collector*> all;
  for (const auto& collector : collectors_) all.push_back(collector.get());
  for (const Collector* collector : storage_.collectors()) all.push_back(collector);
  return all;
}

}  // namespace Member
