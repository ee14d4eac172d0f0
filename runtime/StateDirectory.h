// Where a daemon keeps what must survive a restart.
#pragma once

#include <string>

namespace Runtime {

// systemd's ($STATE_DIRECTORY), else /var/lib/PROGRAM for root and $XDG_STATE_HOME/PROGRAM (that is
// ~/.local/state/PROGRAM) for others. It may have yet to be made.
std::string stateDirectory(const std::string& program);

}  // namespace Runtime
