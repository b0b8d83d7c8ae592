// What the operations of the NETCONF server share: the datastore, the
// schema context of the sessions and the registry of live sessions.
// Internal to tkav-netconfd.
#pragma once

#include <nc_server.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "nacm.hpp"
#include "tavrik/netconf/datastore.hpp"
#include "tavrik/netconf/notifications.hpp"

namespace tavrik::netconf::detail {

// The daemon's own YANG module (the appliance's state).
inline constexpr const char* kDaemonModule = "tavrik-netconfd";

enum class Transport { Ssh, UnixSocket, StandardStreams };

// What a session or the server counted (ietf-netconf-monitoring).
struct MessageCounters {
    std::uint32_t in_rpcs = 0;
    std::uint32_t in_bad_rpcs = 0;
    std::uint32_t out_rpc_errors = 0;
    std::uint32_t out_notifications = 0;
};

struct SessionInfo {
    std::uint32_t id = 0;
    Transport transport = Transport::Ssh;
    std::string username;
    std::string source_host;  // empty: none (UNIX socket, standard streams)
    std::time_t login_time = 0;
    MessageCounters counters;
};

struct ServerStatistics {
    std::time_t start_time = 0;
    std::uint32_t in_bad_hellos = 0;
    std::uint32_t in_sessions = 0;
    std::uint32_t dropped_sessions = 0;  // ended other than by <close-session> or <kill-session>
    MessageCounters counters;
};

// The live sessions and what they and the server counted: the one place
// that knows sessions. A session leaves the registry before it is freed,
// under the same mutex.
class SessionRegistry {
public:
    SessionRegistry();
    void add(nc_session* session, Transport transport, const std::string& username);
    void remove(nc_session* session);
    // Marks session `id` as killed by `killer`; false when there is none.
    bool kill(std::uint32_t id, std::uint32_t killer);
    // A client whose <hello> libnetconf2 refused.
    void bad_hello();
    // Counts a message of `session` by the NC_PSPOLL_* bits nc_ps_poll
    // returned for it: every <rpc> passes there, those libnetconf2 answers
    // itself (unparsable ones, <close-session>) included.
    void count(const nc_session* session, int poll_result);
    // A notification written to session `id`.
    void count_notification(std::uint32_t id);

    std::vector<SessionInfo> sessions() const;
    ServerStatistics statistics() const;

private:
    struct Entry {
        nc_session* session;
        SessionInfo info;
    };
    mutable std::mutex mutex_;
    std::map<std::uint32_t, Entry> sessions_;
    ServerStatistics statistics_;
};

struct Service {
    Datastore& datastore;
    ly_ctx* context;
    SessionRegistry sessions;
    // Makes the server look at its sessions again (one was killed).
    std::function<void()> wake;
    Nacm nacm;
    Notifications& notifications;
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
