// tkav-netconfd through libnetconf2's client API on its UNIX socket.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>

#include "netconf_client.hpp"
#include "tavrik/appliance.hpp"

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

using SessionTest = DaemonTest;

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
    EXPECT_TRUE(has("urn:ietf:params:netconf:capability:xpath:1.0"));
    EXPECT_TRUE(has("urn:ietf:params:netconf:capability:candidate:1.0"));
    EXPECT_TRUE(has("urn:ietf:params:netconf:capability:confirmed-commit:1.1"));
    EXPECT_TRUE(has("urn:ietf:params:netconf:capability:startup:1.0"));
    EXPECT_FALSE(has("urn:ietf:params:netconf:capability:url"));
    EXPECT_TRUE(has("urn:ietf:params:xml:ns:netconf:base:1.0?module=ietf-netconf&revision=2011-06-01"
                    "&features=writable-running,candidate,confirmed-commit,rollback-on-error,validate,startup,xpath"));
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
              "/tavrik-antivirus:antivirus/tavrik-antivirus:vsys[tavrik-antivirus:name='vs1']/tavrik-antivirus:profiles"
              "/tavrik-antivirus:profile[tavrik-antivirus:name='p1']/tavrik-antivirus:description");
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

TEST_F(SessionTest, MalformedRequestsGetProtocolErrors) {
    auto raw = RawSession::unix_socket(daemon.socket_path());
    ASSERT_TRUE(raw);
    raw->hello("1.0");
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
        {"<delete-config><target><running/></target></delete-config>", "operation-failed"},
        {"<get><filter type=\"xpath\"/></get>", "missing-attribute"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        const std::string reply = raw->rpc(c.body);
        EXPECT_EQ(count_elements(reply, "rpc-error"), 1u) << reply;
        if (*c.tag) {
            EXPECT_EQ(element_text(reply, "error-tag"), c.tag) << reply;
        }
    }
    // The session survives all of them.
    EXPECT_EQ(count_elements(raw->rpc("<get-config><source><running/></source></get-config>"), "data"), 1u);
}

