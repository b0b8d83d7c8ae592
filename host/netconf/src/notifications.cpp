#include "tavrik/netconf/notifications.hpp"

#include <libyang/libyang.h>
#include <nc_server.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace tavrik::netconf {
namespace {

using Clock = std::chrono::system_clock;
using engine::ErrorTag;
using engine::ErrorType;

constexpr const char* kEventModule = "ietf-netconf-notifications";
constexpr const char* kControlModule = "nc-notifications";
// How long the sender waits for a session that is busy writing a reply
// before it serves the other subscribers and comes back.
constexpr int kSendTimeoutMs = 1000;

struct TreeFree {
    void operator()(lyd_node* tree) const { lyd_free_siblings(tree); }
};
using Tree = std::unique_ptr<lyd_node, TreeFree>;

// One notification: its event time and content. The content is kept as
// JSON text (shorter than XML for its instance paths), one buffer, and
// becomes a tree again only while it is sent: a change of many entries is a
// large tree, and the log keeps up to NotificationOptions::log_size events.
// `control`: replayComplete or notificationComplete, which every subscriber
// gets unfiltered.
struct Event {
    Clock::time_point time;
    std::string time_text;  // yang:date-and-time
    std::string content;    // JSON
    bool control = false;
};
using EventPtr = std::shared_ptr<const Event>;

struct Who {
    std::string user;
    std::string host;
};

struct Subscriber {
    SubscriptionRequest request;
    std::deque<EventPtr> outbox;
    bool active = false;    // its <rpc-reply> is out
    bool complete = false;  // notificationComplete is queued: nothing follows
};

constexpr const char* kReasons[] = {"closed", "killed", "dropped", "timeout", "bad-hello", "other"};

const char* operation_of(engine::ChangeKind kind) {
    switch (kind) {
    case engine::ChangeKind::Create:
        return "create";
    case engine::ChangeKind::Delete:
        return "delete";
    default:
        return "replace";
    }
}

const char* confirm_event_of(ConfirmedCommitEvent event) {
    switch (event) {
    case ConfirmedCommitEvent::Start:
        return "start";
    case ConfirmedCommitEvent::Extend:
        return "extend";
    case ConfirmedCommitEvent::Confirm:
        return "complete";
    case ConfirmedCommitEvent::Cancel:
        return "cancel";
    default:
        return "timeout";
    }
}

}  // namespace

struct Notifications::Impl {
    ly_ctx* ctx;
    NotificationOptions options;
    const lys_module* events;
    const lys_module* control;
    Clock::time_point created = Clock::now();

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<EventPtr> log;
    std::map<std::uint32_t, Who> sessions;
    std::map<std::uint32_t, std::shared_ptr<Subscriber>> subscribers;
    std::uint32_t last_served = 0;  // round robin among subscribers
    std::uint32_t writing = 0;      // the session the sender writes to, unlocked
    std::function<void(std::uint32_t)> sent;
    bool stopping = false;
    std::thread sender;

    Impl(ly_ctx* context, NotificationOptions opts)
        : ctx(context),
          options(std::move(opts)),
          events(ly_ctx_get_module_implemented(context, kEventModule)),
          control(ly_ctx_get_module_implemented(context, kControlModule)) {
        if (!events || !control)
            throw std::runtime_error(std::string("the schema context lacks ") + kEventModule + " or " + kControlModule);
        sender = std::thread([this] { send_loop(); });
    }

    ~Impl() {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        changed.notify_all();
        sender.join();
    }

    // ---- building events ----------------------------------------------------

    // A new notification `name` of `module`.
    Tree notification(const lys_module* module, const char* name) const {
        lyd_node* node = nullptr;
        if (lyd_new_inner(nullptr, module, name, 0, &node) != LY_SUCCESS)
            throw std::runtime_error(std::string("cannot create the notification ") + name);
        return Tree(node);
    }

    // A leaf of the event module; a value the model refuses (a source host
    // that is no IP address) is left out.
    void leaf(lyd_node* parent, const char* name, const std::string& value) const {
        lyd_new_term(parent, events, name, value.c_str(), 0, nullptr);
    }

    // username, session-id and source-host of session `id` (with the
    // registry's lock held).
    void session_parameters(lyd_node* parent, std::uint32_t id) const {
        const auto it = sessions.find(id);
        if (it != sessions.end()) leaf(parent, "username", it->second.user);
        leaf(parent, "session-id", std::to_string(id));
        if (it != sessions.end() && !it->second.host.empty()) leaf(parent, "source-host", it->second.host);
    }

