// The handle of this room's traces.
#pragma once

#include "platform/lumalog/Lumalog.h"

namespace Kelstore {

inline const Lumalog::Handle traceHandle("Kelstore");

}  // namespace Kelstore
