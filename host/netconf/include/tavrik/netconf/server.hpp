// The NETCONF server of tkav-netconfd, on libnetconf2: the endpoints (SSH,
// UNIX socket, or one session on the standard streams), the sessions and
// the operations, served from a Datastore.
//
// libnetconf2 keeps its server state in globals, so a process has at most
// one Server at a time.
#pragma once

#include <memory>
#include <stdexcept>

#include "tavrik/netconf/datastore.hpp"
#include "tavrik/netconf/options.hpp"

namespace tavrik::netconf {

class ServerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Server {
public:
    // Builds the schema context (IETF NETCONF modules and the module's data
    // model), initialises libnetconf2 and opens the endpoints of `options`
    // (generating the SSH host key when it does not exist). Throws
    // ServerError with a message for the operator when that fails.
    Server(const Options& options, Datastore& datastore);
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
