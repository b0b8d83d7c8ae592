// The access hook of the notifications, with the server in process (the
// daemon has no option that sets one).
#include <gtest/gtest.h>
#include <libyang/libyang.h>
#include <pwd.h>
#include <unistd.h>

#include <csignal>

#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "netconf_client.hpp"
#include "tavrik/netconf/notifications.hpp"
#include "tavrik/netconf/server.hpp"

namespace tavrik::netconf {
namespace {

TEST(NotificationAccess, ASubscriberGetsOnlyTheEventsTheHookPermits) {
    char pattern[] = "/tmp/tkav-notification-hook-XXXXXX";
    ASSERT_TRUE(::mkdtemp(pattern));
    const std::string dir = pattern;
    Options options = default_options();
    options.ssh.reset();
    options.state_dir = dir;
    std::signal(SIGPIPE, SIG_IGN);

    std::mutex mutex;
    std::set<std::string> asked;  // "user event"
    NotificationOptions hook;
    hook.may_receive = [&](const std::string& user, const lyd_node* event) {
        std::lock_guard lock(mutex);
        asked.insert(user + " " + LYD_NAME(event));
        return std::string(LYD_NAME(event)) == "netconf-session-end";
    };
    {
        const std::unique_ptr<ly_ctx, void (*)(ly_ctx*)> context(build_context(options), ly_ctx_destroy);
        Notifications notifications(context.get(), hook);
        DatastoreOptions store;
        store.module_path = options.module_path;
        store.yang_dir = options.yang_dir;
        store.context = context.get();
        store.data_modules = data_modules();
        store.listener = &notifications;
        Datastore datastore(store);
        Server server(options, datastore, notifications);
        std::thread serving([&] { server.run(); });

        const auto subscriber = test::RawSession::unix_socket(options.unix_socket_path());
        ASSERT_TRUE(subscriber);
        subscriber->hello("1.1");
        EXPECT_NE(subscriber->rpc("<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\"/>")
                      .find("<ok/>"),
                  std::string::npos);
        {
            const auto other = test::RawSession::unix_socket(options.unix_socket_path());
            other->hello("1.1");
            other->rpc("<edit-config><target><running/></target><config>" +
                       test::antivirus("<vsys><name>vs1</name></vsys>") + "</config></edit-config>");
            other->rpc("<close-session/>");
        }
        // Session start and config change were withheld: the session end comes first.
        const std::string first = subscriber->receive();
        EXPECT_NE(first.find("netconf-session-end"), std::string::npos) << first;
        server.stop();
        serving.join();
    }
    std::filesystem::remove_all(dir);
    const std::string user = ::getpwuid(::geteuid())->pw_name;  // the peer of the UNIX socket
    EXPECT_EQ(asked, (std::set<std::string>{user + " netconf-session-start", user + " netconf-config-change",
                                            user + " netconf-session-end"}));
}

}  // namespace
}  // namespace tavrik::netconf
