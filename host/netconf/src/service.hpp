// What the operations of the NETCONF server share: the datastore, the
// schema context of the sessions and the registry of live sessions.
// Internal to tkav-netconfd.
#pragma once

#include <nc_server.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "tavrik/netconf/datastore.hpp"

namespace tavrik::netconf::detail {

// The daemon's own YANG module (the appliance's state).
inline constexpr const char* kDaemonModule = "tavrik-netconfd";

// Live sessions by id, for <kill-session>. A session leaves the registry
// before it is freed, under the same mutex.
class SessionRegistry {
public:
    void add(nc_session* session);
    void remove(nc_session* session);
    // Marks session `id` as killed by `killer`; false when there is none.
    bool kill(std::uint32_t id, std::uint32_t killer);

private:
    std::mutex mutex_;
    std::unordered_map<std::uint32_t, nc_session*> sessions_;
};

struct Service {
    Datastore& datastore;
    ly_ctx* context;
    SessionRegistry sessions;
    // Makes the server look at its sessions again (one was killed).
    std::function<void()> wake;
};

// A line in the daemon's log (stderr), when `level` is within the configured
// verbosity; `session` 0 names none.
void log_line(NC_VERB_LEVEL level, std::uint32_t session, const std::string& text);

// Installs the operation handlers on the RPC schema nodes of `service`'s
// context. Must run before nc_server_init, which would otherwise install
// libnetconf2's own <get-schema>. One service per process.
void install_operations(Service& service);
// Every ietf-netconf operation left without a handler (after nc_server_init
// installed libnetconf2's own) answers operation-not-supported.
void refuse_unserved_operations(Service& service);

}  // namespace tavrik::netconf::detail
