#include "tavrik/netconf/server.hpp"

#include <crypt.h>
#include <libssh/libssh.h>
#include <libyang/libyang.h>
#include <nc_server.h>
#include <poll.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/prctl.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "tavrik/atomic_file.hpp"
#include "daemon_module.hpp"
#include "framing.hpp"
#include "service.hpp"

namespace tavrik::netconf {
namespace {

constexpr const char* kSshEndpoint = "ssh";
constexpr const char* kHostKeyName = "host-key";

int g_verbosity = 1;

void print_line(NC_VERB_LEVEL level, std::uint32_t session, const char* message) {
    static constexpr const char* kLevels[] = {"error", "warning", "verbose", "debug", "debug"};
    if (static_cast<int>(level) > g_verbosity) return;
    if (session)
        std::fprintf(stderr, "tkav-netconfd: %s: session %u: %s\n", kLevels[level], session, message);
    else
        std::fprintf(stderr, "tkav-netconfd: %s: %s\n", kLevels[level], message);
}

void print_log(const nc_session* session, NC_VERB_LEVEL level, const char* message) {
    print_line(level, session ? nc_session_get_id(session) : 0, message);
}

// ---- schema context ---------------------------------------------------------

// The capabilities the daemon has: edits go straight to the running
// configuration or to the candidate, confirmed commits, the startup
// configuration, <validate>, all-or-nothing edits and XPath filters.
constexpr std::string_view kServedFeatures[] = {"writable-running", "candidate", "confirmed-commit", "startup",
                                                "validate", "rollback-on-error", "xpath"};

// Clears the enabled flag of the ietf-netconf features the daemon does not
// serve, once the schema is compiled: the hello (which libnetconf2 builds
// from the flags) and ietf-yang-library announce the served ones only, while
// the compiled schema keeps the operations of all. Nothing compiles the
// module again afterwards.
void withhold_features(ly_ctx* ctx) {
    const lys_module* module = ly_ctx_get_module_implemented(ctx, "ietf-netconf");
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(module->parsed->features, i) {
        lysp_feature& feature = module->parsed->features[i];
        if (std::find(std::begin(kServedFeatures), std::end(kServedFeatures), feature.name) == std::end(kServedFeatures))
            feature.flags &= ~LYS_FENABLED;
    }
}

// Where libyuma-base keeps the RFC 5277 modules, beside the IETF directory.
constexpr const char* kNotificationModuleDirs[] = {"ietf-derived", "netconfcentral"};

}  // namespace

std::vector<std::string> data_modules() { return {"ietf-netconf-acm"}; }

ly_ctx* build_context(const Options& options) {
    ly_ctx* ctx = nullptr;
    if (ly_ctx_new(options.ietf_yang_dir.c_str(), LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx) != LY_SUCCESS)
        throw ServerError("cannot create the schema context with " + options.ietf_yang_dir);
    // The RFC 5277 modules (notifications, nc-notifications) and what they
    // import lie beside the IETF ones in Debian's libyuma-base.
    for (const char* sibling : kNotificationModuleDirs)
        ly_ctx_set_searchdir(ctx, (options.ietf_yang_dir + "/../" + sibling).c_str());
    const auto load = [&](const char* name, const char** features) {
        if (!ly_ctx_load_module(ctx, name, nullptr, features)) {
            const std::string detail = ly_errmsg(ctx) ? ly_errmsg(ctx) : "not found";
            ly_ctx_destroy(ctx);
            throw ServerError(std::string("cannot load YANG module ") + name + ": " + detail);
        }
    };
    // Every feature of ietf-netconf is compiled, so that every operation and
    // parameter of the protocol parses and the daemon answers those it does
    // not serve with operation-not-supported (libnetconf2 would answer an
    // unknown element with operation-failed); the server withholds them from
    // being announced once the context is complete (withhold_features()).
    const char* netconf_features[] = {"*", nullptr};
    load("ietf-netconf", netconf_features);
    load("ietf-netconf-monitoring", nullptr);
    load("ietf-netconf-with-defaults", nullptr);
    for (const std::string& name : data_modules()) load(name.c_str(), nullptr);
    // libyang warns that a "when" of ietf-netconf-notifications names a node
    // it does not find; the daemon fills those leaves itself and never
    // validates its events against it.
    const LY_LOG_LEVEL level = ly_log_level(LY_LLERR);
    for (const char* name : {"notifications", "nc-notifications", "ietf-netconf-notifications"}) load(name, nullptr);
    ly_log_level(level);
    if (lys_parse_mem(ctx, kDaemonModuleText, LYS_IN_YANG, nullptr) != LY_SUCCESS) {
        ly_ctx_destroy(ctx);
        throw ServerError("cannot load the daemon's YANG module");
    }
    return ctx;
}

namespace {

// The <hello> of libnetconf2 lists only YANG 1.0 modules (YANG 1.1 modules
// are announced through ietf-yang-library). Clients look for the served
// models in <hello> all the same, so these are announced there as well.
void announce_module(ly_ctx* ctx, const char* name) {
    const lys_module* module = ly_ctx_get_module_implemented(ctx, name);
    if (!module || module->parsed->version != LYS_VERSION_1_1) return;
    std::string capability = std::string(module->ns) + "?module=" + module->name;
    if (module->revision) capability += std::string("&revision=") + module->revision;
    std::string features;
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(module->parsed->features, i) {
        const lysp_feature& feature = module->parsed->features[i];
        if (feature.flags & LYS_FENABLED) features += (features.empty() ? "" : ",") + std::string(feature.name);
    }
    if (!features.empty()) capability += "&features=" + features;
    nc_server_set_capability(capability.c_str());
}

// ---- SSH --------------------------------------------------------------------

// Creates the host key (ECDSA P-256) when the file does not exist. Only the
// owner can ever read it: the file is made under umask 077, then renamed into
// place. (Runs before any thread, so the process-wide umask is ours.)
void ensure_host_key(const std::string& path) {
    struct stat st{};
    if (::stat(path.c_str(), &st) == 0) return;
    const auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) make_directories(path.substr(0, slash));
    ssh_key key = nullptr;
    if (ssh_pki_generate(SSH_KEYTYPE_ECDSA_P256, 256, &key) != SSH_OK) throw ServerError("cannot generate an SSH host key");
    const std::string temp = path + ".new";
    const mode_t old_mask = ::umask(0077);
    const int rc = ssh_pki_export_privkey_file(key, nullptr, nullptr, nullptr, temp.c_str());
    ::umask(old_mask);
    ssh_key_free(key);
    if (rc != SSH_OK || ::rename(temp.c_str(), path.c_str()) != 0) {
        ::unlink(temp.c_str());
        throw ServerError("cannot write the SSH host key " + path);
    }
    sync_directory_of(path);
    print_log(nullptr, NC_VERB_WARNING, ("generated SSH host key " + path).c_str());
}

int host_key_callback(const char*, void* user_data, char** privkey_path, char**, NC_SSH_KEY_TYPE*) {
    *privkey_path = strdup(static_cast<const std::string*>(user_data)->c_str());
    return *privkey_path ? 0 : 1;
}

bool same_text(const std::string& a, const char* b) {
    // Compares without an early exit on the first difference.
    const std::size_t n = std::strlen(b);
    unsigned char diff = a.size() == n ? 0 : 1;
    for (std::size_t i = 0; i < n; ++i) diff |= static_cast<unsigned char>(a[i % (a.size() + 1)] ^ b[i]);
    return diff == 0;
}

int password_callback(const nc_session* session, const char* password, void* user_data) {
    const auto& users = *static_cast<const std::vector<User>*>(user_data);
    const char* name = nc_session_get_username(session);
    for (const User& user : users) {
        if (!name || user.name != name) continue;
        if (!user.password.empty() && same_text(user.password, password)) return 0;
        if (!user.password_hash.empty()) {
            auto data = std::make_unique<crypt_data>();
            const char* hash = crypt_r(password, user.password_hash.c_str(), data.get());
            if (hash && hash[0] != '*' && same_text(user.password_hash, hash)) return 0;
        }
    }
    return 1;
}

void configure_ssh(const Options& options, const std::string& host_key, const std::vector<User>& users) {
    ensure_host_key(host_key);
    int methods = 0;
    for (const User& user : users) {
        if (!user.password.empty() || !user.password_hash.empty()) methods |= NC_SSH_AUTH_PASSWORD;
        for (const std::string& key : user.authorized_keys) {
            ssh_key parsed = nullptr;
            if (ssh_pki_import_pubkey_file(key.c_str(), &parsed) != SSH_OK)
                throw ServerError("user " + user.name + ": cannot read the public key " + key);
            ssh_key_free(parsed);
            if (nc_server_ssh_add_authkey_path(key.c_str(), user.name.c_str()) != 0)
                throw ServerError("user " + user.name + ": cannot use the public key " + key);
            methods |= NC_SSH_AUTH_PUBLICKEY;
        }
    }
    if (!methods) print_log(nullptr, NC_VERB_WARNING, "no SSH users are configured: nobody can log in over SSH");
    nc_server_ssh_set_hostkey_clb(host_key_callback, const_cast<std::string*>(&host_key), nullptr);
    nc_server_ssh_set_passwd_auth_clb(password_callback, const_cast<std::vector<User>*>(&users), nullptr);
    const Endpoint& endpoint = *options.ssh;
    if (nc_server_add_endpt(kSshEndpoint, NC_TI_LIBSSH) || nc_server_ssh_endpt_add_hostkey(kSshEndpoint, kHostKeyName, -1) ||
        nc_server_ssh_endpt_set_auth_methods(kSshEndpoint, methods ? methods : NC_SSH_AUTH_PASSWORD) ||
        nc_server_endpt_set_address(kSshEndpoint, endpoint.address.c_str()) ||
        nc_server_endpt_set_port(kSshEndpoint, endpoint.port))
        throw ServerError("cannot listen for SSH on " + endpoint.address + ":" + std::to_string(endpoint.port));
}

// The name of an account; its number when it has none.
std::string account_name(uid_t uid) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(4096);
    if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found) return found->pw_name;
    return std::to_string(uid);
}

