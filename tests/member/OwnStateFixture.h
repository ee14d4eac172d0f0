// All that a member publishes, over a machine, devices and neighbours that are driven by hand.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "member/OwnState.h"
#include "tests/member/ManualMachine.h"
#include "tests/member/ManualProbe.h"
#include "tests/support/TraceLog.h"

namespace Member {

class OwnStateTest : public testing::Test {
 protected:
  explicit OwnStateTest(uint32_t figuresIntervalSeconds = 5)
      : state_(config(figuresIntervalSeconds), machine_, probe_, links_, io_, clock_, [this] { changed(); }) {
  }
  virtual void changed() { ++changes_; }
  static Config config(uint32_t figuresIntervalSeconds) {
    Config config;
    config.member = 1;
    config.figuresIntervalSeconds = figuresIntervalSeconds;
    config.neighbours = {{2, "Backplane1/2", "bp2", "10.0.0.2", {}},
                         {3, "Backplane1/3", "bp3", "10.0.0.3", {}}};
    config.neighbours[0].ifIndex = 1002;
    return config;
  }
  void start() {
    links_.listingEnds();
    state_.start();
    io_.advance(0);
  }
  // "path value" of all entries.
  std::vector<std::string> entries() const {
    std::vector<std::string> all;
    for (const auto& [path, value] : state_.entries()) {
      all.push_back(path.text() + " " + Kelstore::encode(value).dump());
    }
    return all;
  }
  std::optional<Kelstore::System> system() const {
    for (const auto& [path, value] : state_.entries()) {
      if (path.kind == Kelstore::Kind::system) return value.get<Kelstore::System>();
    }
    return std::nullopt;
  }
  double startOfMachine() const { return system()->currentTimeUtc - system()->systemUptime; }
  void devicesAre(std::optional<Device> bp2, std::optional<Device> bp3) {
    links_.listingBegins();
    if (bp2) links_.deviceIs("bp2", *bp2);
    if (bp3) links_.deviceIs("bp3", *bp3);
    links_.listingEnds();
    state_.linksChanged();
  }

  Zavro::ManualClock clock_{1'000'000'000'000};
  Runtime::ManualIo io_{clock_};
  std::shared_ptr<ManualMachine> machine_ = std::make_shared<ManualMachine>();
  std::shared_ptr<ManualProbe> probe_ = std::make_shared<ManualProbe>();
  LinkTable links_;
  int changes_ = 0;
  TraceLog trace_{{"Member"}};
  OwnState state_;
};

}  // namespace Member
