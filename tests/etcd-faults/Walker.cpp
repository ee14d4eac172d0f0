#include "tests/etcd-faults/Walker.h"

#include <fmt/format.h>

#include <stdexcept>

namespace Faults {

using Support::Millis;

Walker::Walker(uint16_t port, std::set<Wire::Oid> lasting)
    : exchange_(port), lasting_(std::move(lasting)), thread_([this] { run(); }) {}

Walker::~Walker() {
  ends_ = true;
  thread_.join();
}

void Walker::run() {
  constexpr Millis kBetweenWalks(10);
  do {
    try {
      Wire::Tree tree = Wire::treeServed(exchange_, Wire::kReader);
      size_t missing = 0;
      const Wire::Oid* first = nullptr;
      for (const Wire::Oid& name : lasting_) {
        if (tree.contains(name)) continue;
        if (missing++ == 0) first = &name;
      }
      if (missing > 0) {
        complain(fmt::format("{} of {} lasting instances are missing, first {}", missing, lasting_.size(),
                             Wire::text(*first)));
      }
    } catch (const std::runtime_error& error) {
      complain(error.what());
    }
    ++walks_;
  } while (!Support::waitUntil([this] { return ends_.load(); }, kBetweenWalks));
}

void Walker::complain(const std::string& text) {
  std::lock_guard lock(mutex_);
  if (complaints_.size() < 2000) complaints_ += text + "\n";
}

std::string Walker::complaints() {
  uint64_t before = walks_;
  Support::waitUntil([&] { return walks_ >= before + 2; }, Millis(60'000));
  std::lock_guard lock(mutex_);
  return std::exchange(complaints_, {});
}

}  // namespace Faults
