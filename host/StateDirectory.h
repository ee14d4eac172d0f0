// Where the daemon keeps what must survive a restart.
#pragma once

#include <string>

namespace Host {

// systemd's ($STATE_DIRECTORY), else /var/lib/trelsnmpd for root and $XDG_STATE_HOME/trelsnmpd (that is
// ~/.local/state/trelsnmpd) for others. It may have yet to be made.
std::string stateDirectory();

}  // namespace Host
