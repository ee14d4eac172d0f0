// Whether this switch runs as a member of a cluster.
#pragma once

namespace Trel {

// True unless the host said otherwise.
bool trelMode();
void trelModeIs(bool on);

}  // namespace Trel
