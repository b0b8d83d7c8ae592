// Command line and configuration file of tkav-netconfd.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tavrik/netconf/options.hpp"

namespace tavrik::netconf {
namespace {

// What the daemon does with the options, as one line.
std::string describe(const Options& o) {
    std::ostringstream out;
    out << "ssh " << (o.ssh ? o.ssh->address + ":" + std::to_string(o.ssh->port) : "none") << "; unix "
        << (o.unix_enabled ? o.unix_socket_path() : "none") << "; stdio " << o.stdio << "; state " << o.state_dir
        << "; key " << o.host_key_path() << "; workers " << o.workers << "; sync " << o.sync_writes << "; boot "
        << o.boot_from_startup << "; v " << o.verbosity << "; users";
    for (const User& u : o.users) {
        out << " " << u.name << "(" << u.password << "," << u.password_hash;
        for (const std::string& key : u.authorized_keys) out << "," << key;
        out << ")";
    }
    out << "; superusers";
    for (const std::string& name : o.superusers) out << " " << name;
    return out.str();
}

TEST(OptionsTest, CommandLineAndConfigurationFile) {
    struct Case {
        std::string file;  // read with --config before `args`; "" none
        std::vector<const char*> args;
        std::string expected;  // in describe(); or in the error, after the file's name
        bool refused = false;
    };
    const std::string settings =
        "# daemon settings\nssh 127.0.0.1:2830   # the port\nstate-dir /var/tmp/tk\nuser admin password-hash "
        "$y$j9T$abc\nuser admin authorized-key /k/admin.pub\nuser bob password two words\nlog-level debug\n"
        "superuser admin\n";
    const Case cases[] = {
        {"", {}, "ssh 127.0.0.1:8830; unix /state/netconf.sock; stdio 0; state /state; key /state/ssh_host_ecdsa_key; "
                 "workers 2; sync 0; boot 0; v 1; users; superusers"},
        {"", {"--ssh", "[::1]:1830", "--unix-socket=/run/x.sock"}, "ssh ::1:1830; unix /run/x.sock;"},
        {"", {"--no-ssh", "--no-unix"}, "ssh none; unix none; stdio 0;"},
        {"", {"--stdio"}, "ssh none; unix none; stdio 1;"},  // one session on the streams, no endpoints
        {"", {"--workers", "4", "--sync", "yes", "--boot-from-startup", "yes", "-v", "-v"},
         "workers 4; sync 1; boot 1; v 3;"},
        {"", {"--user", "admin:se:cret", "--authorized-key", "alice:/keys/a.pub"},
         "users admin(se:cret,) alice(,,/keys/a.pub);"},
        {settings, {"--ssh", "127.0.0.1:3830", "--superuser", "bob"},
         "ssh 127.0.0.1:3830; unix /var/tmp/tk/netconf.sock; stdio 0; state /var/tmp/tk; key "
         "/var/tmp/tk/ssh_host_ecdsa_key; workers 2; sync 0; boot 0; v 3; users admin(,$y$j9T$abc,/k/admin.pub) "
         "bob(two words,); superusers admin bob"},
        {"", {"--bogus"}, "unknown option \"--bogus\"", true},
        {"", {"--ssh"}, "--ssh needs a value", true},
        {"", {"--ssh", "127.0.0.1:99999"}, "the port must be a number from 1 to 65535", true},
        {"", {"--workers", "0"}, "workers must be a number from 1 to 16", true},
        {"", {"--user", "nopassword"}, "--user expects NAME:PASSWORD", true},
        {"", {"--stdio=yes"}, "--stdio takes no value", true},
        {"", {"--sync", "maybe"}, "sync must be yes or no", true},
        {"", {"stray"}, "unexpected argument \"stray\"", true},
        {"", {"--config", "/nonexistent/file"}, "cannot read configuration file /nonexistent/file", true},
        {"ssh 127.0.0.1:1\nfrobnicate yes\n", {}, ":2: unknown setting \"frobnicate\"", true},
        {"stdio\n", {}, ":1: unknown setting \"stdio\"", true},
        {"user admin secret x\n", {}, ":1: user admin: unknown credential \"secret\"", true},
        {"state-dir\n", {}, ":1: \"state-dir\" needs a value", true},
        {"no-ssh now\n", {}, ":1: \"no-ssh\" takes no value", true},
    };
    const std::string path = ::testing::TempDir() + "tkav-netconfd-" + std::to_string(::getpid()) + ".conf";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        std::vector<const char*> args{"tkav-netconfd"};
        if (!c.file.empty()) {
            std::ofstream(path) << c.file;
            args.insert(args.end(), {"--config", path.c_str()});
        }
        args.insert(args.end(), c.args.begin(), c.args.end());
        Options defaults;
        defaults.ssh = Endpoint{"127.0.0.1", 8830};
        defaults.state_dir = "/state";
        try {
            const std::string options = describe(parse_options(static_cast<int>(args.size()), args.data(), defaults));
            EXPECT_FALSE(c.refused) << "accepted";
            EXPECT_NE(options.find(c.expected), std::string::npos) << options;
        } catch (const OptionsError& e) {
            EXPECT_TRUE(c.refused) << e.what();
            EXPECT_NE(std::string(e.what()).find((c.file.empty() ? "" : path) + c.expected), std::string::npos)
                << e.what();
        }
    }
    ::unlink(path.c_str());
}

}  // namespace
}  // namespace tavrik::netconf
