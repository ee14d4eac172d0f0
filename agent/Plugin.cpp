// libTrelSnmp.so consists of the rooms that are linked into it. This file is its own source, which CMake
// wants.
#include "agent/TrelSnmpAgent.h"

static_assert(std::is_same_v<decltype(TrelSnmp::Agent::rootFactory("")), Zavro::Ptr<TrelSnmp::Agent::Root>>,
              "a host finds the plug-in's entry point under its name");