// ---- sessions ---------------------------------------------------------------

TerminationReason termination_reason(const nc_session* session) {
    switch (nc_session_get_term_reason(session)) {
    case NC_SESSION_TERM_CLOSED:
        return TerminationReason::Closed;
    case NC_SESSION_TERM_KILLED:
        return TerminationReason::Killed;
    case NC_SESSION_TERM_DROPPED:
        return TerminationReason::Dropped;
    case NC_SESSION_TERM_TIMEOUT:
        return TerminationReason::Timeout;
    case NC_SESSION_TERM_BADHELLO:
        return TerminationReason::BadHello;
    default:
        return TerminationReason::Other;
    }
}

// A set of sessions polled together. A session leaves the set, the registry
// and the lock when it ends.
class SessionSet {
public:
    explicit SessionSet(detail::Service& service) : service_(service), ps_(nc_ps_new()) {
        if (!ps_) throw ServerError("out of memory");
    }
    ~SessionSet() {
        clear();
        nc_ps_free(ps_);
    }
    // Frees every session (their subscriptions end first).
    void clear() {
        for (int i = nc_ps_session_count(ps_) - 1; i >= 0; --i)
            service_.notifications.session_ended(nc_session_get_id(nc_ps_get_session(ps_, i)), TerminationReason::Other, 0);
        nc_ps_clear(ps_, 1, nullptr);
    }
    SessionSet(const SessionSet&) = delete;
    SessionSet& operator=(const SessionSet&) = delete;

