// The storage mappings that this machine would have in a cluster, for an operator to look through and import:
// they are the whole cluster's, so no member publishes them.
#pragma once

#include <absl/status/statusor.h>

#include <memory>
#include <string>

#include "kelstore/Document.h"
#include "member/LocalMachine.h"
#include "platform/zavro/Clock.h"

namespace Member {

// Those of the kinds of memory, and of the file systems that are mounted now. Mount points have the indexes
// that the file keeps for them, and new ones are kept there; an empty path: nowhere. Waits for each answer of
// the machine. An error is one line.
absl::StatusOr<Kelstore::Values> suggestedMappings(std::shared_ptr<LocalMachine> machine,
                                                   const std::string& indexFile, const Zavro::Clock& clock);

}  // namespace Member
