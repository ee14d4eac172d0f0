// What the tests of the pipelines that follow hosts share.
#pragma once

#include "HostWorld.h"
#include "Untraced.h"

namespace TrelSnmp::Agent {

class HostPipeline : public Untraced {
 protected:
  HostWorld world;
};

}  // namespace TrelSnmp::Agent