// A client that breaks the framing loses its session, and only that one:
// another session keeps editing meanwhile, and the daemon stays up.
TEST_F(SessionTest, BrokenFramingEndsOnlyThatSession) {
    std::atomic<bool> stop{false};
    std::atomic<int> edits{0};
    std::atomic<bool> refused{false};
    std::thread editor([&] {
        for (int i = 0; !stop; ++i) {
            if (!client->edit(profile_edit("<name>e</name><description>edit " + std::to_string(i) + "</description>")).ok) {
                refused = true;
                return;
            }
            edits = i + 1;
        }
    });
    const auto join = [&] {
        stop = true;
        if (editor.joinable()) editor.join();
    };
    struct Joiner {
        std::function<void()> join;
        ~Joiner() { join(); }
    } joiner{join};
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
    const std::string get = "<rpc xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" message-id=\"7\">"
                            "<get-config><source><running/></source></get-config></rpc>";
    slow->write("\n#" + std::to_string(get.size()) + "\n" + get);
    const int before = edits;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (edits < before + 20 && !refused && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_GE(edits, before + 20) << "the other session stood still";
    slow->write("\n##\n");
    EXPECT_EQ(count_elements(slow->receive(), "data"), 1u);

    join();
    EXPECT_FALSE(refused);
    EXPECT_EQ(element_text(client->running(), "description"), "edit " + std::to_string(edits - 1));
    EXPECT_TRUE(daemon.running());
}

// URLs as datastores (their feature is not announced) are known all the
// same, and refused as not supported.
TEST_F(SessionTest, UrlsAreNotSupported) {
    auto raw = RawSession::unix_socket(daemon.socket_path());
    ASSERT_TRUE(raw);
    raw->hello("1.1");
    for (const char* body : {
             "<delete-config><target><url>file:///tmp/x</url></target></delete-config>",
             "<edit-config><target><candidate/></target><url>file:///tmp/x</url></edit-config>",
             "<copy-config><target><url>file:///tmp/x</url></target><source><running/></source></copy-config>",
             "<copy-config><target><running/></target><source><url>file:///tmp/x</url></source></copy-config>",
             "<validate><source><url>file:///tmp/x</url></source></validate>",
         }) {
        SCOPED_TRACE(body);
        const std::string reply = raw->rpc(body);
        EXPECT_EQ(element_text(reply, "error-tag"), "operation-not-supported") << reply;
    }
    EXPECT_EQ(count_elements(raw->rpc("<get-config><source><running/></source></get-config>"), "data"), 1u);
}

// ietf-netconf-monitoring as the daemon keeps it: the session's transport
// and account, and the statistics of sessions and hellos.
TEST_F(SessionTest, MonitoringKnowsTheSessionsAndCountsThem) {
    constexpr const char* kMonitoring = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";
    const auto statistic = [&](const char* name) {
        const Reply reply = client->get("<netconf-state xmlns=\"" + std::string(kMonitoring) + "\"><statistics/></netconf-state>");
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
    auto closed = daemon.connect();
    ASSERT_TRUE(closed);
    EXPECT_TRUE(closed->close().ok);
    closed.reset();

    EXPECT_EQ(statistic("in-bad-hellos"), bad_hellos + 1);
    EXPECT_EQ(statistic("in-sessions"), sessions + 2);
    EXPECT_EQ(statistic("dropped-sessions"), dropped + 1);

    const Reply own = client->get("<netconf-state xmlns=\"" + std::string(kMonitoring) +
                                  "\"><sessions><session><session-id>" + std::to_string(client->id()) +
                                  "</session-id></session></sessions></netconf-state>");
    ASSERT_TRUE(own.data);
    EXPECT_EQ(count_elements(*own.data, "session"), 1u);
    const std::string transport = element_text(*own.data, "transport").value_or("");
    EXPECT_EQ(transport.substr(transport.find(':') + 1), "unix-socket");
    const passwd* account = ::getpwuid(::geteuid());
    ASSERT_TRUE(account);
    EXPECT_EQ(element_text(*own.data, "username"), account->pw_name);
    EXPECT_FALSE(element_text(*own.data, "source-host"));
}

TEST_F(SessionTest, TheYangLibraryListsTheDatastores) {
    const Reply library = client->get("<yang-library xmlns=\"urn:ietf:params:xml:ns:yang:ietf-yang-library\"/>");
    ASSERT_TRUE(library.data);
    EXPECT_EQ(count_elements(*library.data, "datastore"), 3u);
    for (const char* name : {":running", ":candidate", ":startup"})
        EXPECT_NE(library.data->find(name), std::string::npos) << name;
    // <datastore><name>ds:running</name><schema>S</schema>, and S is the
    // name of the schema the library describes (<schema><name>S</name>...).
    const std::string datastore = element_text(*library.data, "datastore").value_or("");
    const std::string described = element_text(*library.data, "schema").value_or("");
    const std::size_t identity_end = datastore.find(":running") + std::string_view(":running").size();
    ASSERT_NE(datastore.find(":running"), std::string::npos) << *library.data;
    const std::string schema = datastore.substr(identity_end);
    EXPECT_FALSE(schema.empty());
    EXPECT_EQ(described.substr(0, schema.size()), schema) << *library.data;
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
            return client->edit(profile_edit("<name>" + *expected.begin() + "</name>", std::string(kNcOperation) + "\"delete\""));
        }
        const std::string name = "e" + std::to_string(i);
        after.insert(name);
        const std::string description = i % 3 == 0 ? cut : "edit " + std::to_string(i);
        return client->edit(profile_edit("<name>" + name + "</name><description>" + description + "</description>",
                                         std::string(kNcOperation) + "\"create\""));
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

        client.reset();
        daemon.start();
        client = daemon.connect();
        ASSERT_TRUE(client);
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
    client.reset();
    ASSERT_EQ(daemon.stop(), 0);
    std::filesystem::resize_file(journal, std::filesystem::file_size(journal) - 5);
    daemon.start();
    client = daemon.connect();
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
