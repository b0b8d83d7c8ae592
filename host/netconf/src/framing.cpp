#include "framing.hpp"

#include <fcntl.h>
#include <nc_server.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "service.hpp"

namespace tavrik::netconf::detail {

// ---- FrameReader --------------------------------------------------------------

namespace {
constexpr std::size_t kKeptCapacity = 64 * 1024;
}

bool FrameReader::feed(std::string_view bytes) {
    if (failed()) return false;
    buffer_.append(bytes);
    return parse();
}

void FrameReader::consume(std::size_t n) {
    head_ += std::min(n, ready_ - head_);
    if (head_ > buffer_.size() / 2) {
        buffer_.erase(0, head_);
        ready_ -= head_;
        pos_ -= head_;
        head_ = 0;
        // A large message is over: its buffer goes back to the system rather
        // than staying with the session as its high-water mark.
        if (buffer_.capacity() > kKeptCapacity && buffer_.size() < kKeptCapacity / 2) buffer_.shrink_to_fit();
    }
}

bool FrameReader::set_framing(bool chunked) {
    chunked_ = chunked;
    awaiting_framing_ = false;
    return failed() ? false : parse();
}

bool FrameReader::fail(std::string message) {
    error_ = std::move(message);
    return false;
}

bool FrameReader::within_limit(std::uint64_t framed) {
    return framed <= max_message_ || fail("a message is larger than " + std::to_string(max_message_) + " bytes");
}

// A client that switched to chunked framing before it wrote its <hello>
// (python3-ncclient 0.6.13 does when the server's hello is parsed before its
// own is sent; then the session would wait for a ]]>]]> that never comes):
// the hello starts with a chunk header after white space.
bool FrameReader::hello_in_chunks() const {
    const std::size_t first = buffer_.find_first_not_of(" \t\r\n", ready_);
    return first != std::string::npos && first > ready_ && buffer_[first] == '#' && buffer_[first - 1] == '\n';
}

// The hello read in chunks becomes its content framed end-of-message, the
// way libnetconf2 reads a hello. The chunks are well-formed: parse_chunked()
// checked them.
void FrameReader::unchunk_hello() {
    std::string hello;
    for (std::size_t at = buffer_.find('#', ready_) + 1; buffer_[at] != '#'; at = buffer_.find('#', at) + 1) {
        const std::size_t line_feed = buffer_.find('\n', at);
        const std::size_t size = std::stoull(buffer_.substr(at, line_feed - at));
        hello.append(buffer_, line_feed + 1, size);
        at = line_feed + 1 + size;
    }
    hello += "]]>]]>";
    buffer_.replace(ready_, pos_ - ready_, hello);
    pos_ = ready_ + hello.size();
}

void FrameReader::message_done() {
    if (!hello_done_ && chunked_) unchunk_hello();
    ready_ = pos_;
    if (!hello_done_) {
        hello_done_ = true;
        awaiting_framing_ = true;
    }
}

bool FrameReader::parse() {
    if (!hello_done_ && !chunked_ && hello_in_chunks()) {
        chunked_ = true;
        pos_ = ready_;
    }
    while (!awaiting_framing_ && pos_ < buffer_.size()) {
        const std::size_t before = pos_;
        if (!(chunked_ ? parse_chunked() : parse_end_of_message())) return false;
        if (pos_ == before) break;
    }
    return within_limit(buffer_.size() - ready_);  // a message not yet whole
}

bool FrameReader::parse_end_of_message() {
    static constexpr std::string_view kEnd = "]]>]]>";
    const std::size_t from = std::max(ready_, pos_ >= kEnd.size() ? pos_ - kEnd.size() + 1 : 0);
    const std::size_t end = buffer_.find(kEnd, from);
    if (end == std::string::npos) {
        pos_ = buffer_.size();
    } else {
        pos_ = end + kEnd.size();
        if (!within_limit(pos_ - ready_)) return false;
        message_done();
    }
    return true;
}

// chunked-message = 1*chunk end-of-chunks
// chunk = LF HASH chunk-size LF chunk-data; end-of-chunks = LF HASH HASH LF
// Between messages only white space may come (ending with the LF).
bool FrameReader::parse_chunked() {
    for (; pos_ < buffer_.size() && !awaiting_framing_;) {
        const char c = buffer_[pos_];
        switch (state_) {
        case State::Between:
            if (c == '#' && line_feed_) {
                state_ = State::Hash;
            } else if (c == '\n' || c == '\r' || c == ' ' || c == '\t') {
                line_feed_ = c == '\n';
            } else {
                return fail("bytes outside a chunk");
            }
            break;
        case State::Hash:
            if (c == '#') {
                if (chunks_ == 0) return fail("end of chunks before any chunk");
                state_ = State::EndOfChunks;
            } else if (c >= '1' && c <= '9') {
                number_ = static_cast<std::uint64_t>(c - '0');
                digits_ = 1;
                state_ = State::Size;
            } else {
                return fail("invalid chunk size");
            }
            break;
        case State::Size:
            if (c >= '0' && c <= '9') {
                if (++digits_ > 10) return fail("chunk size above 4294967295");
                number_ = number_ * 10 + static_cast<std::uint64_t>(c - '0');
            } else if (c == '\n') {
                if (number_ > kMaxChunk) return fail("chunk size above 4294967295");
                // This chunk, were it the last: its end-of-chunks follows.
                if (!within_limit(pos_ + 1 - ready_ + number_ + std::string_view("\n##\n").size())) return false;
                remaining_ = number_;
                state_ = State::Data;
            } else {
                return fail("invalid chunk size");
            }
            break;
        case State::Data: {
            const std::uint64_t take = std::min<std::uint64_t>(remaining_, buffer_.size() - pos_);
            pos_ += take;
            remaining_ -= take;
            if (remaining_ == 0) {
                ++chunks_;
                state_ = State::ChunkEnd;
            }
            continue;
        }
        case State::ChunkEnd:
            if (c != '\n') return fail("a chunk is longer than its size");
            state_ = State::ChunkHash;
            break;
        case State::ChunkHash:
            if (c != '#') return fail("a chunk is longer than its size");
            state_ = State::Hash;
            break;
        case State::EndOfChunks:
            if (c != '\n') return fail("invalid end of chunks");
            ++pos_;
            chunks_ = 0;
            line_feed_ = false;
            state_ = State::Between;
            message_done();
            continue;
        }
        ++pos_;
    }
    return true;
}

// ---- FramedInputs ---------------------------------------------------------------

struct FramedInputs::Input {
    int client;
    int to_server;  // write end of the pipe libnetconf2 reads; -1 once closed
    FrameReader reader;
    std::uint32_t session = 0;
    bool client_open = true;
    bool removed = false;
};

namespace {

// Unread whole messages beyond this stop reading from the client until
// libnetconf2 has taken them.
constexpr std::size_t kBacklog = std::size_t{1} << 20;

}  // namespace

FramedInputs::FramedInputs() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_ < 0) throw std::runtime_error("cannot create an event descriptor");
    thread_ = std::thread([this] { run(); });
}

