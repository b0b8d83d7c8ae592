// Edits per second of one session through libnetconf2's C client on the
// UNIX socket. Prints the figure; the goal (2,000 edits/s) is not asserted,
// the machine decides.
//
//     netconf_throughput [edits] [--sync]
#include <sys/prctl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "netconf_client.hpp"

using namespace tavrik::netconf::test;

int main(int argc, char* argv[]) {
    ::prctl(PR_SET_TIMERSLACK, 1000UL);
    const int edits = argc > 1 ? std::atoi(argv[1]) : 2000;
    const bool sync = argc > 2 && std::strcmp(argv[2], "--sync") == 0;
    Daemon daemon;
    if (!daemon.launch({"--sync", sync ? "yes" : "no"})) {
        std::fprintf(stderr, "tkav-netconfd did not start:\n%s", daemon.stderr_text().c_str());
        return 1;
    }
    auto client = daemon.connect();
    if (!client) return 1;
    // A profile whose description changes with every edit: one line each.
    const auto edit = [&](int i) {
        return client->edit(antivirus("<vsys><name>bench</name><profiles><profile><name>p</name><description>d" +
                                      std::to_string(i) + "</description></profile></profiles></vsys>"));
    };
    if (!edit(-1).ok) return 1;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < edits; ++i) {
        const Reply reply = edit(i);
        if (!reply.ok) {
            std::fprintf(stderr, "edit %d refused: %s\n", i, reply.errors.empty() ? "" : reply.errors[0].message.c_str());
            return 1;
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("tkav-netconfd: %d edit-config over the UNIX socket, one session, sync %s: %.0f edits/s (%.3f ms each)\n",
                edits, sync ? "yes" : "no", edits / seconds, 1000 * seconds / edits);
    client.reset();
    return daemon.stop() == 0 ? 0 : 1;
}
