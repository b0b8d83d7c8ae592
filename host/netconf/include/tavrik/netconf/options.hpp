// Configuration of tkav-netconfd: command line and configuration file.
//
// The configuration file holds one setting per line, "<name> <value...>",
// with the names of the long command-line options; '#' starts a comment.
// Settings given on the command line override the file.
//
//     ssh 127.0.0.1:8830
//     unix-socket /run/tkav-netconfd.sock
//     state-dir /var/lib/tkav-netconfd
//     user admin password-hash $y$j9T$...
//     user alice authorized-key /home/alice/.ssh/id_ed25519.pub
//     superuser admin
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavrik::netconf {

// A NETCONF user of the SSH endpoint. Users are the daemon's own; system
// accounts are never consulted.
struct User {
    std::string name;
    std::string password;                      // plain text; empty: none
    std::string password_hash;                 // crypt(3) hash; empty: none
    std::vector<std::string> authorized_keys;  // OpenSSH public key files
};

struct Endpoint {
    std::string address;
    std::uint16_t port = 0;
};

struct Options {
    std::optional<Endpoint> ssh;     // none: no SSH endpoint
    bool unix_enabled = true;
    std::string unix_socket;         // empty: <state_dir>/netconf.sock
    bool stdio = false;              // one session on stdin/stdout, then exit
    std::string state_dir;           // running configuration, appliance, host key
    std::string host_key;            // empty: <state_dir>/ssh_host_ecdsa_key
    std::string pid_file;            // written once the endpoints listen; empty: none
    std::string module_path;         // the configuration module (.so)
    std::string yang_dir;            // directory of the module's data model
    std::string ietf_yang_dir;       // the IETF modules NETCONF needs
    std::vector<User> users;
    std::vector<std::string> superusers;  // users whom access control (NACM) does not restrict
    unsigned workers = 2;            // threads serving the SSH sessions
    bool sync_writes = false;        // flush each commit to disk (power-loss safety)
    bool boot_from_startup = false;  // at start, the startup configuration (when there is one) becomes the running one
    int verbosity = 1;               // 0 errors, 1 warnings, 2 verbose, 3 debug
    bool help = false;
    bool version = false;

    std::string host_key_path() const;
    std::string unix_socket_path() const;
};

class OptionsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The built-in defaults: SSH on 127.0.0.1:8830, the UNIX socket and the
// state under the default state directory, the module and the models of
// this build.
Options default_options();

// Parses the command line (argv[0] is skipped) over `defaults`. A
// "--config FILE" option is read first, wherever it stands; the other
// options then override it. Throws OptionsError with a message naming the
// offending option or file line.
Options parse_options(int argc, const char* const argv[], Options defaults = default_options());

// Reads one configuration file over `options`.
void read_config_file(const std::string& path, Options& options);

// "127.0.0.1:8830", "[::1]:830", "8830" (loopback).
Endpoint parse_endpoint(const std::string& text);

std::string usage(const char* program);

}  // namespace tavrik::netconf
