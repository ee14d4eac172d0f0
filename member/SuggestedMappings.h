// The storage mappings that this machine would have in a cluster, for an operator to look through and import:
// they are the whole cluster's, so no member publishes them.
#pragma once

#include <memory>
#include <string>

#include "kelstore/Document.h"
#include "member/Machine.h"
#include "platform/zavro/Clock.h"

namespace Member {

struct SuggestedMappings {
  Kelstore::Values values;
  std::string error;  // one line, when they cannot be told
};

// Those of the kinds of memory, and of the file systems that are mounted now. Mount points have the indexes
// that the file keeps for them, and new ones are kept there; an empty path: nowhere. Waits for each answer of
// the machine.
SuggestedMappings suggestedMappings(std::shared_ptr<Machine> machine, const std::string& indexFile,
                                    const Zavro::Clock& clock);

}  // namespace Member
