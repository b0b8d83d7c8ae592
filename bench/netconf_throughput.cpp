// Edits per second of one session through libnetconf2's C client on the
// UNIX socket: edit-config of the running configuration, and the same change
// staged in the candidate and committed (edit-config + commit), side by side
// in one run on a configuration of N further profiles. Prints the figures;
// no goal is asserted, the machine decides.
//
//     netconf_throughput [edits] [--sync] [--profiles N]
#include <sys/prctl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "netconf_client.hpp"

using namespace tavrik::netconf::test;

int main(int argc, char* argv[]) {
    ::prctl(PR_SET_TIMERSLACK, 1000UL);
    int edits = 2000, profiles = 0;
    bool sync = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--sync") == 0)
            sync = true;
        else if (std::strcmp(argv[i], "--profiles") == 0 && i + 1 < argc)
            profiles = std::atoi(argv[++i]);
        else
            edits = std::atoi(argv[i]);
    }
    Daemon daemon;
    if (!daemon.launch({"--sync", sync ? "yes" : "no"})) {
        std::fprintf(stderr, "tkav-netconfd did not start:\n%s", daemon.stderr_text().c_str());
        return 1;
    }
    auto client = daemon.connect();
    if (!client) return 1;
    std::string others;
    for (int i = 0; i < profiles; ++i) others += "<profile><name>q" + std::to_string(i) + "</name></profile>";
    if (!client->edit(antivirus("<vsys><name>other</name><profiles>" + others + "</profiles></vsys>")).ok) return 1;

    // A profile whose description changes with every edit: one line each.
    const auto edit = [&](int i, const char* target) {
        return client->edit(antivirus("<vsys><name>bench</name><profiles><profile><name>p</name><description>d" +
                                      std::to_string(i) + "</description></profile></profiles></vsys>"),
                            target);
    };
    const auto measure = [&](const char* what, const std::function<Reply(int)>& change) -> double {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < edits; ++i) {
            const Reply reply = change(i);
            if (!reply.ok) {
                std::fprintf(stderr, "%s %d refused: %s\n", what, i,
                             reply.errors.empty() ? "" : reply.errors[0].message.c_str());
                return -1;
            }
        }
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::printf("tkav-netconfd: %d %s over the UNIX socket, one session, sync %s, %d more profiles: "
                    "%.0f/s (%.3f ms each)\n",
                    edits, what, sync ? "yes" : "no", profiles, edits / seconds, 1000 * seconds / edits);
        return seconds;
    };
    if (!edit(-1, "running").ok) return 1;
    const double direct = measure("edit-config of running", [&](int i) { return edit(i, "running"); });
    const double staged = measure("edit-config of candidate + commit", [&](int i) {
        const Reply reply = edit(edits + i, "candidate");
        return reply.ok ? client->commit() : reply;
    });
    if (direct < 0 || staged < 0) return 1;
    std::printf("a staged change costs %.1f times a direct edit\n", staged / direct);
    client.reset();
    return daemon.stop() == 0 ? 0 : 1;
}
