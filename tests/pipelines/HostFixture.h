// What the tests of the pipelines that follow hosts share.
#pragma once

#include "tests/pipelines/HostWorld.h"
#include "tests/pipelines/Untraced.h"

namespace TrelSnmp::Agent {

class HostPipeline : public Untraced {
 protected:
  HostWorld world;
};

}  // namespace TrelSnmp::Agent
