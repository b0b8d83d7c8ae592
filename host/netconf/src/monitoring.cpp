#include "monitoring.hpp"

#include <libyang/libyang.h>
#include <nc_server.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>

#include "service.hpp"

namespace tavrik::netconf::detail {
namespace {

constexpr const char* kState = "/ietf-netconf-monitoring:netconf-state";
constexpr const char* kLibrary = "/ietf-yang-library:yang-library";

struct TreeFree {
    void operator()(lyd_node* tree) const { lyd_free_siblings(tree); }
};
using Tree = std::unique_ptr<lyd_node, TreeFree>;

// yang:date-and-time, in UTC.
std::string date_and_time(std::time_t time) {
    std::tm utc{};
    gmtime_r(&time, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string transport_identity(Transport transport) {
    switch (transport) {
    case Transport::UnixSocket:
        return std::string(kDaemonModule) + ":unix-socket";
    case Transport::StandardStreams:
        return std::string(kDaemonModule) + ":standard-streams";
    default:
        return "ietf-netconf-monitoring:netconf-ssh";
    }
}

// Nodes created by absolute path in one tree.
class Builder {
public:
    explicit Builder(ly_ctx* ctx, lyd_node* tree = nullptr) : ctx_(ctx), tree_(tree) {}
    void set(const std::string& path, const char* value = nullptr) {
        lyd_node* root = tree_.get();
        if (lyd_new_path(root, ctx_, path.c_str(), value, 0, root ? nullptr : &root) != LY_SUCCESS)
            throw std::runtime_error("cannot report " + path + ": " + (ly_errmsg(ctx_) ? ly_errmsg(ctx_) : ""));
        if (!tree_) tree_.reset(root);
    }
    void set(const std::string& path, const std::string& value) { set(path, value.c_str()); }
    void set(const std::string& path, std::uint32_t value) { set(path, std::to_string(value)); }
    void counters(const std::string& base, const MessageCounters& counters) {
        set(base + "/in-rpcs", counters.in_rpcs);
        set(base + "/in-bad-rpcs", counters.in_bad_rpcs);
        set(base + "/out-rpc-errors", counters.out_rpc_errors);
        set(base + "/out-notifications", counters.out_notifications);
    }
    lyd_node* tree() const { return tree_.get(); }
    lyd_node* release() { return tree_.release(); }

private:
    ly_ctx* ctx_;
    Tree tree_;
};

}  // namespace

lyd_node* monitoring_data(const Service& service) {
    ly_ctx* ctx = service.context;
    Builder out(ctx);
    const std::string state = kState;
    // The capability texts live in the context's dictionary until removed.
    const char** capabilities = nc_server_get_cpblts(ctx);
    for (const char** c = capabilities; c && *c; ++c) {
        out.set(state + "/capabilities/capability", *c);
        lydict_remove(ctx, *c);
    }
    std::free(capabilities);
    for (const DatastoreStatus& datastore : service.datastore.datastores()) {
        const std::string entry = state + "/datastores/datastore[name='" + datastore.name + "']";
        if (!datastore.lock_holder) {
            out.set(entry);
            continue;
        }
        out.set(entry + "/locks/global-lock/locked-by-session", datastore.lock_holder);
        out.set(entry + "/locks/global-lock/locked-time",
                date_and_time(std::chrono::system_clock::to_time_t(datastore.locked_since)));
    }
    uint32_t index = 0;
    while (const lys_module* module = ly_ctx_get_module_iter(ctx, &index)) {
        const std::string schema = state + "/schemas/schema[identifier='" + module->name + "'][version='" +
                                   (module->revision ? module->revision : "") + "'][format='yang']";
        out.set(schema + "/namespace", module->ns);
        out.set(schema + "/location", "NETCONF");
    }
    for (const SessionInfo& session : service.sessions.sessions()) {
        const std::string entry = state + "/sessions/session[session-id='" + std::to_string(session.id) + "']";
        out.set(entry + "/transport", transport_identity(session.transport));
        out.set(entry + "/username", session.username);
        if (!session.source_host.empty()) out.set(entry + "/source-host", session.source_host);
        out.set(entry + "/login-time", date_and_time(session.login_time));
        out.counters(entry, session.counters);
    }
    const ServerStatistics statistics = service.sessions.statistics();
    const std::string totals = state + "/statistics";
    out.set(totals + "/netconf-start-time", date_and_time(statistics.start_time));
    out.set(totals + "/in-bad-hellos", statistics.in_bad_hellos);
    out.set(totals + "/in-sessions", statistics.in_sessions);
    out.set(totals + "/dropped-sessions", statistics.dropped_sessions);
    out.counters(totals, statistics.counters);
    return out.release();
}

lyd_node* streams_data(const Service& service) {
    Builder out(service.context);
    const std::string stream = "/nc-notifications:netconf/streams/stream[name='NETCONF']";
    out.set(stream + "/description", "the RFC 6470 events of the daemon: configuration changes, sessions, "
                                     "confirmed commits");
    out.set(stream + "/replaySupport", "true");
    out.set(stream + "/replayLogCreationTime",
            date_and_time(std::chrono::system_clock::to_time_t(service.notifications.log_created())));
    return out.release();
}

lyd_node* library_data(const Service& service) {
    ly_ctx* ctx = service.context;
    lyd_node* library = nullptr;
    if (ly_ctx_get_yanglib_data(ctx, &library, "%u", ly_ctx_get_change_count(ctx)) != LY_SUCCESS)
        throw std::runtime_error("cannot report ietf-yang-library");
    Builder out(ctx, library);
    const char* schema = nullptr;
    for (const lyd_node* top = library; top && !schema; top = top->next) {
        if (std::string_view(LYD_NAME(top)) != "yang-library") continue;
        for (const lyd_node* child = lyd_child(top); child && !schema; child = child->next)
            if (std::string_view(LYD_NAME(child)) == "schema") schema = lyd_get_value(lyd_child(child));
    }
    if (!schema) throw std::runtime_error("ietf-yang-library names no schema");
    for (const DatastoreStatus& datastore : service.datastore.datastores())
        out.set(std::string(kLibrary) + "/datastore[name='ietf-datastores:" + datastore.name + "']/schema", schema);
    return out.release();
}

}  // namespace tavrik::netconf::detail
