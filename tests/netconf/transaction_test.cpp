// The candidate, confirmed commits and the startup configuration of
// tkav-netconfd, through libnetconf2's client API on its UNIX socket.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "netconf_client.hpp"

namespace tavrik::netconf::test {
namespace {

using TransactionTest = DaemonTest;

std::string described(std::string_view text) {
    return profile_edit("<name>p1</name><description>" + std::string(text) + "</description>");
}

// The description of p1 in `datastore`; "" when there is none.
std::string description(Client& client, std::string_view datastore = "running") {
    return element_text(client.running(datastore), "description").value_or("");
}

Reply stage(Client& client, std::string_view text) {
    return client.edit(described(text), "merge", "test-then-set", "", "candidate");
}

// Decided: the candidate is the running configuration until its first
// change; from then on it is a configuration of its own, and <commit> makes
// the running configuration equal to it, so a direct edit of the running
// configuration made meanwhile is undone unless the candidate has it too.
TEST_F(TransactionTest, TheCandidateFollowsRunningUntilEditedAndACommitMakesRunningEqualToIt) {
    ASSERT_TRUE(client->edit(described("one")).ok);
    EXPECT_EQ(description(*client, "candidate"), "one");
    ASSERT_TRUE(stage(*client, "staged").ok);
    EXPECT_EQ(description(*client), "one");
    const std::uint64_t lines = client->lines_received();

    ASSERT_TRUE(client->edit(antivirus("<vsys><name>vs2</name><antivirus-enable>true</antivirus-enable></vsys>")).ok);
    EXPECT_EQ(count_elements(client->running("candidate"), "vsys"), 1u);
    ASSERT_TRUE(client->commit().ok);
    for (const std::string& config : {client->running(), client->appliance_configuration()}) {
        EXPECT_EQ(element_text(config, "description"), "staged") << config;
        EXPECT_EQ(count_elements(config, "vsys"), 1u) << config;
    }
    EXPECT_GT(client->lines_received(), lines);

    ASSERT_TRUE(client->edit(described("after")).ok);
    EXPECT_EQ(description(*client, "candidate"), "after");
}

TEST_F(TransactionTest, LocksOfTheCandidateAndTheRunningConfiguration) {
    auto other = daemon.connect();
    ASSERT_TRUE(other);
    const std::string own_id = std::to_string(client->id());

    // The candidate holds changes of this session: only this one may lock it.
    ASSERT_TRUE(stage(*client, "mine").ok);
    const Reply denied = other->lock("candidate");
    EXPECT_EQ(denied.error().tag, "lock-denied");
    EXPECT_EQ(denied.error().session_id, own_id);
    ASSERT_TRUE(client->lock("candidate").ok);
    EXPECT_EQ(stage(*other, "theirs").error().tag, "in-use");
    EXPECT_EQ(other->discard_changes().error().tag, "in-use");
    EXPECT_EQ(other->commit().error().tag, "in-use");
    const Reply locks = other->get(
        "<netconf-state xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"><datastores/></netconf-state>");
    EXPECT_EQ(count_elements(locks.data.value_or(""), "datastore"), 3u);
    EXPECT_EQ(element_text(locks.data.value_or(""), "locked-by-session"), own_id);
    // Releasing the lock discards the changes.
    ASSERT_TRUE(client->unlock("candidate").ok);
    EXPECT_EQ(description(*other, "candidate"), "");

    // Another session's lock of the running configuration stops a commit.
    ASSERT_TRUE(other->lock().ok);
    ASSERT_TRUE(stage(*client, "mine").ok);
    EXPECT_EQ(client->commit().error().tag, "in-use");
    ASSERT_TRUE(other->unlock().ok);

    // A pending confirmed commit keeps the running configuration from other
    // sessions' locks.
    ASSERT_TRUE(client->commit(true, 60).ok);
    EXPECT_EQ(other->lock().error().session_id, own_id);
    ASSERT_TRUE(client->lock().ok);
    ASSERT_TRUE(client->unlock().ok);
    ASSERT_TRUE(client->commit().ok);
    EXPECT_TRUE(other->lock().ok);

    // A session that ends with the candidate locked leaves no changes behind.
    ASSERT_TRUE(other->lock("candidate").ok);
    ASSERT_TRUE(stage(*other, "theirs").ok);
    EXPECT_TRUE(other->close().ok);
    other.reset();
    EXPECT_EQ(description(*client, "candidate"), "mine");
    EXPECT_TRUE(client->lock("candidate").ok);
}

TEST_F(TransactionTest, AConfirmedCommitIsSettledByItsSessionOrWithItsPersistId) {
    auto other = daemon.connect();
    ASSERT_TRUE(other);
    ASSERT_TRUE(client->edit(described("before")).ok);
    ASSERT_TRUE(stage(*client, "confirmed").ok);
    ASSERT_TRUE(client->commit(true, 60).ok);
    EXPECT_EQ(other->commit().error().tag, "in-use");
    EXPECT_EQ(other->cancel_commit().error().tag, "in-use");
    EXPECT_EQ(client->cancel_commit("token").error().tag, "invalid-value");
    ASSERT_TRUE(client->cancel_commit().ok);
    EXPECT_EQ(description(*client), "before");
    EXPECT_EQ(client->cancel_commit().error().tag, "operation-failed");  // none pending

    ASSERT_TRUE(stage(*client, "persistent").ok);
    ASSERT_TRUE(client->commit(true, 60, "token").ok);
    EXPECT_EQ(other->commit(false, 0, {}, "wrong").error().tag, "invalid-value");
    EXPECT_EQ(other->commit().error().tag, "invalid-value");
    ASSERT_TRUE(other->commit(false, 0, {}, "token").ok);
    EXPECT_EQ(other->commit(false, 0, {}, "token").error().tag, "invalid-value");  // none pending
    EXPECT_EQ(description(*other), "persistent");
}

// A follow-up confirmed commit restarts the timer with its own timeout; a
// cancel goes back to the configuration before the first confirmed commit.
TEST_F(TransactionTest, AFollowUpConfirmedCommitExtendsIt) {
    ASSERT_TRUE(client->edit(described("before")).ok);
    ASSERT_TRUE(stage(*client, "first").ok);
    ASSERT_TRUE(client->commit(true, 1).ok);
    ASSERT_TRUE(stage(*client, "second").ok);
    ASSERT_TRUE(client->commit(true, 60).ok);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(description(*client), "second");
    ASSERT_TRUE(client->cancel_commit().ok);
    EXPECT_EQ(description(*client), "before");
}

TEST_F(TransactionTest, CopyConfigBetweenTheDatastores) {
    EXPECT_EQ(client->running("startup"), "");
    EXPECT_EQ(client->copy("running", "startup").error().tag, "operation-failed");  // there is none
    ASSERT_TRUE(client->edit(described("saved")).ok);
    ASSERT_TRUE(client->copy("startup", "running").ok);
    ASSERT_TRUE(client->edit(described("changed")).ok);

    struct Step {
        const char* what;
        std::function<Reply()> request;
        const char* running;
        const char* candidate;
        const char* startup;
    };
    const std::vector<Step> steps = {
        {"startup to candidate", [&] { return client->copy("candidate", "startup"); }, "changed", "saved", "saved"},
        {"validate candidate", [&] { return client->validate_datastore("candidate"); }, "changed", "saved", "saved"},
        {"candidate to running", [&] { return client->copy("running", "candidate"); }, "saved", "saved", "saved"},
        {"inline to startup", [&] { return client->copy_config(described("inline"), "startup"); }, "saved", "saved",
         "inline"},
        {"inline to candidate", [&] { return client->copy_config(described("draft"), "candidate"); }, "saved", "draft",
         "inline"},
        {"candidate to startup", [&] { return client->copy("startup", "candidate"); }, "saved", "draft", "draft"},
        {"running to candidate", [&] { return client->copy("candidate", "running"); }, "saved", "saved", "draft"},
        {"startup to running", [&] { return client->copy("running", "startup"); }, "draft", "draft", "draft"},
        {"delete startup", [&] { return client->delete_startup(); }, "draft", "draft", ""},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        const Reply reply = step.request();
        EXPECT_TRUE(reply.ok) << (reply.errors.empty() ? "" : reply.errors[0].message);
        EXPECT_EQ(description(*client), step.running);
        EXPECT_EQ(description(*client, "candidate"), step.candidate);
        EXPECT_EQ(description(*client, "startup"), step.startup);
    }
    EXPECT_EQ(element_text(client->appliance_configuration(), "description"), "draft");

    // The module checks a candidate when it is validated.
    ASSERT_TRUE(client->copy_config(described("why?"), "candidate").ok);
    EXPECT_EQ(client->validate_datastore("candidate").error().message, "The profile description has '?'.");

    // The startup configuration is a file of the state directory.
    ASSERT_TRUE(client->copy("startup", "running").ok);
    client.reset();
    ASSERT_EQ(daemon.stop(), 0) << daemon.stderr_text();
    daemon.start();
    client = daemon.connect();
    ASSERT_TRUE(client);
    EXPECT_EQ(description(*client, "startup"), "draft");
}

}  // namespace
}  // namespace tavrik::netconf::test