    EventPtr stamp(Tree tree, bool is_control = false) const {
        auto event = std::make_shared<Event>();
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        event->time = Clock::time_point(std::chrono::duration_cast<Clock::duration>(
            std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec)));
        char* text = nullptr;
        if (ly_time_ts2str(&now, &text) == LY_SUCCESS) {
            event->time_text = text;
            std::free(text);
        }
        char* bytes = nullptr;
        // Not LYB: this libyang's LYB printer can read past a union value's
        // bytes (source-host is a union).
        if (lyd_print_mem(&bytes, tree.get(), LYD_JSON, LYD_PRINT_SHRINK) != LY_SUCCESS)
            throw std::runtime_error("cannot keep a notification");
        event->content = bytes;
        std::free(bytes);
        event->control = is_control;
        return event;
    }

    // The event's notification as a tree again.
    Tree content(const Event& event) const {
        ly_in* in = nullptr;
        if (ly_in_new_memory(event.content.data(), &in) != LY_SUCCESS) return nullptr;
        lyd_node* tree = nullptr;
        const LY_ERR parsed = lyd_parse_op(ctx, nullptr, in, LYD_JSON, LYD_TYPE_NOTIF_YANG, &tree, nullptr);
        ly_in_free(in, 0);
        if (parsed != LY_SUCCESS) {
            lyd_free_siblings(tree);
            return nullptr;
        }
        return Tree(tree);
    }

    // Logs the event and queues it for every subscriber (lock held).
    void publish(Tree tree) {
        EventPtr event = stamp(std::move(tree));
        log.push_back(event);
        while (log.size() > std::max<std::size_t>(options.log_size, 1)) log.pop_front();
        for (auto& [id, subscriber] : subscribers) {
            const auto& stop = subscriber->request.stop;
            if (!subscriber->complete && (!stop || event->time <= *stop)) subscriber->outbox.push_back(event);
        }
        changed.notify_all();
    }

    // ---- sending --------------------------------------------------------------

    // Whether the subscriber receives the event: the control events always,
    // the others when its filter selects them and it may read them.
    bool wanted(const Subscriber& subscriber, const Event& event, const lyd_node* tree) const {
        if (event.control) return true;
        const SubscriptionRequest& request = subscriber.request;
        if (request.selects && !request.selects(tree)) return false;
        return !request.may_receive || request.may_receive(tree);
    }

    NC_MSG_TYPE deliver(const Subscriber& subscriber, const Event& event) const {
        Tree tree = content(event);
        if (!tree) return NC_MSG_ERROR;
        try {
            if (!wanted(subscriber, event, tree.get())) return NC_MSG_NONE;
        } catch (const std::exception&) {
            return NC_MSG_NONE;
        }
        char* time = ::strdup(event.time_text.c_str());
        nc_server_notif* notif = time ? nc_server_notif_new(tree.get(), time, NC_PARAMTYPE_FREE) : nullptr;
        if (!notif) {
            std::free(time);
            return NC_MSG_ERROR;
        }
        tree.release();  // the notification owns it now
        const NC_MSG_TYPE result = nc_server_notif_send(subscriber.request.session, notif, kSendTimeoutMs);
        nc_server_notif_free(notif);
        return result;
    }

    // Queues notificationComplete for the subscriptions whose stop time
    // passed; the next stop time to come.
    std::optional<Clock::time_point> stop_subscriptions() {
        const auto now = Clock::now();
        std::optional<Clock::time_point> next;
        for (auto& [id, subscriber] : subscribers) {
            const auto& stop = subscriber->request.stop;
            if (subscriber->complete || !stop) continue;
            if (*stop <= now) {
                subscriber->outbox.push_back(stamp(notification(control, "notificationComplete"), true));
                subscriber->complete = true;
            } else if (!next || *stop < *next) {
                next = *stop;
            }
        }
        return next;
    }

    std::shared_ptr<Subscriber> next_ready() {
        const auto ready = [](const auto& entry) {
            const Subscriber& s = *entry.second;
            return s.active && !s.outbox.empty();
        };
        auto it = std::find_if(subscribers.upper_bound(last_served), subscribers.end(), ready);
        if (it == subscribers.end()) it = std::find_if(subscribers.begin(), subscribers.end(), ready);
        if (it == subscribers.end()) return nullptr;
        last_served = it->first;
        return it->second;
    }

    void send_loop() {
        std::unique_lock lock(mutex);
        while (!stopping) {
            const auto next_stop = stop_subscriptions();
            const std::shared_ptr<Subscriber> subscriber = next_ready();
            if (!subscriber) {
                if (next_stop)
                    changed.wait_until(lock, *next_stop);
                else
                    changed.wait(lock);
                continue;
            }
            const std::uint32_t id = subscriber->request.session_id;
            const EventPtr event = subscriber->outbox.front();
            subscriber->outbox.pop_front();
            // After its notificationComplete the session may subscribe again
            // at once: the subscription leaves before that is written.
            const bool last = subscriber->complete && subscriber->outbox.empty();
            if (last) subscribers.erase(id);
            writing = id;
            lock.unlock();
            const NC_MSG_TYPE result = deliver(*subscriber, *event);
            lock.lock();
            if (result == NC_MSG_NOTIF && sent) sent(id);
            if (result == NC_MSG_WOULDBLOCK) {
                subscriber->outbox.push_front(event);
                if (last) subscribers.emplace(id, subscriber);
            } else if (last) {
                nc_session_dec_notif_status(subscriber->request.session);
            }
            writing = 0;
            changed.notify_all();
        }
        lock.unlock();
        nc_thread_destroy();
    }
};

Notifications::Notifications(ly_ctx* context, NotificationOptions options)
    : impl_(std::make_unique<Impl>(context, std::move(options))) {}

