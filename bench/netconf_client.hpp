// A NETCONF client for the benchmarks of tkav-netconfd, on libnetconf2's
// client API, and a helper that runs the daemon.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct nc_session;
struct nc_rpc;

namespace tavrik::netconf::test {

inline constexpr const char* kModelNs = "urn:tavrik:params:xml:ns:yang:tavrik-antivirus";
inline constexpr const char* kDaemonNs = "urn:tavrik:params:xml:ns:yang:tavrik-netconfd";

struct ErrorReport {
    std::string tag, message;
};

struct Reply {
    bool ok = false;                   // <ok/>
    std::optional<std::string> data;   // the content of <data>, as XML text
    std::vector<ErrorReport> errors;   // <rpc-error>s; none, no <ok/>, no data: no reply
};

class Client {
public:
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // A session on the daemon's UNIX socket. The schemas come from the
    // daemon through <get-schema>.
    static std::unique_ptr<Client> unix_socket(const std::string& path);

    Reply send(nc_rpc* rpc);  // takes the RPC
    Reply edit(std::string_view config, std::string_view target = "running");  // merge; or "candidate"
    Reply get_config();  // of running
    Reply get(std::string_view filter = {});
    Reply commit();


private:
    explicit Client(nc_session* session) : session_(session) {}
    nc_session* session_;
};

// The model's configuration wrapped for an edit: <antivirus> with `body`.
std::string antivirus(std::string_view body);
// An edit of profile `name` in vsys vs1: `body` after its name, the
// profile carrying `operation` ("" none).
std::string profile_edit(std::string_view name, std::string_view body = {}, std::string_view operation = {});

// tkav-netconfd run by a test: a temporary state directory, the UNIX socket
// in it, and optionally SSH on a free loopback port.
class Daemon {
public:
    Daemon();
    ~Daemon();  // kills a running daemon, removes a state directory it made
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Starts the daemon and waits until it listens; false when it exited
    // instead. `extra` options are added to the command line.
    bool launch(const std::vector<std::string>& extra = {});
    // SIGTERM; returns the exit status (-1: did not exit by itself).
    int stop();
    // SIGKILL: the daemon stops at whatever point it has reached.
    void kill();

    // The program run (default: tkav-netconfd of this build).
    void set_program(std::string path) { program_ = std::move(path); }
    pid_t pid() const { return pid_; }

    const std::string& state_dir() const { return dir_; }
    std::string socket_path() const { return dir_ + "/netconf.sock"; }
    std::unique_ptr<Client> connect() const { return Client::unix_socket(socket_path()); }
    std::string stderr_text() const;

private:
    std::vector<std::string> command(const std::vector<std::string>& extra) const;
    std::string program_ = TKAV_NETCONFD;
    std::string dir_;
    std::string pid_file_;
    pid_t pid_ = -1;
};


}  // namespace tavrik::netconf::test