FramedInputs::~FramedInputs() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake();
    thread_.join();
    for (Input& input : inputs_)
        if (input.to_server >= 0) ::close(input.to_server);
    ::close(wake_);
}

void FramedInputs::wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(wake_, &one, sizeof one);
}

int FramedInputs::add(int client, Handle& handle) {
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
    ::fcntl(pipe_fds[1], F_SETFL, O_NONBLOCK);
    {
        std::lock_guard lock(mutex_);
        handle = &inputs_.emplace_back(Input{client, pipe_fds[1], FrameReader(), 0, true, false});
    }
    wake();
    return pipe_fds[0];
}

void FramedInputs::set_framing(Handle handle, bool chunked, std::uint32_t session) {
    {
        std::lock_guard lock(mutex_);
        handle->session = session;
        if (!handle->reader.set_framing(chunked))
            log_line(NC_VERB_ERROR, session, handle->reader.error() + "; the session ends");
    }
    wake();
}

void FramedInputs::remove(Handle handle) {
    std::unique_lock lock(mutex_);
    handle->removed = true;
    const unsigned generation = generation_;
    wake();
    removed_.wait(lock, [&] { return generation_ != generation; });
}

void FramedInputs::run() {
    std::vector<pollfd> fds;
    std::vector<Input*> owners;
    std::vector<char> buffer(65536);
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        // Inputs removed by now are forgotten before anyone closes their
        // descriptors.
        const auto before = inputs_.size();
        inputs_.remove_if([](Input& input) {
            if (input.removed && input.to_server >= 0) ::close(input.to_server);
            return input.removed;
        });
        // Once nothing more can come, libnetconf2 gets the end of its input
        // (after the last whole message, unless the framing broke).
        for (Input& input : inputs_) {
            const bool drained = input.reader.ready().empty() || input.reader.failed();
            if ((!input.client_open || input.reader.failed()) && drained && input.to_server >= 0) {
                ::close(input.to_server);
                input.to_server = -1;
            }
        }
        if (inputs_.size() != before) {
            ++generation_;
            removed_.notify_all();
        }
        fds.assign(1, pollfd{wake_, POLLIN, 0});
        owners.assign(1, nullptr);
        for (Input& input : inputs_) {
            const std::string_view ready = input.reader.ready();
            if (input.client_open && !input.reader.failed() && ready.size() < kBacklog) {
                fds.push_back(pollfd{input.client, POLLIN, 0});
                owners.push_back(&input);
            }
            if (!ready.empty() && input.to_server >= 0) {
                fds.push_back(pollfd{input.to_server, POLLOUT, 0});
                owners.push_back(&input);
            }
        }
        lock.unlock();
        const int polled = ::poll(fds.data(), fds.size(), -1);
        lock.lock();
        if (polled < 0) continue;
        if (fds[0].revents) {
            std::uint64_t count;
            [[maybe_unused]] const auto n = ::read(wake_, &count, sizeof count);
        }
        for (std::size_t i = 1; i < fds.size(); ++i) {
            Input& input = *owners[i];
            if (!fds[i].revents || input.removed) continue;
            if (fds[i].fd == input.to_server) {
                const std::string_view ready = input.reader.ready();
                const ssize_t n = ::write(input.to_server, ready.data(), ready.size());
                if (n > 0) input.reader.consume(static_cast<std::size_t>(n));
                if (n < 0 && errno != EAGAIN && errno != EINTR) input.client_open = false;
            } else {
                const ssize_t n = ::read(input.client, buffer.data(), buffer.size());
                if (n > 0 && !input.reader.feed(std::string_view(buffer.data(), static_cast<std::size_t>(n))))
                    log_line(NC_VERB_ERROR, input.session, input.reader.error() + "; the session ends");
                if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) input.client_open = false;
            }
        }
    }
}

}  // namespace tavrik::netconf::detail
