// What the tests of the backplane interface pipeline share.
#pragma once

#include <gtest/gtest.h>

#include "tests/pipelines/IfTableWorld.h"
#include "tests/support/TraceLog.h"

namespace TrelSnmp::Agent {

using Lines = std::vector<std::string>;

inline std::string line(int level, const std::string& text) {
  return TraceLog::line("TrelSnmpIfTableSm", level, text);
}

inline const std::string kFlattening =
    "foreach( [ ( if ( _oldValueOpt6 != _newValueOpt7 ) then _oldValueOpt6 else None, false ), ( "
    "_newValueOpt7, true "
    ") ] ) flattening 2 elements";
inline const std::string kNoValue = "filter( _valueOpt8 ) failed, terminating pipeline";
inline const std::string kNotOwned =
    "filter( ( doInsert || ( ( old && ( ( *old ).localMemberId == U32( localMemberId.id ) ) ) && ( ( *old "
    ").remoteMemberId == U32( remoteMemberId.id ) ) ) ) ) failed, terminating pipeline";

inline std::string topoElement(int local, int remote) {
  return fmt::format(
      "topoConfigStream = from( topologyConfig.topoConfig[].neighbor[] ): localMemberId={} "
      "remoteMemberId={}",
      local, remote);
}
inline std::string merged(int local, int remote) {
  return fmt::format(
      "trelIfTableStream = merge( topoConfigStream, ifMibIfIndexStream ): localMemberId={} "
      "remoteMemberId={}",
      local, remote);
}

class IfTablePipeline : public testing::Test {
 protected:
  void SetUp() override {
    subscription = world.mib->publisher().subscribe([this](const TrelMib::Change& change) {
      published += fmt::format("{}{} ", change.entry ? '+' : '-', std::get<uint32_t>(change.key));
    });
  }
  // What was published since the last call.
  std::string takePublished() { return std::exchange(published, ""); }

  TraceLog traces{"TrelSnmpIfTableSm"};
  IfTableWorld world;
  std::string published;
  Kor::Subscription subscription;
};

}  // namespace TrelSnmp::Agent
