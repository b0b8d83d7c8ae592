// tkav-netconfd --stdio: one session on the standard streams, as an sshd
// "netconf" subsystem runs it.
#include <gtest/gtest.h>

#include "netconf_client.hpp"

namespace tavrik::netconf::test {
namespace {

TEST(StdioTest, OneSessionOnTheStandardStreamsThenExit) {
    Daemon daemon;
    auto client = daemon.stdio_session();
    ASSERT_TRUE(client) << daemon.stderr_text();
    const auto caps = client->capabilities();
    EXPECT_NE(std::find_if(caps.begin(), caps.end(),
                           [](const std::string& c) { return c.rfind(kModelNs, 0) == 0; }),
              caps.end());

    const std::string edit =
        antivirus("<vsys><name>vs1</name><profiles><profile><name>p1</name><description>over stdio</description>"
                  "</profile></profiles></vsys>");
    ASSERT_TRUE(client->edit(edit).ok);
    EXPECT_EQ(element_text(client->running(), "description"), "over stdio");
    EXPECT_EQ(element_text(client->appliance_configuration(), "description"), "over stdio");
    EXPECT_TRUE(client->lock().ok);

    EXPECT_TRUE(client->close().ok);
    client.reset();
    EXPECT_EQ(daemon.wait_stdio(), 0) << daemon.stderr_text();

    // The edit was committed: a daemon on the same state has it.
    daemon.start();
    auto again = daemon.connect();
    ASSERT_TRUE(again);
    EXPECT_EQ(element_text(again->running(), "description"), "over stdio");
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
    EXPECT_NE(relayed->id(), local->id());  // numbered by the daemon
    ASSERT_TRUE(relayed->lock().ok);
    const Reply denied = local->lock();
    EXPECT_EQ(denied.error().tag, "lock-denied");
    EXPECT_EQ(denied.error().session_id, std::to_string(relayed->id()));
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
            auto other = daemon.connect();
            ASSERT_TRUE(other);
            EXPECT_TRUE(other->get_config().data);
        }
    }
}

TEST(StdioTest, OneStateDirectoryServesOneDaemon) {
    Daemon daemon;
    daemon.start();
    Daemon second(daemon.state_dir());
    EXPECT_FALSE(second.launch({"--unix-socket", daemon.state_dir() + "/second.sock"}));
    EXPECT_NE(daemon.stderr_text().find("is in use by another tkav-netconfd"), std::string::npos)
        << daemon.stderr_text();
    auto client = daemon.connect();  // the first one is unharmed
    ASSERT_TRUE(client);
    EXPECT_TRUE(client->get_config().data);
}

}  // namespace
}  // namespace tavrik::netconf::test