Notifications::~Notifications() = default;

void Notifications::running_changed(std::uint32_t session, std::optional<DatastoreId>,
                                    const std::vector<engine::ChangedNode>& changes) {
    Impl& impl = *impl_;
    std::lock_guard lock(impl.mutex);
    Tree tree = impl.notification(impl.events, "netconf-config-change");
    lyd_node* by = nullptr;
    lyd_new_inner(tree.get(), impl.events, "changed-by", 0, &by);
    if (session == 0)
        lyd_new_term(by, impl.events, "server", nullptr, 0, nullptr);
    else
        impl.session_parameters(by, session);
    impl.leaf(tree.get(), "datastore", "running");
    for (const engine::ChangedNode& change : changes) {
        lyd_node* edit = nullptr;
        if (lyd_new_list(tree.get(), impl.events, "edit", 0, &edit) != LY_SUCCESS) continue;
        impl.leaf(edit, "target", change.path);
        impl.leaf(edit, "operation", operation_of(change.kind));
    }
    impl.publish(std::move(tree));
}

void Notifications::confirmed_commit(ConfirmedCommitEvent event, std::uint32_t session, std::chrono::seconds timeout) {
    Impl& impl = *impl_;
    std::lock_guard lock(impl.mutex);
    Tree tree = impl.notification(impl.events, "netconf-confirmed-commit");
    if (event != ConfirmedCommitEvent::Timeout && session != 0) impl.session_parameters(tree.get(), session);
    impl.leaf(tree.get(), "confirm-event", confirm_event_of(event));
    if (event == ConfirmedCommitEvent::Start || event == ConfirmedCommitEvent::Extend)
        impl.leaf(tree.get(), "timeout", std::to_string(timeout.count()));
    impl.publish(std::move(tree));
}

void Notifications::session_started(std::uint32_t session, const std::string& user, const std::string& host) {
    Impl& impl = *impl_;
    std::lock_guard lock(impl.mutex);
    impl.sessions[session] = Who{user, host};
    Tree tree = impl.notification(impl.events, "netconf-session-start");
    impl.session_parameters(tree.get(), session);
    impl.publish(std::move(tree));
}

void Notifications::session_ended(std::uint32_t session, TerminationReason reason, std::uint32_t killed_by) {
    Impl& impl = *impl_;
    std::unique_lock lock(impl.mutex);
    impl.changed.wait(lock, [&] { return impl.writing != session; });
    impl.subscribers.erase(session);
    Tree tree = impl.notification(impl.events, "netconf-session-end");
    impl.session_parameters(tree.get(), session);
    if (reason == TerminationReason::Killed && killed_by) impl.leaf(tree.get(), "killed-by", std::to_string(killed_by));
    impl.leaf(tree.get(), "termination-reason", kReasons[static_cast<int>(reason)]);
    impl.sessions.erase(session);
    impl.publish(std::move(tree));
}

std::optional<RpcError> Notifications::subscribe(SubscriptionRequest request) {
    Impl& impl = *impl_;
    const auto now = Clock::now();
    if (request.stop && !request.start)
        return RpcError(ErrorType::Protocol, ErrorTag::MissingElement, "<stopTime> needs a <startTime>",
                        "/notifications:create-subscription/startTime", "startTime");
    if (request.start && *request.start > now)
        return RpcError(ErrorType::Protocol, ErrorTag::BadElement, "<startTime> lies in the future",
                        "/notifications:create-subscription/startTime", "startTime");
    if (request.stop && *request.stop < *request.start)
        return RpcError(ErrorType::Protocol, ErrorTag::BadElement, "<stopTime> is earlier than <startTime>",
                        "/notifications:create-subscription/stopTime", "stopTime");
    std::lock_guard lock(impl.mutex);
    if (impl.subscribers.count(request.session_id))
        return RpcError(ErrorType::Protocol, ErrorTag::InUse, "this session has a subscription already");
    auto subscriber = std::make_shared<Subscriber>();
    if (request.start) {
        for (const EventPtr& event : impl.log)
            if (event->time >= *request.start && (!request.stop || event->time <= *request.stop))
                subscriber->outbox.push_back(event);
        subscriber->outbox.push_back(impl.stamp(impl.notification(impl.control, "replayComplete"), true));
    }
    nc_session_inc_notif_status(request.session);
    const std::uint32_t id = request.session_id;
    subscriber->request = std::move(request);
    impl.subscribers.emplace(id, std::move(subscriber));
    return std::nullopt;
}

void Notifications::reply_sent(std::uint32_t session) {
    Impl& impl = *impl_;
    std::lock_guard lock(impl.mutex);
    const auto it = impl.subscribers.find(session);
    if (it == impl.subscribers.end() || it->second->active) return;
    it->second->active = true;
    impl.changed.notify_all();
}

void Notifications::on_sent(std::function<void(std::uint32_t)> counter) {
    std::lock_guard lock(impl_->mutex);
    impl_->sent = std::move(counter);
}

std::chrono::system_clock::time_point Notifications::log_created() const { return impl_->created; }

}  // namespace tavrik::netconf
