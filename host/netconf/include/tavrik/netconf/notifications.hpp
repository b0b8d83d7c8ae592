// NETCONF event notifications of tkav-netconfd (RFC 5277 with the base
// events of RFC 6470): the NETCONF stream, its bounded replay log and the
// subscriptions of the sessions.
//
// Events come from the datastore (as its listener: netconf-config-change,
// netconf-confirmed-commit) and from the server (netconf-session-start,
// netconf-session-end). They are stamped, kept in the log and queued for
// every subscriber; one thread of the component's own writes them to the
// sessions with libnetconf2, so that no caller (an operation running with
// its own session's lock, the datastore with its mutex) ever waits for a
// subscriber's transport.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tavrik/netconf/datastore.hpp"

struct ly_ctx;
struct lyd_node;
struct nc_session;

namespace tavrik::netconf {

struct NotificationOptions {
    // How many events the replay log keeps (the oldest go first).
    std::size_t log_size = 1000;
};

// Why a session ended, as netconf-session-end reports it.
enum class TerminationReason { Closed, Killed, Dropped, Timeout, BadHello, Other };

// What a <create-subscription> asks for, as the server read it.
struct SubscriptionRequest {
    nc_session* session = nullptr;
    std::uint32_t session_id = 0;
    // Whether the filter selects a notification; empty: every one.
    std::function<bool(const lyd_node* notification)> selects;
    // Whether the subscriber may read a notification (access control);
    // asked before each event is sent, replayed ones included, on the
    // component's sending thread while other threads serve requests. Empty:
    // it receives everything.
    std::function<bool(const lyd_node* notification)> may_receive;
    std::optional<std::chrono::system_clock::time_point> start;  // replay from here
    std::optional<std::chrono::system_clock::time_point> stop;   // end the subscription here
};

class Notifications : public DatastoreListener {
public:
    // `context` holds ietf-netconf-notifications and nc-notifications and
    // outlives the component.
    explicit Notifications(ly_ctx* context, NotificationOptions options = {});
    ~Notifications() override;
    Notifications(const Notifications&) = delete;
    Notifications& operator=(const Notifications&) = delete;

    // DatastoreListener: netconf-config-change and netconf-confirmed-commit.
    void running_changed(std::uint32_t session, std::optional<DatastoreId> source,
                         const std::vector<engine::ChangedNode>& changes) override;
    void confirmed_commit(ConfirmedCommitEvent event, std::uint32_t session, std::chrono::seconds timeout) override;

    // The server's sessions: netconf-session-start and netconf-session-end.
    // `host` empty: none. A session's subscription ends with it; the call
    // returns once nothing is being written to the session any more, so the
    // caller may free it then.
    void session_started(std::uint32_t session, const std::string& user, const std::string& host);
    void session_ended(std::uint32_t session, TerminationReason reason, std::uint32_t killed_by);

    // Adds the session's subscription (for the user the session started
    // with); the error to answer with when the
    // session has one already or the times are wrong. Nothing is sent to the
    // session before reply_sent() says its <rpc-reply> is out.
    std::optional<RpcError> subscribe(SubscriptionRequest request);
    void reply_sent(std::uint32_t session);

    // Called with the session id after each notification written to it.
    void on_sent(std::function<void(std::uint32_t)> counter);

    // When the replay log began (the component's creation).
    std::chrono::system_clock::time_point log_created() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tavrik::netconf