    // Takes the outcome of libnetconf2's <hello> exchange (`hello`,
    // `session`) in the thread that ran it: a new session joins the set and
    // the registry. False when none did. `user`: the account of a session on
    // descriptors (libnetconf2 2.0 drops the one nc_accept_inout gets); SSH
    // sessions come with theirs.
    bool admit(NC_MSG_TYPE hello, nc_session* session, detail::Transport transport, std::string user = {}) {
        if (hello == NC_MSG_BAD_HELLO) service_.sessions.bad_hello();
        if (hello != NC_MSG_HELLO) return false;
        if (transport == detail::Transport::Ssh) {
            detail::ssh_hello_done(nc_session_get_version(session) != 0, nc_session_get_id(session));
            if (const char* name = nc_session_get_username(session)) user = name;
        }
        service_.sessions.add(session, transport, user);
        if (nc_ps_add_session(ps_, session) == 0) {
            const char* host = nc_session_get_host(session);
            service_.notifications.session_started(nc_session_get_id(session), user, host ? host : "");
            return true;
        }
        service_.sessions.remove(session);
        nc_session_free(session, nullptr);
        return false;
    }

    // Serves one event (an RPC, a new SSH channel, a session's end).
    // Returns false when there was none; `ended` is the session that ended,
    // for the caller to free.
    bool poll(nc_session*& ended) {
        nc_session* session = nullptr;
        ended = nullptr;
        const int result = nc_ps_poll(ps_, 0, &session);
        if (result & (NC_PSPOLL_NOSESSIONS | NC_PSPOLL_TIMEOUT)) return false;
        if (result & NC_PSPOLL_SSH_CHANNEL) {
            nc_session* channel = nullptr;
            admit(nc_ps_accept_ssh_channel(ps_, &channel), channel, detail::Transport::Ssh);
        }
        if (session) service_.sessions.count(session, result);
        // A <create-subscription> is answered: its notifications may follow.
        if (session && (result & NC_PSPOLL_RPC)) service_.notifications.reply_sent(nc_session_get_id(session));
        service_.datastore.release_memory();
        if ((result & NC_PSPOLL_SESSION_TERM) && session) {
            std::lock_guard lock(end_mutex_);
            service_.sessions.remove(session);
            service_.datastore.session_ended(nc_session_get_id(session));
            service_.notifications.session_ended(nc_session_get_id(session), termination_reason(session),
                                                 nc_session_get_killed_by(session));
            nc_ps_del_session(ps_, session);
            ended = session;
        }
        // An error that concerns no session (a lock of libnetconf2's that
        // could not be taken) served nothing; asking again at once would spin.
        return session || !(result & NC_PSPOLL_ERROR);
    }

private:
    detail::Service& service_;
    nc_pollsession* ps_;
    std::mutex end_mutex_;
};

