// tkav-netconfd through libnetconf2's client API on its UNIX socket: a
// daemon killed while edits stream in, and a state it cannot read. The
// operations as a client sees them are in ncclient_test.py.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "netconf_client.hpp"
#include "tavrik/appliance.hpp"

namespace tavrik::netconf::test {
namespace {

using SessionTest = DaemonTest;

// Profile names of vsys vs1 in a configuration text (the running one or the
// appliance's).
std::set<std::string> profile_names(const std::string& xml) {
    std::set<std::string> names;
    const auto config = appliance::parse_configuration(xml);
    if (const auto vsys = config.vsys.find("vs1"); vsys != config.vsys.end())
        for (const auto& [name, profile] : vsys->second.profiles) names.insert(name);
    return names;
}

// The appliance holds what the running configuration says, but for the
// description the module cuts at its line buffer ("description " and 499
// bytes): inside the "é", whose first byte the reply shows as U+FFFD.
void expect_appliance_agrees(Client& client, const std::string& cut, const std::string& shown) {
    auto expected = appliance::parse_configuration(client.running());
    for (auto& [name, vsys] : expected.vsys)
        for (auto& [pname, profile] : vsys.profiles)
            if (profile.description == cut) profile.description = shown;
    const auto differences =
        appliance::differences(expected, appliance::parse_configuration(client.appliance_configuration()));
    EXPECT_TRUE(differences.empty()) << differences.front();
}

// A client creates and deletes profiles while the daemon is killed at random
// moments; after each restart on the same state directory every
// acknowledged edit is there exactly once (a create replayed twice would
// stop the start), the one in flight at most, and the appliance agrees with
// the running configuration. Some descriptions are cut by the module inside
// a UTF-8 character. At the end, the journal cut inside its last record.
TEST_F(SessionTest, KilledAtRandomMomentsTheDaemonKeepsEveryAcknowledgedEditOnce) {
    const std::string cut = std::string(498, 'a') + "\xc3\xa9";
    const std::string shown = std::string(498, 'a') + "\xef\xbf\xbd";
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::set<std::string> expected;
    int next = 0;
    const auto edit = [&](std::set<std::string>& after) {
        after = expected;
        const int i = next++;
        if (i % 5 == 4 && !expected.empty()) {
            after.erase(*expected.begin());
            return client->edit(profile_edit(*expected.begin(), "", "delete"));
        }
        const std::string name = "e" + std::to_string(i);
        after.insert(name);
        const std::string description = i % 3 == 0 ? cut : "edit " + std::to_string(i);
        return client->edit(profile_edit(name, "<description>" + description + "</description>", "create"));
    };
    const auto restart = [&] {
        client.reset();
        daemon.start();
        client = daemon.connect();
        ASSERT_TRUE(client);
    };
    for (int kill = 0; kill < 25; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        const auto delay = std::chrono::milliseconds(std::uniform_int_distribution<int>(2, 60)(random));
        std::thread killer([&] {
            std::this_thread::sleep_for(delay);
            daemon.kill();
        });
        std::set<std::string> in_flight;
        while (edit(in_flight).ok) expected = in_flight;
        killer.join();
        restart();
        const std::set<std::string> names = profile_names(client->running());
        ASSERT_TRUE(names == expected || names == in_flight) << "edit " << next - 1 << " was in flight";
        expected = names;
        expect_appliance_agrees(*client, cut, shown);
    }
    EXPECT_GE(next, 100);

    // A record written in part: discarded at the start, with a warning.
    const std::string journal = daemon.state_dir() + "/journal";
    std::set<std::string> before;
    do {
        before = expected;
        ASSERT_TRUE(edit(expected).ok);
    } while (std::filesystem::file_size(journal) <= 16);  // not just compacted
    ASSERT_EQ(daemon.stop(), 0);
    std::filesystem::resize_file(journal, std::filesystem::file_size(journal) - 5);
    restart();
    EXPECT_NE(daemon.stderr_text().find("journal: offset "), std::string::npos) << daemon.stderr_text();
    EXPECT_NE(daemon.stderr_text().find("is torn"), std::string::npos);
    EXPECT_EQ(profile_names(client->running()), before);
    expect_appliance_agrees(*client, cut, shown);
}

TEST(SessionStartTest, AnUnreadableStateStopsTheStartAndIsKept) {
    Daemon daemon;
    const std::string journal = daemon.state_dir() + "/journal";
    std::ofstream(journal) << "not a journal";
    EXPECT_FALSE(daemon.launch());
    EXPECT_NE(daemon.stderr_text().find(journal + ": offset 0: "), std::string::npos) << daemon.stderr_text();
    std::ifstream in(journal);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "not a journal");
}

}  // namespace
}  // namespace tavrik::netconf::test
