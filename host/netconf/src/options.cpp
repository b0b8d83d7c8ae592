#include "tavrik/netconf/options.hpp"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>

namespace tavrik::netconf {
namespace {

std::string trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(first, last - first + 1));
}

unsigned parse_number(const std::string& text, unsigned low, unsigned high, const char* what) {
    unsigned value = 0;
    const auto* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || ptr != end || value < low || value > high)
        throw OptionsError(std::string(what) + " must be a number from " + std::to_string(low) + " to " +
                           std::to_string(high) + ", not \"" + text + "\"");
    return value;
}

bool parse_switch(const std::string& text, const char* what) {
    if (text == "yes" || text == "true" || text == "on" || text == "1") return true;
    if (text == "no" || text == "false" || text == "off" || text == "0") return false;
    throw OptionsError(std::string(what) + " must be yes or no, not \"" + text + "\"");
}

User& user_named(Options& options, const std::string& name) {
    if (name.empty()) throw OptionsError("a user needs a name");
    auto it = std::find_if(options.users.begin(), options.users.end(), [&](const User& u) { return u.name == name; });
    if (it != options.users.end()) return *it;
    options.users.push_back(User{name, {}, {}, {}});
    return options.users.back();
}

// "NAME:VALUE" of the command-line user options.
std::pair<std::string, std::string> split_user(const std::string& text, const char* option, const char* value) {
    const auto colon = text.find(':');
    if (colon == std::string::npos || colon == 0)
        throw OptionsError(std::string(option) + " expects NAME:" + value + ", not \"" + text + "\"");
    return {text.substr(0, colon), text.substr(colon + 1)};
}

void add_credential(Options& options, const std::string& name, std::string_view kind, const std::string& value) {
    User& user = user_named(options, name);
    if (value.empty()) throw OptionsError("user " + name + ": empty " + std::string(kind));
    if (kind == "password")
        user.password = value;
    else if (kind == "password-hash")
        user.password_hash = value;
    else if (kind == "authorized-key")
        user.authorized_keys.push_back(value);
    else
        throw OptionsError("user " + name + ": unknown credential \"" + std::string(kind) +
                           "\" (password, password-hash or authorized-key)");
}

int parse_level(const std::string& text) {
    static constexpr std::string_view levels[] = {"error", "warning", "verbose", "debug"};
    for (int i = 0; i < 4; ++i)
        if (text == levels[i]) return i;
    throw OptionsError("log-level must be error, warning, verbose or debug, not \"" + text + "\"");
}

// One setting, as a long command-line option and as a configuration-file
// line. `cli` and `file` say where it may appear; settings without a value
// take none.
struct Setting {
    std::string_view name;
    bool has_value;
    bool cli;
    bool file;
    void (*apply)(Options&, const std::string&);
};

const Setting kSettings[] = {
    {"ssh", true, true, true, [](Options& o, const std::string& v) { o.ssh = parse_endpoint(v); }},
    {"no-ssh", false, true, true, [](Options& o, const std::string&) { o.ssh.reset(); }},
    {"unix-socket", true, true, true,
     [](Options& o, const std::string& v) {
         o.unix_enabled = true;
         o.unix_socket = v;
     }},
    {"no-unix", false, true, true, [](Options& o, const std::string&) { o.unix_enabled = false; }},
    {"stdio", false, true, false, [](Options& o, const std::string&) { o.stdio = true; }},
    {"state-dir", true, true, true, [](Options& o, const std::string& v) { o.state_dir = v; }},
    {"host-key", true, true, true, [](Options& o, const std::string& v) { o.host_key = v; }},
    {"pid-file", true, true, true, [](Options& o, const std::string& v) { o.pid_file = v; }},
    {"module", true, true, true, [](Options& o, const std::string& v) { o.module_path = v; }},
    {"yang-dir", true, true, true, [](Options& o, const std::string& v) { o.yang_dir = v; }},
    {"ietf-yang-dir", true, true, true, [](Options& o, const std::string& v) { o.ietf_yang_dir = v; }},
    {"workers", true, true, true,
     [](Options& o, const std::string& v) { o.workers = parse_number(v, 1, 16, "workers"); }},
    {"sync", true, true, true, [](Options& o, const std::string& v) { o.sync_writes = parse_switch(v, "sync"); }},
    {"boot-from-startup", true, true, true,
     [](Options& o, const std::string& v) { o.boot_from_startup = parse_switch(v, "boot-from-startup"); }},
    {"log-level", true, true, true, [](Options& o, const std::string& v) { o.verbosity = parse_level(v); }},
    {"user", true, true, false,
     [](Options& o, const std::string& v) {
         const auto [name, password] = split_user(v, "--user", "PASSWORD");
         add_credential(o, name, "password", password);
     }},
    {"authorized-key", true, true, false,
     [](Options& o, const std::string& v) {
         const auto [name, file] = split_user(v, "--authorized-key", "FILE");
         add_credential(o, name, "authorized-key", file);
     }},
    {"user", true, false, true,
     [](Options& o, const std::string& v) {
         std::istringstream in(v);
         std::string name, kind, value;
         in >> name >> kind;
         std::getline(in, value);
         add_credential(o, name, kind, trim(value));
     }},
    {"superuser", true, true, true, [](Options& o, const std::string& v) { o.superusers.push_back(v); }},
    {"help", false, true, false, [](Options& o, const std::string&) { o.help = true; }},
    {"version", false, true, false, [](Options& o, const std::string&) { o.version = true; }},
};

