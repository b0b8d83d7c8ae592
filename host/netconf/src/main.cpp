// tkav-netconfd: serves the antivirus configuration module over NETCONF
// (SSH, a UNIX socket, or one session on stdin/stdout) with the embedded
// simulated appliance as the platform.
#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "tavrik/atomic_file.hpp"
#include "relay.hpp"
#include "service.hpp"

#include "tavrik/netconf/datastore.hpp"
#include "tavrik/netconf/options.hpp"
#include "tavrik/netconf/server.hpp"

namespace {

tavrik::netconf::Server* g_server = nullptr;

extern "C" void on_signal(int) {
    if (g_server) g_server->stop();
}

}  // namespace

int main(int argc, char* argv[]) {
    using namespace tavrik::netconf;
    // Large buffers (a request of thousands of entries, its text and the
    // replies) are mapped and returned to the system when freed. glibc would
    // otherwise raise this threshold after the first such buffer and take
    // them from the heap, where the long-lived configuration made meanwhile
    // pins their pages.
    ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    Options options;
    try {
        options = parse_options(argc, argv);
    } catch (const OptionsError& e) {
        std::fprintf(stderr, "tkav-netconfd: %s\n", e.what());
        return 2;
    }
    if (options.help) {
        std::fputs(usage("tkav-netconfd").c_str(), stdout);
        return 0;
    }
    if (options.version) {
        std::puts("tkav-netconfd " TKAV_VERSION);
        return 0;
    }
    std::signal(SIGPIPE, SIG_IGN);
    if (options.stdio) {
        if (const auto status = relay_stdio(options.unix_socket_path())) return *status;
    }
    try {
        // One schema context for the sessions, the running configuration and
        // the edits; it outlives both.
        const std::unique_ptr<ly_ctx, void (*)(ly_ctx*)> context(build_context(options), ly_ctx_destroy);
        // Outlives the datastore it listens to and the server.
        Notifications notifications(context.get());
        DatastoreOptions store;
        store.module_path = options.module_path;
        store.yang_dir = options.yang_dir;
        store.state_dir = options.state_dir;
        store.sync_writes = options.sync_writes;
        store.context = context.get();
        store.data_modules = data_modules();
        store.boot_from_startup = options.boot_from_startup;
        store.listener = &notifications;
        store.log = [](const std::string& text) { detail::log_line(NC_VERB_WARNING, 0, text); };
        Datastore datastore(store);
        Server server(options, datastore, notifications);
        g_server = &server;
        struct sigaction action {};
        action.sa_handler = on_signal;
        sigemptyset(&action.sa_mask);
        sigaction(SIGTERM, &action, nullptr);
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGHUP, &action, nullptr);
        // Whoever waits for the pid file may connect once it is there.
        if (!options.pid_file.empty())
            tavrik::write_file_atomically(options.pid_file, std::to_string(::getpid()) + "\n", 0644, false);
        const int status = server.run();
        g_server = nullptr;
        if (!options.pid_file.empty()) ::unlink(options.pid_file.c_str());
        return status;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tkav-netconfd: %s\n", e.what());
        return 1;
    }
}
