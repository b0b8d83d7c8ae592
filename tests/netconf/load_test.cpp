// Several sessions editing at once: every edit is applied exactly once, and
// the running configuration, the appliance and the expected configuration
// agree at the end.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "netconf_client.hpp"
#include "tavrik/appliance.hpp"

namespace tavrik::netconf::test {
namespace {

constexpr int kSessions = 4;
constexpr int kEditsPerSession = 250;

std::string profile_name(int session, int edit) {
    return "s" + std::to_string(session) + "-" + std::to_string(edit);
}
std::string description(int session, int edit) {
    return "edit " + std::to_string(edit) + " of session " + std::to_string(session);
}

TEST(LoadTest, ConcurrentSessionsApplyEveryEditExactlyOnce) {
    Daemon daemon;
    daemon.start();
    std::vector<std::unique_ptr<Client>> clients;
    for (int s = 0; s < kSessions; ++s) {
        clients.push_back(daemon.connect());
        ASSERT_TRUE(clients.back());
    }

    const auto start = std::chrono::steady_clock::now();
    std::vector<int> failures(kSessions, 0);
    std::vector<std::string> first_error(kSessions);
    std::vector<std::thread> threads;
    for (int s = 0; s < kSessions; ++s) {
        threads.emplace_back([&, s] {
            for (int i = 0; i < kEditsPerSession; ++i) {
                const Reply reply = clients[s]->edit(
                    antivirus("<vsys><name>load</name><profiles><profile><name>" + profile_name(s, i) +
                              "</name><description>" + description(s, i) + "</description></profile></profiles></vsys>"));
                if (!reply.ok && failures[s]++ == 0)
                    first_error[s] = reply.errors.empty() ? "no reply" : reply.errors[0].message;
            }
        });
    }
    for (auto& t : threads) t.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d sessions x %d edits: %.0f edits/s\n", kSessions, kEditsPerSession,
                kSessions * kEditsPerSession / seconds);
    for (int s = 0; s < kSessions; ++s) EXPECT_EQ(failures[s], 0) << "session " << s << ": " << first_error[s];

    appliance::Configuration expected;
    for (int s = 0; s < kSessions; ++s)
        for (int i = 0; i < kEditsPerSession; ++i)
            expected.vsys["load"].profiles[profile_name(s, i)].description = description(s, i);

    Client& reader = *clients.front();
    const auto running = appliance::parse_configuration(reader.running());
    const auto platform = appliance::parse_configuration(reader.appliance_configuration());
    EXPECT_EQ(running.vsys.at("load").profiles.size(), std::size_t{kSessions * kEditsPerSession});
    EXPECT_EQ(appliance::differences(expected, running), std::vector<std::string>{});
    EXPECT_EQ(appliance::differences(expected, platform), std::vector<std::string>{});
    // Two lines per edit (the profile, its description), each delivered once.
    EXPECT_EQ(reader.lines_received(), std::uint64_t{2 * kSessions * kEditsPerSession});
}

}  // namespace
}  // namespace tavrik::netconf::test
