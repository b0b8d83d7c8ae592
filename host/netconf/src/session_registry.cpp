#include <nc_server.h>

#include "service.hpp"

namespace tavrik::netconf::detail {

SessionRegistry::SessionRegistry() { statistics_.start_time = std::time(nullptr); }

void SessionRegistry::add(nc_session* session, Transport transport, const std::string& username) {
    const char* host = nc_session_get_host(session);
    SessionInfo info{nc_session_get_id(session), transport, username, host ? host : "",
                     nc_session_get_start_time(session), {}};
    std::lock_guard lock(mutex_);
    sessions_[info.id] = Entry{session, std::move(info)};
    ++statistics_.in_sessions;
}

void SessionRegistry::remove(nc_session* session) {
    std::lock_guard lock(mutex_);
    if (sessions_.erase(nc_session_get_id(session)) == 0) return;
    const NC_SESSION_TERM_REASON reason = nc_session_get_term_reason(session);
    if (reason != NC_SESSION_TERM_CLOSED && reason != NC_SESSION_TERM_KILLED) ++statistics_.dropped_sessions;
}

bool SessionRegistry::kill(std::uint32_t id, std::uint32_t killer) {
    std::lock_guard lock(mutex_);
    const auto it = sessions_.find(id);
    if (it == sessions_.end()) return false;
    nc_session_set_term_reason(it->second.session, NC_SESSION_TERM_KILLED);
    nc_session_set_killed_by(it->second.session, killer);
    nc_session_set_status(it->second.session, NC_STATUS_INVALID);
    return true;
}

void SessionRegistry::bad_hello() {
    std::lock_guard lock(mutex_);
    ++statistics_.in_bad_hellos;
}

void SessionRegistry::count(const nc_session* session, int poll_result) {
    const auto add = [&](MessageCounters& counters) {
        counters.in_rpcs += (poll_result & NC_PSPOLL_RPC) != 0;
        counters.in_bad_rpcs += (poll_result & NC_PSPOLL_BAD_RPC) != 0;
        counters.out_rpc_errors += (poll_result & NC_PSPOLL_REPLY_ERROR) != 0;
    };
    std::lock_guard lock(mutex_);
    add(statistics_.counters);
    if (const auto it = sessions_.find(nc_session_get_id(session)); it != sessions_.end()) add(it->second.info.counters);
}

void SessionRegistry::count_notification(std::uint32_t id) {
    std::lock_guard lock(mutex_);
    ++statistics_.counters.out_notifications;
    if (const auto it = sessions_.find(id); it != sessions_.end()) ++it->second.info.counters.out_notifications;
}

std::vector<SessionInfo> SessionRegistry::sessions() const {
    std::lock_guard lock(mutex_);
    std::vector<SessionInfo> out;
    out.reserve(sessions_.size());
    for (const auto& [id, entry] : sessions_) out.push_back(entry.info);
    return out;
}

ServerStatistics SessionRegistry::statistics() const {
    std::lock_guard lock(mutex_);
    return statistics_;
}

}  // namespace tavrik::netconf::detail
