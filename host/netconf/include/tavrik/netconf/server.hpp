// The NETCONF server of tkav-netconfd, on libnetconf2: the endpoints (SSH,
// UNIX socket, or one session on the standard streams), the sessions and
// the operations, served from a Datastore.
//
// libnetconf2 keeps its server state in globals, so a process has at most
// one Server at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <libyang/libyang.h>
#include <stdexcept>

#include "tavrik/netconf/datastore.hpp"
#include "tavrik/netconf/notifications.hpp"
#include "tavrik/netconf/options.hpp"

namespace tavrik::netconf {

class ServerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The modules whose configuration the datastores hold beside the data model
// as plain data, without module calls: NACM's (ietf-netconf-acm).
std::vector<std::string> data_modules();

// The schema context of the server: the IETF NETCONF modules (notifications
// included), the data modules and the daemon's own module; the datastore's engine adds the data
// model. The caller destroys it (ly_ctx_destroy) after the datastore and
// the server. Throws ServerError.
ly_ctx* build_context(const Options& options);

class Server {
public:
    // Serves the datastore's schema context (built with build_context()):
    // initialises libnetconf2 and opens the endpoints of `options`
    // (generating the SSH host key when it does not exist). Throws
    // ServerError with a message for the operator when that fails. The
    // sessions' subscriptions and events go to `notifications` (the
    // datastore's listener), which outlives the server.
    Server(const Options& options, Datastore& datastore, Notifications& notifications);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Serves until stop() (endpoints) or until the one session ends
    // (--stdio). Returns the process exit status.
    int run();

    // Asks run() to return; safe to call from a signal handler.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tavrik::netconf
