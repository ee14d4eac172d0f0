// Traces of this room.
#pragma once

#include "platform/lumalog/Lumalog.h"

namespace Member {

inline const Lumalog::Handle traceHandle("Member");

}  // namespace Member