// How the threads serving SSH sessions (whose transport libnetconf2 owns)
// wait: nc_ps_poll with a timeout spins in steps of 100 us, so they poll
// without one and sleep while idle, longer the longer the sessions have been
// idle.
class IdleSleep {
public:
    // The kernel may stretch a sleep by the thread's timer slack (50 us by
    // default), which would dominate the short sleeps of a busy daemon.
    IdleSleep() { ::prctl(PR_SET_TIMERSLACK, 1000UL); }
    void activity() { idle_since_ = Clock::now(); }
    void wait() const {
        using namespace std::chrono;
        const auto idle = duration_cast<microseconds>(Clock::now() - idle_since_);
        std::this_thread::sleep_for(std::clamp(idle / 64, microseconds(10), microseconds(20000)));
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point idle_since_ = Clock::now();
};

// Sessions on descriptors the daemon owns: clients of the UNIX socket and
// the standard streams. What a client sends reaches libnetconf2 through the
// framing checks (FramedInputs) as whole messages; one thread sleeps in
// poll() until a message is there, then lets libnetconf2 read and serve it.
// libnetconf2 writes the replies straight to the client.
class DescriptorSessions {
public:
    explicit DescriptorSessions(detail::Service& service) : set_(service), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (wake_ < 0) throw ServerError("cannot create an event descriptor");
    }
    ~DescriptorSessions() {
        set_.clear();
        for (const auto& [session, descriptors] : sessions_) release(descriptors);
        ::close(wake_);
    }

    // Runs the <hello> exchange with the client on `in` and `out` (in the
    // calling thread) and adds its session. False when no session came of
    // it; the descriptors are closed then.
    bool accept(int in, int out, const std::string& user, detail::Transport transport) {
        Descriptors descriptors{-1, in, out, nullptr};
        descriptors.server_in = inputs_.add(in, descriptors.input);
        nc_session* session = nullptr;
        const NC_MSG_TYPE hello = descriptors.server_in < 0
                                      ? NC_MSG_ERROR
                                      : nc_accept_inout(descriptors.server_in, out, user.c_str(), &session);
        if (hello == NC_MSG_HELLO)
            inputs_.set_framing(descriptors.input, nc_session_get_version(session) != 0, nc_session_get_id(session));
        std::lock_guard lock(mutex_);
        if (!set_.admit(hello, session, transport, user)) {
            release(descriptors);
            return false;
        }
        sessions_.emplace(session, descriptors);
        wake();
        return true;
    }

