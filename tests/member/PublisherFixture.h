// What the tests of the publisher share: a publisher with content, whose time and store are driven by hand.
#pragma once

#include <gtest/gtest.h>

#include "member/Publisher.h"
#include "tests/member/ManualStore.h"
#include "tests/support/TraceLog.h"

namespace Member {

inline Kelstore::Path processor(const std::string& index, const std::string& member = "1") {
  return {Kelstore::Kind::processor, member, index};
}
inline Kelstore::Path interface(const std::string& name) { return {Kelstore::Kind::interface, name, ""}; }
inline const Kelstore::Path kLink{Kelstore::Kind::link, "1", "2"};

// Somebody else's lease.
inline constexpr LeaseStore::Lease kOther = 7;

inline const Runtime::Random kRandom = [] { return 0.5; };

class PublisherTest : public testing::Test {
 protected:
  void start() {
    publisher_.emplace(Publisher::Settings{1, {"B1", "B2"}, 15, 1, kRandom}, store_, io_, clock_, listener());
    say();
    pass(0);
  }
  Publisher::Listener listener() {
    return {[this] { ++published_; }, [this](const std::string& line) { statuses_.push_back(line); }};
  }
  // Gives the publisher content_.
  void say() {
    std::vector<Kelstore::Snapshot::Entry> entries(content_.begin(), content_.end());
    publisher_->contentIs(entries);
  }
  void load(int16_t percent) {
    content_[processor("1")] = Kelstore::Processor{percent};
    say();
  }
  void pass(uint64_t milliseconds) { io_.advance(milliseconds); }
  std::vector<std::string> errors() const {
    std::vector<std::string> all;
    for (const std::string& line : trace_.lines()) {
      if (line.starts_with("Member/0")) all.push_back(line);
    }
    return all;
  }
  LeaseStore::Lease leaseOf(const Kelstore::Path& path) const {
    auto held = store_->keys.find(path);
    return held == store_->keys.end() ? -1 : held->second.lease;
  }

  Zavro::ManualClock clock_{1'000'000'000'000};
  Runtime::ManualIo io_{clock_};
  std::shared_ptr<ManualStore> store_ = std::make_shared<ManualStore>();
  std::map<Kelstore::Path, Kelstore::Value> content_ = {
      {interface("B1"), Kelstore::Interface{7}},
      {kLink, Kelstore::Link{Lanix::IntfId("B1")}},
      {{Kelstore::Kind::processors, "1", ""}, Kelstore::Present()},
      {processor("1"), Kelstore::Processor{10}},
      {processor("2"), Kelstore::Processor{20}},
  };
  int published_ = 0;
  std::vector<std::string> statuses_;  // all that were told
  std::optional<Publisher> publisher_;
  TraceLog trace_{{"Member"}};
};

}  // namespace Member
