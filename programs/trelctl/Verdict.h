// Whether a daemon serves what its sources say, and why not, from its answer to "status".
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "programs/trelctl/ControlClient.h"

namespace TrelCtl {

enum class Verdict : uint8_t {
  ok,
  degraded,    // it serves, but rows are missing, old, or not to be trusted
  notServing,  // managers get nothing, or not yet
};

// "ok", "degraded", "not serving".
const char* nameOf(Verdict verdict);
// Of `trelctl status`: 0, 3 or 4.
int exitStatusOf(Verdict verdict);

struct Reason {
  Verdict verdict;   // as which it counts
  const char* code;  // for programs; docs/trelctl-json.md lists them
  std::string text;  // one line: what it is, and what to do where that is known
};

struct Judgement {
  Verdict verdict = Verdict::ok;  // the worst of the reasons
  std::vector<Reason> reasons;    // the worst first
};

Judgement judgementOf(const Json& status);

// The members "verdict" and "reasons" of the status as `--json` prints it.
Json asJson(const Judgement& judgement);

}  // namespace TrelCtl
