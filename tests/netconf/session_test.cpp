// tkav-netconfd through libnetconf2's client API on its UNIX socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "client.hpp"

namespace tavrik::netconf::test {
namespace {

const std::string kProfile = antivirus(R"(
  <vsys><name>vs1</name><profiles><profile>
    <name>p1</name>
    <description>office traffic</description>
    <collect-attack-evidence-enable>true</collect-attack-evidence-enable>
    <detect><protocol-type>http</protocol-type>
      <detect-configuration><direction>both</direction><action>block</action></detect-configuration></detect>
    <exception-application><application-name>dropbox</application-name>
      <application-action>block</application-action></exception-application>
    <exception-signature-id>1001</exception-signature-id>
    <exception-signature><id>2002</id><action>block-source-ip</action><timeout>60</timeout></exception-signature>
    <whitelists>
      <match-rules><match-rule><scope>url</scope><type>prefix</type><value>www.example.com/d/*</value></match-rule></match-rules>
      <source-address>192.0.2.10</source-address>
      <source-address-range><start-address>192.0.2.100</start-address><end-address>192.0.2.120</end-address></source-address-range>
      <destination-address>198.51.100.7</destination-address>
    </whitelists>
  </profile></profiles></vsys>)");

std::string profile_edit(std::string_view profile_body, std::string_view profile_attributes = {}) {
    return antivirus("<vsys><name>vs1</name><profiles><profile" + std::string(profile_attributes) + ">" +
                     std::string(profile_body) + "</profile></profiles></vsys>");
}

constexpr const char* kNcOperation = " xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=";

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon.start();
        client = daemon.connect();
        ASSERT_TRUE(client) << daemon.stderr_text();
    }

    Daemon daemon;
    std::unique_ptr<Client> client;
};

TEST_F(SessionTest, HelloAnnouncesTheModelAndTheCapabilitiesServed) {
    const auto caps = client->capabilities();
    const auto has = [&](std::string_view prefix) {
        return std::any_of(caps.begin(), caps.end(), [&](const std::string& c) { return c.rfind(prefix, 0) == 0; });
    };
    EXPECT_TRUE(has(std::string(kModelNs) + "?module=tavrik-antivirus&revision="));
    EXPECT_TRUE(has("urn:ietf:params:netconf:capability:writable-running:1.0"));
    EXPECT_TRUE(has("urn:ietf:params:netconf:capability:validate:1.1"));
    EXPECT_TRUE(has("urn:ietf:params:netconf:capability:rollback-on-error:1.0"));
    EXPECT_TRUE(has("urn:ietf:params:netconf:capability:yang-library:1.1"));
    EXPECT_FALSE(has("urn:ietf:params:netconf:capability:candidate"));
}

TEST_F(SessionTest, AnEditReachesTheRunningConfigurationAndTheAppliance) {
    ASSERT_TRUE(client->edit(kProfile).ok);
    const std::string running = client->running();
    EXPECT_EQ(element_text(running, "description"), "office traffic");
    EXPECT_EQ(element_text(running, "application-name"), "dropbox");
    EXPECT_EQ(element_text(running, "exception-signature-id"), "1001");
    EXPECT_EQ(element_text(running, "timeout"), "60");
    EXPECT_EQ(element_text(running, "value"), "www.example.com/d/*");
    EXPECT_EQ(element_text(running, "end-address"), "192.0.2.120");

    const std::string appliance = client->appliance_configuration();
    EXPECT_EQ(element_text(appliance, "description"), "office traffic");
    EXPECT_EQ(element_text(appliance, "destination-address"), "198.51.100.7");

    const Reply lines = client->get(appliance_filter("<received-line/>"));
    ASSERT_TRUE(lines.data);
    EXPECT_EQ(element_text(*lines.data, "line"), "profile type av name p1");
    EXPECT_GE(count_elements(*lines.data, "received-line"), 8u);
}

TEST_F(SessionTest, DeleteRemovesFromBothAndNamesWhatIsAbsent) {
    ASSERT_TRUE(client->edit(kProfile).ok);
    ASSERT_TRUE(client->edit(profile_edit("<name>p1</name>", std::string(kNcOperation) + "\"delete\"")).ok);
    EXPECT_EQ(count_elements(client->running(), "profile"), 0u);
    EXPECT_EQ(count_elements(client->appliance_configuration(), "profile"), 0u);

    const Reply again = client->edit(profile_edit("<name>p1</name>", std::string(kNcOperation) + "\"delete\""));
    EXPECT_EQ(again.error().tag, "data-missing");
    EXPECT_TRUE(client->edit(profile_edit("<name>p1</name>", std::string(kNcOperation) + "\"remove\"")).ok);

    // A removed vsys takes everything in it from the appliance.
    ASSERT_TRUE(client->edit(kProfile).ok);
    ASSERT_TRUE(client->edit(antivirus("<vsys" + std::string(kNcOperation) + "\"delete\"><name>vs1</name></vsys>")).ok);
    EXPECT_EQ(count_elements(client->running(), "vsys"), 0u);
    EXPECT_EQ(count_elements(client->appliance_configuration(), "vsys"), 0u);
}

// Per-node operations and default operations, as a client sees their
// outcome: the error tag, or the descriptions left in the running
// configuration.
TEST_F(SessionTest, EditOperations) {
    const std::string op = kNcOperation;
    struct Case {
        const char* what;
        std::string edit;
        const char* default_operation;
        const char* tag;          // expected error tag; empty: ok
        const char* description;  // expected description of p1 afterwards; "" none
    };
    const std::vector<Case> cases = {
        {"create existing", profile_edit("<name>p1</name>", op + "\"create\""), "merge", "data-exists", "one"},
        {"merge", profile_edit("<name>p1</name><description>two</description>"), "merge", "", "two"},
        {"replace drops the rest", profile_edit("<name>p1</name>", op + "\"replace\""), "merge", "", ""},
        {"default none", profile_edit("<name>p1</name><description" + op + "\"merge\">three</description>"), "none",
         "", "three"},
        {"delete leaf", profile_edit("<name>p1</name><description" + op + "\"delete\"/>"), "merge", "", ""},
        {"unknown element", profile_edit("<name>p1</name><colour>red</colour>"), "merge", "unknown-element", "one"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(client->edit(antivirus(""), "replace").ok);
        ASSERT_TRUE(client->edit(profile_edit("<name>p1</name><description>one</description>")).ok);
        const Reply reply = client->edit(c.edit, c.default_operation);
        if (*c.tag) {
            EXPECT_FALSE(reply.ok);
            EXPECT_EQ(reply.error().tag, c.tag) << reply.error().message;
        } else {
            EXPECT_TRUE(reply.ok) << (reply.errors.empty() ? "" : reply.errors[0].message);
        }
        EXPECT_EQ(element_text(client->running(), "description").value_or(""), c.description);
        EXPECT_EQ(element_text(client->appliance_configuration(), "description").value_or(""), c.description);
    }
}

TEST_F(SessionTest, AModuleRefusalIsTheRpcErrorAndChangesNothing) {
    ASSERT_TRUE(client->edit(kProfile).ok);
    const std::string running = client->running();
    const std::string appliance = client->appliance_configuration();
    const std::uint64_t lines = client->lines_received();

    const Reply reply = client->edit(
        profile_edit("<name>p1</name><heuristic-detect-enable>false</heuristic-detect-enable>"
                     "<description>which traffic?</description>"));
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error().tag, "bad-element");
    EXPECT_EQ(reply.error().type, "application");
    EXPECT_EQ(reply.error().message, "The profile description has '?'.");
    EXPECT_EQ(reply.error().path,
              "/tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/profile[name='p1']/description");
    EXPECT_EQ(reply.error().bad_elements, std::vector<std::string>{"description"});

    EXPECT_EQ(client->running(), running);
    EXPECT_EQ(client->appliance_configuration(), appliance);
    EXPECT_EQ(client->lines_received(), lines);
}

TEST_F(SessionTest, AModelViolationIsRefusedByTheModel) {
    const Reply reply = client->edit(antivirus("<vsys><name>a-vsys-name-of-thirty-two-chars-x</name></vsys>"));
    EXPECT_FALSE(reply.ok);
    EXPECT_FALSE(reply.error().tag.empty());
    EXPECT_NE(reply.error().message.find("length"), std::string::npos) << reply.error().message;
    EXPECT_EQ(count_elements(client->running(), "vsys"), 0u);
    EXPECT_EQ(client->lines_received(), 0u);
}

TEST_F(SessionTest, TestOnlyAndValidateCheckWithoutChanging) {
    ASSERT_TRUE(client->edit(kProfile).ok);
    const std::string running = client->running();
    const std::uint64_t lines = client->lines_received();
    const std::string bad = profile_edit("<name>p1</name><description>why?</description>");
    const std::string good = profile_edit("<name>p1</name><description>new</description>");

    EXPECT_TRUE(client->edit(good, "merge", "test-only").ok);
    EXPECT_EQ(client->edit(bad, "merge", "test-only").error().message, "The profile description has '?'.");
    EXPECT_TRUE(client->validate("").ok);
    EXPECT_TRUE(client->validate(good).ok);
    EXPECT_EQ(client->validate(bad).error().message, "The profile description has '?'.");

    EXPECT_EQ(client->running(), running);
    EXPECT_EQ(client->lines_received(), lines);
}

TEST_F(SessionTest, ErrorOptionsAllLeaveNothingBehind) {
    for (const char* option : {"stop-on-error", "continue-on-error", "rollback-on-error"}) {
        SCOPED_TRACE(option);
        const Reply reply = client->edit(
            antivirus("<vsys><name>vs2</name><antivirus-enable>true</antivirus-enable></vsys>"
                      "<vsys><name>vs1</name><profiles><profile><name>p1</name><description>?</description>"
                      "</profile></profiles></vsys>"),
            "merge", "test-then-set", option);
        EXPECT_FALSE(reply.ok);
        EXPECT_EQ(count_elements(client->running(), "vsys"), 0u);
        EXPECT_EQ(client->lines_received(), 0u);
    }
}

TEST_F(SessionTest, CopyConfigReplacesTheRunningConfiguration) {
    ASSERT_TRUE(client->edit(kProfile).ok);
    ASSERT_TRUE(client->copy_config(antivirus(
        "<vsys><name>vs2</name><profiles><profile><name>p2</name></profile></profiles></vsys>")).ok);
    // vs1 goes from the appliance with everything in it.
    for (const std::string& config : {client->running(), client->appliance_configuration()}) {
        EXPECT_EQ(count_elements(config, "vsys"), 1u) << config;
        EXPECT_EQ(count_elements(config, "profile"), 1u) << config;
        EXPECT_EQ(element_text(config, "name"), "vs2") << config;
    }
}

TEST_F(SessionTest, TheLockHasOneHolder) {
    auto other = daemon.connect();
    ASSERT_TRUE(other);
    ASSERT_TRUE(client->lock().ok);

    const Reply denied = other->lock();
    EXPECT_EQ(denied.error().tag, "lock-denied");
    EXPECT_EQ(denied.error().session_id, std::to_string(client->id()));
    EXPECT_EQ(other->edit(kProfile).error().tag, "in-use");
    EXPECT_EQ(other->unlock().error().tag, "operation-failed");
    EXPECT_EQ(client->lock().error().tag, "lock-denied");  // held already
    EXPECT_TRUE(client->edit(kProfile).ok);                // the holder edits

    client->close();
    client.reset();  // closing the session releases the lock
    EXPECT_TRUE(other->lock().ok);
    EXPECT_TRUE(other->unlock().ok);
}

TEST_F(SessionTest, KillSessionEndsTheOtherSessionAndItsLock) {
    auto other = daemon.connect();
    ASSERT_TRUE(other);
    ASSERT_TRUE(other->lock().ok);
    EXPECT_EQ(client->kill(client->id()).error().tag, "invalid-value");
    EXPECT_EQ(client->kill(4242).error().tag, "invalid-value");
    ASSERT_TRUE(client->kill(other->id()).ok);
    EXPECT_TRUE(client->lock().ok);
    EXPECT_TRUE(other->get_config().transport_failed);
}

TEST_F(SessionTest, GetSchemaServesTheModels) {
    const Reply yang = client->get_schema("tavrik-antivirus");
    ASSERT_TRUE(yang.data);
    EXPECT_NE(yang.data->find("module tavrik-antivirus"), std::string::npos);
    const Reply yin = client->get_schema("tavrik-antivirus", "2024-01-01", "yin");
    ASSERT_TRUE(yin.data);
    EXPECT_NE(yin.data->find("<module name=\"tavrik-antivirus\""), std::string::npos);
    EXPECT_TRUE(client->get_schema("ietf-netconf", "2011-06-01").data);
    EXPECT_EQ(client->get_schema("no-such-module").error().tag, "invalid-value");
    EXPECT_EQ(client->get_schema("tavrik-antivirus", "1999-01-01").error().tag, "invalid-value");
}

TEST_F(SessionTest, GetAddsStateLibraryAndAppliance) {
    ASSERT_TRUE(client->edit(kProfile).ok);
    const Reply all = client->get();
    ASSERT_TRUE(all.data);
    EXPECT_EQ(count_elements(*all.data, "antivirus"), 1u);
    EXPECT_EQ(count_elements(*all.data, "antivirus-state"), 1u);
    EXPECT_EQ(count_elements(*all.data, "yang-library"), 1u);
    EXPECT_EQ(count_elements(*all.data, "netconf-state"), 1u);
    EXPECT_EQ(count_elements(*all.data, "appliance"), 1u);

    const Reply state = client->get("<antivirus-state xmlns=\"" + std::string(kModelNs) + "\"/>");
    ASSERT_TRUE(state.data);
    EXPECT_EQ(count_elements(*state.data, "antivirus-state"), 1u);
    EXPECT_EQ(count_elements(*state.data, "antivirus"), 0u);
    EXPECT_EQ(count_elements(*state.data, "yang-library"), 0u);
    EXPECT_EQ(element_text(*state.data, "reference-count"), "0");
}

TEST_F(SessionTest, SubtreeFiltersSelectWholeSubtrees) {
    ASSERT_TRUE(client->edit(kProfile).ok);
    ASSERT_TRUE(client->edit(antivirus("<vsys><name>vs2</name><antivirus-enable>true</antivirus-enable></vsys>")).ok);
    struct Case {
        std::string filter;
        std::size_t vsys, profiles, descriptions;
    };
    const std::vector<Case> cases = {
        {antivirus(""), 2, 1, 1},
        {antivirus("<vsys><name>vs2</name></vsys>"), 1, 0, 0},
        {antivirus("<vsys><name>vs1</name><profiles><profile><name/></profile></profiles></vsys>"), 1, 1, 0},
        {antivirus("<vsys><profiles><profile><description/></profile></profiles></vsys>"), 1, 1, 1},
        {antivirus("<vsys><name>none</name></vsys>"), 0, 0, 0},
        {"<antivirus/>", 2, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.filter);
        const Reply reply = client->get_config(c.filter);
        ASSERT_TRUE(reply.data);
        EXPECT_EQ(count_elements(*reply.data, "vsys"), c.vsys);
        EXPECT_EQ(count_elements(*reply.data, "profile"), c.profiles);
        EXPECT_EQ(count_elements(*reply.data, "description"), c.descriptions);
    }
}

// Raw NETCONF 1.0 messages on the socket, for what a library client would
// never send.
class RawSession {
public:
    explicit RawSession(const std::string& path) {
        fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        send("<hello xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><capabilities>"
             "<capability>urn:ietf:params:netconf:base:1.0</capability></capabilities></hello>");
        receive();  // the server's hello
    }
    ~RawSession() { ::close(fd_); }
    void send(const std::string& message) {
        const std::string framed = message + "]]>]]>";
        ASSERT_EQ(::write(fd_, framed.data(), framed.size()), static_cast<ssize_t>(framed.size()));
    }
    std::string receive() {
        std::string in;
        char buffer[4096];
        while (in.find("]]>]]>") == std::string::npos) {
            const ssize_t n = ::read(fd_, buffer, sizeof buffer);
            if (n <= 0) break;
            in.append(buffer, static_cast<std::size_t>(n));
        }
        return in.substr(0, in.find("]]>]]>"));
    }
    std::string rpc(const std::string& body) {
        send("<rpc xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" message-id=\"1\">" + body + "</rpc>");
        return receive();
    }

private:
    int fd_ = -1;
};

TEST_F(SessionTest, MalformedRequestsGetProtocolErrors) {
    RawSession raw(daemon.socket_path());
    struct Case {
        std::string body;
        const char* tag;
    };
    // Requests that do not parse against the model are answered by
    // libnetconf2 (operation-failed, with libyang's message).
    const std::vector<Case> cases = {
        {"<frobnicate/>", "operation-failed"},
        {"<edit-config><config/></edit-config>", "missing-element"},
        {"<edit-config><target><running/></target></edit-config>", "missing-element"},
        {"<get-config/>", "missing-element"},
        {"<lock/>", "missing-element"},
        {"<kill-session/>", "missing-element"},
        {"<edit-config><target><running/></target><default-operation>sideways</default-operation><config/>"
         "</edit-config>",
         "operation-failed"},
        {"<lock><target><candidate/></target></lock>", "operation-failed"},
        {"<get><filter type=\"xpath\" select=\"/a\"/></get>", "operation-not-supported"},
        {"<delete-config><target><running/></target></delete-config>", "operation-failed"},
        {"<copy-config><target><running/></target><source><candidate/></source></copy-config>", "operation-failed"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        const std::string reply = raw.rpc(c.body);
        EXPECT_EQ(count_elements(reply, "rpc-error"), 1u) << reply;
        if (*c.tag) {
            EXPECT_EQ(element_text(reply, "error-tag"), c.tag) << reply;
        }
    }
    // The session survives all of them.
    EXPECT_EQ(count_elements(raw.rpc("<get-config><source><running/></source></get-config>"), "data"), 1u);
}

TEST_F(SessionTest, ARestartKeepsTheConfigurationAndTheAppliance) {
    ASSERT_TRUE(client->edit(kProfile).ok);
    const std::string running = client->running();
    const std::string appliance = client->appliance_configuration();
    client.reset();
    ASSERT_EQ(daemon.stop(), 0) << daemon.stderr_text();

    daemon.start();
    client = daemon.connect();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->running(), running);
    EXPECT_EQ(client->appliance_configuration(), appliance);
    // The appliance really holds it: removing the profile is accepted.
    EXPECT_TRUE(client->edit(profile_edit("<name>p1</name>", std::string(kNcOperation) + "\"delete\"")).ok);
}

// The daemon is killed while edits stream in; after the restart the running
// configuration is the one of the last acknowledged edit or of the one in
// flight, and the appliance agrees with it.
TEST_F(SessionTest, AKilledDaemonRestartsWithTheLastCommittedConfiguration) {
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        int acknowledged = -1;
        std::thread killer([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(150 + 70 * round));
            daemon.kill();
        });
        for (int i = 0; i < 100000; ++i) {
            const Reply reply =
                client->edit(profile_edit("<name>k</name><description>edit " + std::to_string(i) + "</description>"));
            if (!reply.ok) break;
            acknowledged = i;
        }
        killer.join();
        ASSERT_GE(acknowledged, 0) << "no edit was acknowledged before the kill";

        client.reset();
        daemon.start();
        client = daemon.connect();
        ASSERT_TRUE(client);
        const std::string description = element_text(client->running(), "description").value_or("");
        EXPECT_TRUE(description == "edit " + std::to_string(acknowledged) ||
                    description == "edit " + std::to_string(acknowledged + 1))
            << description << " after edit " << acknowledged;
        EXPECT_EQ(element_text(client->appliance_configuration(), "description"), description);
    }
}

TEST(SessionStartTest, AnUnreadableSnapshotStopsTheStartAndIsKept) {
    Daemon daemon;
    const std::string snapshot = daemon.state_dir() + "/snapshot.0";
    std::ofstream(snapshot) << "not a snapshot";
    EXPECT_FALSE(daemon.launch());
    EXPECT_NE(daemon.stderr_text().find("hold no whole snapshot"), std::string::npos) << daemon.stderr_text();
    std::ifstream in(snapshot);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "not a snapshot");
}

}  // namespace
}  // namespace tavrik::netconf::test