const Setting* find_setting(std::string_view name, bool cli) {
    for (const auto& s : kSettings)
        if (s.name == name && (cli ? s.cli : s.file)) return &s;
    return nullptr;
}

std::string default_state_dir() {
    if (geteuid() == 0) return "/var/lib/tkav-netconfd";
    if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state) return std::string(state) + "/tkav-netconfd";
    if (const char* home = std::getenv("HOME"); home && *home) return std::string(home) + "/.local/state/tkav-netconfd";
    return "/tmp/tkav-netconfd-" + std::to_string(geteuid());
}

}  // namespace

std::string Options::host_key_path() const {
    return host_key.empty() ? state_dir + "/ssh_host_ecdsa_key" : host_key;
}

std::string Options::unix_socket_path() const {
    return unix_socket.empty() ? state_dir + "/netconf.sock" : unix_socket;
}

Options default_options() {
    Options options;
    options.ssh = Endpoint{"127.0.0.1", 8830};
    options.state_dir = default_state_dir();
    options.module_path = TKAV_DEFAULT_MODULE;
    options.yang_dir = TKAV_DEFAULT_YANG_DIR;
    options.ietf_yang_dir = TKAV_DEFAULT_IETF_YANG_DIR;
    return options;
}

Endpoint parse_endpoint(const std::string& text) {
    std::string address = "127.0.0.1";
    std::string port = text;
    if (const auto colon = text.rfind(':'); colon != std::string::npos) {
        address = text.substr(0, colon);
        port = text.substr(colon + 1);
        if (address.size() >= 2 && address.front() == '[' && address.back() == ']')
            address = address.substr(1, address.size() - 2);
        if (address.empty()) throw OptionsError("missing address in \"" + text + "\"");
    }
    return Endpoint{address, static_cast<std::uint16_t>(parse_number(port, 1, 65535, "the port"))};
}

void read_config_file(const std::string& path, Options& options) {
    std::ifstream in(path);
    if (!in) throw OptionsError("cannot read configuration file " + path);
    std::string raw;
    for (int number = 1; std::getline(in, raw); ++number) {
        if (const auto hash = raw.find('#'); hash != std::string::npos) raw.erase(hash);
        const std::string line = trim(raw);
        if (line.empty()) continue;
        const auto space = line.find_first_of(" \t");
        const std::string name = line.substr(0, space);
        const std::string value = space == std::string::npos ? std::string() : trim(line.substr(space));
        try {
            const Setting* setting = find_setting(name, false);
            if (!setting) throw OptionsError("unknown setting \"" + name + "\"");
            if (setting->has_value == value.empty())
                throw OptionsError(setting->has_value ? "\"" + name + "\" needs a value" : "\"" + name + "\" takes no value");
            setting->apply(options, value);
        } catch (const OptionsError& e) {
            throw OptionsError(path + ":" + std::to_string(number) + ": " + e.what());
        }
    }
}

