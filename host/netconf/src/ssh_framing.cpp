// The framing checks on SSH channels.
//
// libnetconf2 owns the SSH transport: it polls a channel with
// ssh_channel_poll_timeout and reads it with ssh_channel_read. The daemon
// defines both functions (the dynamic linker binds libnetconf2's calls to
// the program's definitions first); they pass what libssh received through
// a FrameReader per channel and show libnetconf2 whole messages only. A
// channel that breaks the framing reports SSH_ERROR, and libnetconf2 ends
// that session. The definitions of ssh_channel_free and ssh_free forget a
// channel's reader with the channel.
#include <dlfcn.h>
#include <libssh/libssh.h>
#include <nc_server.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "framing.hpp"
#include "service.hpp"

namespace tavrik::netconf::detail {
namespace {

template <typename Function>
Function libssh(const char* name) {
    void* found = ::dlvsym(RTLD_NEXT, name, "LIBSSH_4_5_0");
    if (!found) found = ::dlsym(RTLD_NEXT, name);
    if (!found) std::abort();
    return reinterpret_cast<Function>(found);
}

struct Real {
    decltype(&::ssh_channel_read) read = libssh<decltype(&::ssh_channel_read)>("ssh_channel_read");
    decltype(&::ssh_channel_poll_timeout) poll =
        libssh<decltype(&::ssh_channel_poll_timeout)>("ssh_channel_poll_timeout");
    decltype(&::ssh_channel_free) free_channel = libssh<decltype(&::ssh_channel_free)>("ssh_channel_free");
    decltype(&::ssh_free) free_session = libssh<decltype(&::ssh_free)>("ssh_free");
};

const Real& real() {
    static const Real functions;
    return functions;
}

struct Channel {
    std::mutex mutex;
    ssh_session session;
    FrameReader reader;
    std::uint32_t id = 0;  // the NETCONF session, once known
    bool reported = false;
};

class Channels {
public:
    std::shared_ptr<Channel> get(ssh_channel channel) {
        std::lock_guard lock(mutex_);
        auto& entry = channels_[channel];
        if (!entry) {
            entry = std::make_shared<Channel>();
            entry->session = ssh_channel_get_session(channel);
        }
        return entry;
    }
    void forget(ssh_channel channel) {
        std::lock_guard lock(mutex_);
        channels_.erase(channel);
    }
    void forget_session(ssh_session session) {
        std::lock_guard lock(mutex_);
        std::erase_if(channels_, [&](const auto& entry) { return entry.second->session == session; });
    }

private:
    std::mutex mutex_;
    std::unordered_map<ssh_channel, std::shared_ptr<Channel>> channels_;
};

// Lives as long as libssh might still be called (never destroyed).
Channels& channels() {
    static auto* registry = new Channels;
    return *registry;
}

// The channel whose <hello> this thread read last; libssh calling back into
// the definitions below goes straight to libssh.
thread_local ssh_channel t_hello_channel = nullptr;
thread_local bool t_inside = false;

class Inside {
public:
    Inside() { t_inside = true; }
    ~Inside() { t_inside = false; }
};

// Moves what libssh holds for the channel into its reader; the result of
// libssh's poll when it reports the end or an error, else 0.
int pull(ssh_channel channel, Channel& state, int timeout_ms) {
    const int available = real().poll(channel, timeout_ms, 0);
    if (available <= 0) return available;
    char buffer[65536];
    for (int left = available; left > 0 && !state.reader.failed();) {
        const int n = real().read(channel, buffer, static_cast<uint32_t>(std::min<int>(left, sizeof buffer)), 0);
        if (n == 0 || n == SSH_AGAIN) break;
        if (n < 0) return SSH_ERROR;
        state.reader.feed(std::string_view(buffer, static_cast<std::size_t>(n)));
        left -= n;
    }
    if (state.reader.awaiting_framing()) t_hello_channel = channel;
    return 0;
}

// SSH_ERROR once the channel broke the framing (logged once).
bool broken(Channel& state) {
    if (!state.reader.failed()) return false;
    if (!state.reported) log_line(NC_VERB_ERROR, state.id, state.reader.error() + "; the session ends");
    state.reported = true;
    return true;
}

}  // namespace

void ssh_hello_done(bool chunked, std::uint32_t session) {
    if (!t_hello_channel) return;
    const auto state = channels().get(t_hello_channel);
    t_hello_channel = nullptr;
    std::lock_guard lock(state->mutex);
    state->id = session;
    state->reader.set_framing(chunked);
}

}  // namespace tavrik::netconf::detail

using tavrik::netconf::detail::channels;
using tavrik::netconf::detail::real;

extern "C" int ssh_channel_poll_timeout(ssh_channel channel, int timeout, int is_stderr) {
    using namespace tavrik::netconf::detail;
    if (is_stderr || t_inside) return real().poll(channel, timeout, is_stderr);
    const Inside inside;
    const auto state = channels().get(channel);
    std::lock_guard lock(state->mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeout, 0));
    for (;;) {
        if (const auto ready = state->reader.ready().size()) return static_cast<int>(std::min<std::size_t>(ready, INT_MAX));
        if (broken(*state)) return SSH_ERROR;
        int left = timeout;
        if (timeout > 0) {
            const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            left = static_cast<int>(std::max<std::chrono::milliseconds::rep>(rest.count(), 0));
        }
        const int result = pull(channel, *state, left);
        if (!state->reader.ready().empty()) continue;
        if (broken(*state)) return SSH_ERROR;
        if (result < 0) return result;
        if (timeout == 0 || (timeout > 0 && left == 0)) return 0;
    }
}

extern "C" int ssh_channel_read(ssh_channel channel, void* dest, uint32_t count, int is_stderr) {
    using namespace tavrik::netconf::detail;
    if (is_stderr || t_inside) return real().read(channel, dest, count, is_stderr);
    const Inside inside;
    const auto state = channels().get(channel);
    std::lock_guard lock(state->mutex);
    if (state->reader.ready().empty() && !state->reader.failed()) pull(channel, *state, 0);
    const std::string_view ready = state->reader.ready();
    if (!ready.empty()) {
        const std::size_t n = std::min<std::size_t>(count, ready.size());
        std::memcpy(dest, ready.data(), n);
        state->reader.consume(n);
        return static_cast<int>(n);
    }
    return broken(*state) ? SSH_ERROR : 0;
}

extern "C" void ssh_channel_free(ssh_channel channel) {
    channels().forget(channel);
    real().free_channel(channel);
}

extern "C" void ssh_free(ssh_session session) {
    channels().forget_session(session);
    real().free_session(session);
}
