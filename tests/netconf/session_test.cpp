// tkav-netconfd through libnetconf2's client API and raw bytes, on its UNIX
// socket and on --stdio: what a library client would never send, sessions
// at once, a daemon killed while edits stream in. The operations as a client
// sees them are in ncclient_test.py.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
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

const std::string kGetConfig = "<get-config><source><running/></source></get-config>";

// Requests that do not parse against the model are answered by libnetconf2
// (operation-failed, with libyang's message); URLs as datastores (their
// feature is not announced) are known all the same, and not supported.
TEST_F(SessionTest, MalformedRequestsGetProtocolErrorsAndTheSessionGoesOn) {
    auto raw = RawSession::unix_socket(daemon.socket_path());
    ASSERT_TRUE(raw);
    raw->hello("1.1");
    const std::string url = "<url>file:///tmp/x</url>";
    const std::vector<std::pair<std::string, const char*>> cases = {
        {"<frobnicate/>", "operation-failed"},
        {"<edit-config><config/></edit-config>", "missing-element"},
        {"<get-config/>", "missing-element"},
        {"<kill-session/>", "missing-element"},
        {"<edit-config><target><running/></target><default-operation>sideways</default-operation><config/>"
         "</edit-config>",
         "operation-failed"},
        {"<delete-config><target><running/></target></delete-config>", "operation-failed"},
        {"<get><filter type=\"xpath\"/></get>", "missing-attribute"},
        {"<delete-config><target>" + url + "</target></delete-config>", "operation-not-supported"},
        {"<edit-config><target><candidate/></target>" + url + "</edit-config>", "operation-not-supported"},
        {"<copy-config><target>" + url + "</target><source><running/></source></copy-config>",
         "operation-not-supported"},
        {"<copy-config><target><running/></target><source>" + url + "</source></copy-config>",
         "operation-not-supported"},
        {"<validate><source>" + url + "</source></validate>", "operation-not-supported"},
    };
    for (const auto& [body, tag] : cases) {
        SCOPED_TRACE(body);
        const std::string reply = raw->rpc(body);
        EXPECT_EQ(count_elements(reply, "rpc-error"), 1u) << reply;
        EXPECT_EQ(element_text(reply, "error-tag"), tag) << reply;
    }
    EXPECT_EQ(count_elements(raw->rpc(kGetConfig), "data"), 1u);
}

