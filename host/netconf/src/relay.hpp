// --stdio next to a running daemon: the session is relayed to the daemon's
// UNIX socket, so that it shares the daemon's datastore, lock and sessions.
#pragma once

#include <optional>
#include <string>

namespace tavrik::netconf {

// Connects to the UNIX socket at `path` and copies stdin to it and its
// output to stdout until either side closes. nullopt when nobody listens
// there; else the exit status.
std::optional<int> relay_stdio(const std::string& path);

}  // namespace tavrik::netconf