    // Async-signal-safe.
    void wake() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto n = ::write(wake_, &one, sizeof one);
    }

    // Serves until `stop`, or until the last session ended when `until_empty`.
    void serve(const std::atomic<bool>& stop, bool until_empty) {
        std::vector<pollfd> fds;
        while (!stop.load(std::memory_order_relaxed)) {
            fds.assign(1, pollfd{wake_, POLLIN, 0});
            {
                std::lock_guard lock(mutex_);
                if (until_empty && sessions_.empty()) return;
                for (const auto& [session, descriptors] : sessions_)
                    fds.push_back(pollfd{descriptors.server_in, POLLIN, 0});
            }
            if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) throw ServerError("poll failed");
            if (fds[0].revents) {
                // A session was added or killed elsewhere: serve until
                // nothing is left to do.
                std::uint64_t count;
                [[maybe_unused]] const auto n = ::read(wake_, &count, sizeof count);
                while (serve_one()) {
                }
                continue;
            }
            // One event per readable session. Asking for more would cost
            // the 100 us nc_ps_poll sleeps when it finds nothing.
            std::size_t events = 0;
            for (std::size_t i = 1; i < fds.size(); ++i) events += fds[i].revents != 0;
            for (std::size_t i = 0; i < events && serve_one(); ++i) {
            }
        }
    }

private:
    struct Descriptors {
        int server_in;  // what libnetconf2 reads: the client's whole messages
        int client_in;
        int client_out;
        detail::FramedInputs::Handle input;
    };

    // libnetconf2 leaves the descriptors of such sessions open.
    void release(const Descriptors& descriptors) {
        if (descriptors.server_in >= 0) {
            inputs_.remove(descriptors.input);
            ::close(descriptors.server_in);
        }
        ::close(descriptors.client_in);
        if (descriptors.client_out != descriptors.client_in) ::close(descriptors.client_out);
    }

    bool serve_one() {
        nc_session* ended = nullptr;
        if (!set_.poll(ended)) return false;
        if (ended) {
            std::optional<Descriptors> descriptors;
            {
                std::lock_guard lock(mutex_);
                if (const auto it = sessions_.find(ended); it != sessions_.end()) {
                    descriptors = it->second;
                    sessions_.erase(it);
                }
            }
            nc_session_free(ended, nullptr);
            if (descriptors) release(*descriptors);
        }
        return true;
    }

    detail::FramedInputs inputs_;
    SessionSet set_;
    int wake_;
    std::mutex mutex_;
    std::unordered_map<nc_session*, Descriptors> sessions_;
};

// The UNIX socket: bound and listening with mode 0600 before anyone can
// connect.
class UnixListener {
public:
    explicit UnixListener(std::string path) : path_(std::move(path)) {
        sockaddr_un addr{};
        if (path_.size() >= sizeof addr.sun_path) throw ServerError("the UNIX socket path is too long: " + path_);
        const auto slash = path_.rfind('/');
        if (slash != std::string::npos && slash > 0) make_directories(path_.substr(0, slash));
        // A socket left by a killed daemon would make the bind fail.
        struct stat st{};
        if (::lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path_.c_str());
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
        const mode_t old_mask = ::umask(0177);
        const bool bound = fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        ::umask(old_mask);
        if (!bound || ::listen(fd_, 64) != 0) {
            const std::string reason = std::strerror(errno);
            if (fd_ >= 0) ::close(fd_);
            throw ServerError("cannot listen on the UNIX socket " + path_ + ": " + reason);
        }
    }
    ~UnixListener() {
        ::close(fd_);
        ::unlink(path_.c_str());
    }

    // A connected client, or -1 after `timeout_ms` without one.
    int accept(int timeout_ms) const {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) <= 0) return -1;
        return ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    }

private:
    std::string path_;
    int fd_ = -1;
};

// The account of the process on the other end of a UNIX socket.
std::string peer_user(int fd) {
    ucred cred{};
    socklen_t size = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return {};
    return account_name(cred.uid);
}

}  // namespace

void detail::log_line(NC_VERB_LEVEL level, std::uint32_t session, const std::string& text) {
    print_line(level, session, text.c_str());
}

struct Server::Impl {
    Options options;
    std::string host_key;
    detail::Service service;
    std::atomic<bool> stopping{false};
    bool initialised = false;  // nc_server_init succeeded
    // Destroyed before libnetconf2 is.
    std::unique_ptr<DescriptorSessions> descriptors;
    std::unique_ptr<SessionSet> ssh_sessions;
    std::unique_ptr<UnixListener> unix_listener;

    Impl(const Options& opts, Datastore& datastore, Notifications& notifications)
        : options(opts),
          host_key(opts.host_key_path()),
          service{datastore, datastore.context(), {}, {}, detail::Nacm(opts.superusers), notifications} {}

