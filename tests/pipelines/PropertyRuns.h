// How many runs a property is given: ten thousand, fewer where a sanitizer makes each run several times as
// dear. RapidCheck takes the number and the seed from the environment (RC_PARAMS); what is set there stands.
#pragma once

#include <cstdlib>

#ifdef TREL_SANITIZED
inline constexpr const char* kPropertyRuns = "max_success=1000";
#else
inline constexpr const char* kPropertyRuns = "max_success=10000";
#endif

[[maybe_unused]] inline const int propertyRuns = setenv("RC_PARAMS", kPropertyRuns, /*overwrite=*/0);