// A client that breaks the framing loses its session, and only that one:
// another session keeps editing meanwhile, and the daemon stays up.
TEST_F(SessionTest, BrokenFramingEndsOnlyThatSession) {
    struct Editor {  // stopped however the test ends
        std::atomic<bool> stop{false}, refused{false};
        std::atomic<int> edits{0};
        std::thread thread;
        void join() {
            stop = true;
            if (thread.joinable()) thread.join();
        }
        ~Editor() { join(); }
    } editor;
    std::atomic<int>& edits = editor.edits;
    std::atomic<bool>& refused = editor.refused;
    editor.thread = std::thread([&] {
        for (int i = 0; !editor.stop; edits = ++i)
            if (!client->edit(profile_edit("e", "<description>edit " + std::to_string(i) + "</description>")).ok) {
                refused = true;
                return;
            }
    });
    struct Case {
        const char* what;
        const char* hello;  // base version offered first; null: none
        std::string bytes;
    };
    const std::vector<Case> cases = {
        {"non-numeric chunk size", "1.1", "\n#abc\n<rpc/>\n##\n"},
        {"chunk size 0", "1.1", "\n#0\n"},
        {"chunk size above 4294967295", "1.1", "\n#4294967296\n<rpc/>"},
        {"chunk size 2^64-1", "1.1", "\n#18446744073709551615\n<rpc/>"},
        {"end of chunks without a chunk", "1.1", "\n##\n"},
        {"a chunk longer than its size", "1.1", "\n#3\n<rpc/>\n##\n"},
        {"end-of-message framing after agreeing on chunks", "1.1", "<rpc/>]]>]]>"},
        {"garbage before the hello", nullptr,
         "\x01\x02garbage<hello xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><capabilities><capability>"
         "urn:ietf:params:netconf:base:1.1</capability></capabilities></hello>]]>]]>"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto raw = RawSession::unix_socket(daemon.socket_path());
        ASSERT_TRUE(raw);
        if (c.hello) raw->hello(c.hello);
        raw->write(c.bytes);
        EXPECT_TRUE(raw->ended());
    }

    // A message without its end marker holds up nobody, and is served once
    // the marker comes.
    auto slow = RawSession::unix_socket(daemon.socket_path());
    ASSERT_TRUE(slow);
    slow->hello("1.1");
    const std::string get = "<rpc xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" message-id=\"7\">" + kGetConfig +
                            "</rpc>";
    slow->write("\n#" + std::to_string(get.size()) + "\n" + get);
    const int before = edits;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (edits < before + 20 && !refused && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_GE(edits, before + 20) << "the other session stood still";
    slow->write("\n##\n");
    EXPECT_EQ(count_elements(slow->receive(), "data"), 1u);

    editor.join();
    EXPECT_FALSE(refused);
    EXPECT_EQ(element_text(client->running(), "description"), "edit " + std::to_string(edits - 1));
    EXPECT_TRUE(daemon.running());
}

// ietf-netconf-monitoring's statistics of sessions and hellos, and a
// session of the UNIX socket with its account.
TEST_F(SessionTest, MonitoringCountsTheSessions) {
    const std::string netconf_state = "<netconf-state xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\">";
    const auto statistic = [&](const char* name) {
        const Reply reply = client->get(netconf_state + "<statistics/></netconf-state>");
        return std::stoul(element_text(reply.data.value_or(""), name).value_or("0"));
    };
    const unsigned long bad_hellos = statistic("in-bad-hellos");
    const unsigned long sessions = statistic("in-sessions");
    const unsigned long dropped = statistic("dropped-sessions");

    auto bad = RawSession::unix_socket(daemon.socket_path());
    ASSERT_TRUE(bad);
    bad->write("<hello xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><capabilities/></hello>]]>]]>");
    EXPECT_TRUE(bad->ended());
    auto gone = RawSession::unix_socket(daemon.socket_path());  // leaves without <close-session>
    ASSERT_TRUE(gone);
    gone->hello("1.0");
    gone.reset();
    EXPECT_TRUE(daemon.connect()->close().ok);

    EXPECT_EQ(statistic("in-bad-hellos"), bad_hellos + 1);
    EXPECT_EQ(statistic("in-sessions"), sessions + 2);
    EXPECT_EQ(statistic("dropped-sessions"), dropped + 1);

    const Reply own = client->get(netconf_state + "<sessions><session><session-id>" + std::to_string(client->id()) +
                                  "</session-id></session></sessions></netconf-state>");
    EXPECT_EQ(count_elements(own.data.value_or(""), "session"), 1u);
    const std::string transport = element_text(own.data.value_or(""), "transport").value_or("");
    EXPECT_EQ(transport.substr(transport.find(':') + 1), "unix-socket");
    EXPECT_EQ(element_text(own.data.value_or(""), "username"), ::getpwuid(::geteuid())->pw_name);
}

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

TEST(SessionStartTest, OneStateDirectoryServesOneDaemon) {
    Daemon daemon;
    daemon.start();
    Daemon second(daemon.state_dir());
    EXPECT_FALSE(second.launch({"--unix-socket", daemon.state_dir() + "/second.sock"}));
    EXPECT_NE(daemon.stderr_text().find("is in use by another tkav-netconfd"), std::string::npos)
        << daemon.stderr_text();
    EXPECT_TRUE(daemon.connect()->get_config().data);  // the first one is unharmed
}

// --stdio: one session on the standard streams, as an sshd "netconf"
// subsystem runs it; the edit is committed to the state directory.
TEST(StdioTest, OneSessionOnTheStandardStreamsThenExit) {
    Daemon daemon;
    auto client = daemon.stdio_session();
    ASSERT_TRUE(client) << daemon.stderr_text();
    ASSERT_TRUE(client->edit(profile_edit("p1", "<description>over stdio</description>")).ok);
    EXPECT_EQ(element_text(client->appliance_configuration(), "description"), "over stdio");
    EXPECT_TRUE(client->close().ok);
    client.reset();
    EXPECT_EQ(daemon.wait_stdio(), 0) << daemon.stderr_text();

    daemon.start();
    EXPECT_EQ(element_text(daemon.connect()->running(), "description"), "over stdio");
}

// Next to a running daemon, --stdio relays the session to the daemon's
// socket: it shares the daemon's datastore and lock.
TEST(StdioTest, BesideARunningDaemonTheSessionIsTheDaemons) {
    Daemon daemon;
    daemon.start();
    auto local = daemon.connect();
    ASSERT_TRUE(local);
    auto relayed = daemon.stdio_session();
    ASSERT_TRUE(relayed);
    ASSERT_TRUE(relayed->lock().ok);
    const Reply denied = local->lock();
    EXPECT_EQ(denied.error().tag, "lock-denied");
    EXPECT_EQ(denied.error().session_id, std::to_string(relayed->id()));  // numbered by the daemon
    EXPECT_TRUE(relayed->close().ok);
    relayed.reset();
    EXPECT_EQ(daemon.wait_stdio(), 0);
    EXPECT_TRUE(local->lock().ok);  // the relayed session has ended in the daemon
}

// Broken framing on the standard streams ends that session: the --stdio
// daemon exits normally, and a relayed session leaves the daemon it was
// relayed to serving the others.
TEST(StdioTest, BrokenFramingEndsTheSessionOnly) {
    for (const bool beside_a_daemon : {false, true}) {
        SCOPED_TRACE(beside_a_daemon ? "relayed" : "own session");
        Daemon daemon;
        if (beside_a_daemon) daemon.start();
        auto raw = daemon.stdio_raw();
        ASSERT_TRUE(raw);
        raw->hello("1.1");
        raw->write("\n#abc\n<rpc/>\n##\n");
        EXPECT_TRUE(raw->ended());
        EXPECT_EQ(daemon.wait_stdio(), 0) << daemon.stderr_text();
        EXPECT_NE(daemon.stderr_text().find("invalid chunk size; the session ends"), std::string::npos)
            << daemon.stderr_text();
        if (beside_a_daemon) {
            EXPECT_TRUE(daemon.connect()->get_config().data);
        }
    }
}

// Sessions editing at once: every edit is applied exactly once, and the
// running configuration, the appliance and the expected configuration agree.
TEST_F(SessionTest, ConcurrentSessionsApplyEveryEditExactlyOnce) {
    constexpr int kSessions = 4, kEdits = 250;
    appliance::Configuration expected;
    std::vector<std::unique_ptr<Client>> clients;
    for (int s = 0; s < kSessions; ++s) {
        clients.push_back(daemon.connect());
        ASSERT_TRUE(clients.back());
        for (int i = 0; i < kEdits; ++i)
            expected.vsys["vs1"].profiles["s" + std::to_string(s) + "-" + std::to_string(i)].description =
                "edit " + std::to_string(i);
    }
    std::vector<int> failures(kSessions, 0);
    std::vector<std::thread> threads;
    for (int s = 0; s < kSessions; ++s)
        threads.emplace_back([&, s] {
            for (int i = 0; i < kEdits; ++i)
                failures[s] += !clients[s]->edit(profile_edit("s" + std::to_string(s) + "-" + std::to_string(i),
                                                              "<description>edit " + std::to_string(i) +
                                                                  "</description>")).ok;
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures, std::vector<int>(kSessions, 0));
    EXPECT_EQ(appliance::differences(expected, appliance::parse_configuration(client->running())),
              std::vector<std::string>{});
    EXPECT_EQ(appliance::differences(expected, appliance::parse_configuration(client->appliance_configuration())),
              std::vector<std::string>{});
    // Two lines per edit (the profile, its description), each delivered once.
    EXPECT_EQ(client->lines_received(), std::uint64_t{2 * kSessions * kEdits});
}

}  // namespace
}  // namespace tavrik::netconf::test