    ~Impl() {
        service.notifications.on_sent(nullptr);
        unix_listener.reset();
        descriptors.reset();
        ssh_sessions.reset();
        if (initialised) nc_server_destroy();
    }

    void ssh_worker() {
        IdleSleep sleep;
        nc_session* ended = nullptr;
        while (!stopping.load(std::memory_order_relaxed)) {
            if (ssh_sessions->poll(ended)) {
                if (ended) nc_session_free(ended, nullptr);
                sleep.activity();
            } else {
                sleep.wait();
            }
        }
        nc_thread_destroy();
    }

    void ssh_acceptor() {
        while (!stopping.load(std::memory_order_relaxed)) {
            nc_session* session = nullptr;
            const NC_MSG_TYPE hello = nc_accept(200, &session);
            ssh_sessions->admit(hello, session, detail::Transport::Ssh);
        }
        nc_thread_destroy();
    }

    void unix_acceptor() {
        while (!stopping.load(std::memory_order_relaxed)) {
            const int fd = unix_listener->accept(200);
            if (fd < 0) continue;
            descriptors->accept(fd, fd, peer_user(fd), detail::Transport::UnixSocket);
        }
    }

    int serve_stdio() {
        if (!descriptors->accept(STDIN_FILENO, STDOUT_FILENO, account_name(::geteuid()),
                                 detail::Transport::StandardStreams)) {
            print_log(nullptr, NC_VERB_ERROR, "no NETCONF session on the standard streams");
            return 1;
        }
        descriptors->serve(stopping, true);
        return 0;
    }

    int serve_endpoints() {
        std::vector<std::thread> threads;
        if (unix_listener) threads.emplace_back([this] { unix_acceptor(); });
        if (ssh_sessions) {
            threads.emplace_back([this] { ssh_acceptor(); });
            for (unsigned i = 0; i < options.workers; ++i) threads.emplace_back([this] { ssh_worker(); });
        }
        descriptors->serve(stopping, false);
        for (auto& t : threads) t.join();
        return 0;
    }
};

Server::Server(const Options& options, Datastore& datastore, Notifications& notifications)
    : impl_(std::make_unique<Impl>(options, datastore, notifications)) {
    g_verbosity = options.verbosity;
    nc_set_print_clb_session(print_log);
    nc_verbosity(static_cast<NC_VERB_LEVEL>(std::min(options.verbosity, 3)));
    Impl& impl = *impl_;
    try {
        // The datastore has loaded the data model: the context is complete.
        withhold_features(impl.service.context);
        detail::install_operations(impl.service);
        if (nc_server_init(impl.service.context) != 0) throw ServerError("cannot initialise the NETCONF server");
        detail::refuse_unserved_operations(impl.service);
        impl.initialised = true;
        announce_module(impl.service.context, datastore.model_name().c_str());
        announce_module(impl.service.context, detail::kDaemonModule);
        nc_server_set_capab_withdefaults(NC_WD_EXPLICIT, NC_WD_ALL | NC_WD_ALL_TAG | NC_WD_TRIM);
        nc_server_set_capability("urn:ietf:params:netconf:capability:notification:1.0");
        nc_server_set_capability("urn:ietf:params:netconf:capability:interleave:1.0");
        notifications.on_sent([this](std::uint32_t id) { impl_->service.sessions.count_notification(id); });
        // A client that does not say hello in time gives up its connection.
        nc_server_set_hello_timeout(60);
        impl.descriptors = std::make_unique<DescriptorSessions>(impl.service);
        impl.service.wake = [d = impl.descriptors.get()] { d->wake(); };
        if (options.ssh) {
            impl.ssh_sessions = std::make_unique<SessionSet>(impl.service);
            configure_ssh(options, impl.host_key, impl.options.users);
        }
        if (options.unix_enabled) impl.unix_listener = std::make_unique<UnixListener>(options.unix_socket_path());
    } catch (const std::system_error& e) {
        throw ServerError(e.what());
    } catch (const std::runtime_error& e) {
        if (dynamic_cast<const ServerError*>(&e)) throw;
        throw ServerError(e.what());
    }
}

Server::~Server() = default;

int Server::run() { return impl_->options.stdio ? impl_->serve_stdio() : impl_->serve_endpoints(); }

void Server::stop() {
    impl_->stopping.store(true);
    impl_->descriptors->wake();
}

}  // namespace tavrik::netconf