Options parse_options(int argc, const char* const argv[], Options options) {
    std::vector<std::string> args(argv + std::min(argc, 1), argv + argc);
    // --config first, so that the other options override the file.
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--config") {
            if (i + 1 == args.size()) throw OptionsError("--config needs a file");
            read_config_file(args[i + 1], options);
            args.erase(args.begin() + i, args.begin() + i + 2);
            --i;
        } else if (args[i].rfind("--config=", 0) == 0) {
            read_config_file(args[i].substr(9), options);
            args.erase(args.begin() + i);
            --i;
        }
    }
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-h") {
            options.help = true;
            continue;
        }
        if (arg == "-v") {
            options.verbosity = std::min(options.verbosity + 1, 3);
            continue;
        }
        if (arg.rfind("--", 0) != 0) throw OptionsError("unexpected argument \"" + arg + "\"");
        std::string name = arg.substr(2);
        std::optional<std::string> value;
        if (const auto eq = name.find('='); eq != std::string::npos) {
            value = name.substr(eq + 1);
            name.erase(eq);
        }
        const Setting* setting = find_setting(name, true);
        if (!setting) throw OptionsError("unknown option \"--" + name + "\" (see --help)");
        if (setting->has_value && !value) {
            if (i + 1 == args.size()) throw OptionsError("--" + name + " needs a value");
            value = args[++i];
        } else if (!setting->has_value && value) {
            throw OptionsError("--" + name + " takes no value");
        }
        setting->apply(options, value.value_or(std::string()));
    }
    if (options.stdio) {
        // One session on the standard streams; the endpoints stay closed.
        options.ssh.reset();
        options.unix_enabled = false;
    }
    return options;
}

std::string usage(const char* program) {
    return std::string("Usage: ") + program +
           " [options]\n"
           "Serves the antivirus configuration module over NETCONF, with the embedded\n"
           "simulated appliance as the platform.\n"
           "\n"
           "  --config FILE            read settings from FILE (one \"name value\" per line)\n"
           "  --ssh [ADDR:]PORT        NETCONF over SSH (default 127.0.0.1:8830)\n"
           "  --no-ssh                 no SSH endpoint\n"
           "  --unix-socket PATH       NETCONF on a UNIX socket (default STATE-DIR/netconf.sock)\n"
           "  --no-unix                no UNIX socket\n"
           "  --stdio                  one session on stdin/stdout (sshd netconf subsystem)\n"
           "  --state-dir DIR          running configuration, appliance and host key\n"
           "  --host-key FILE          SSH host key, generated when absent\n"
           "                           (default STATE-DIR/ssh_host_ecdsa_key)\n"
           "  --pid-file FILE          write the process id to FILE once listening\n"
           "  --user NAME:PASSWORD     an SSH user with a password\n"
           "  --authorized-key NAME:FILE  an SSH user with an OpenSSH public key\n"
           "  --superuser NAME         a user that access control (NACM) does not restrict\n"
           "  --module FILE            the configuration module (default: this build's)\n"
           "  --yang-dir DIR           the module's data model (default: this build's)\n"
           "  --ietf-yang-dir DIR      IETF NETCONF modules (default " TKAV_DEFAULT_IETF_YANG_DIR ")\n"
           "  --workers N              threads serving the SSH sessions (default 2)\n"
           "  --sync yes|no            flush every commit to disk before the reply, so that\n"
           "                           it survives a power loss (default no: a commit\n"
           "                           survives the daemon being killed at any moment)\n"
           "  --boot-from-startup yes|no  at start, make the startup configuration (when\n"
           "                           there is one) the running one (default no: the\n"
           "                           running configuration of the last run stays)\n"
           "  --log-level LEVEL        error, warning (default), verbose or debug; -v raises it\n"
           "  -h, --help               this text\n"
           "  --version                the version\n"
           "\n"
           "In the configuration file users read \"user NAME password PASSWORD\",\n"
           "\"user NAME password-hash CRYPT-HASH\" or \"user NAME authorized-key FILE\".\n";
}

}  // namespace tavrik::netconf
