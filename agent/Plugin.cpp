// libTrelSnmp.so is made of the rooms that it is linked from; this file gives it a source of its own.
#include "agent/TrelSnmpAgent.h"

static_assert(std::is_same_v<decltype(TrelSnmp::Agent::rootFactory("")), Zavro::Ptr<TrelSnmp::Agent::Root>>,
              "a host finds the plug-in's entry point under its name");
