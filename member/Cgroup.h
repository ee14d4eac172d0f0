// What this process may use at most, as in a container: the limits of its cgroup (version 2). On any thread.
//
// Limits are seen in a cgroup namespace only, as containers have one; outside, these functions change
// nothing. Errors are one line, such as "/sys/fs/cgroup/memory.max: found "x", expected a number or max".
#pragma once

#include <string>
#include <vector>

#include "member/LocalMachine.h"

namespace Member {

// The machine's memory, or the cgroup's when that is limited to less. directory: where cgroups are mounted.
absl::StatusOr<MemoryInUse> limitedTo(const std::string& directory, const MemoryInUse& machine);

// The machine's processors; or, when the cgroup may use the time of fewer, as many as that, rounded up, each
// with the part of that time that was used. uptimeSeconds: of the machine, at this time.
absl::StatusOr<std::vector<ProcessorTime>> limitedTo(const std::string& directory,
                                                     const std::vector<ProcessorTime>& machine,
                                                     double uptimeSeconds);

}  // namespace Member
