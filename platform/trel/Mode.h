// Whether this switch runs as a member of a cluster.
#pragma once

namespace Trel {

// Default: true.
bool trelMode();
void trelModeIs(bool on);

}  // namespace Trel
