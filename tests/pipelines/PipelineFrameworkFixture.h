// What the tests of the mechanics that all pipelines share have in common: the reachability pipeline, on
// which they are shown, and its traces.
#pragma once

#include <gtest/gtest.h>

#include "tests/pipelines/ReachabilityWorld.h"
#include "tests/support/TraceLog.h"

namespace TrelSnmp::Agent {

class PipelineFramework : public testing::Test {
 protected:
  using State = Trel::ReachabilityState;
  using Lines = std::vector<std::string>;

  static std::string line(int level, const std::string& text) { return TraceLog::line(kSm, level, text); }

  static constexpr const char* kSm = "TrelSnmpReachabilityTableSm";
  TraceLog traces{kSm};
  ReachabilityWorld world;
};

}  // namespace TrelSnmp::Agent
