// The handle of this room's traces.
#pragma once

#include "platform/lumalog/Lumalog.h"

namespace Member {

inline const Lumalog::Handle traceHandle("Member");

}  // namespace Member
