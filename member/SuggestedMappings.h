// The storage mappings that suit this machine, for an operator to check and import. Mappings belong to the
// whole cluster, so no member publishes them.
#pragma once

#include <absl/status/statusor.h>

#include <memory>
#include <string>

#include "kelstore/Document.h"
#include "member/LocalMachine.h"
#include "platform/zavro/Clock.h"

namespace Member {

// Mappings for the kinds of memory, and for the file systems that are mounted now. indexFile: keeps the
// indexes of mount points, also new ones; empty: none. Waits for each answer of the machine. An error is one
// line.
absl::StatusOr<Kelstore::Values> suggestedMappings(std::shared_ptr<LocalMachine> machine,
                                                   const std::string& indexFile, const Zavro::Clock& clock);

}  // namespace Member
