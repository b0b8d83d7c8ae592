// NETCONF message framing (RFC 6242), checked by the daemon before
// libnetconf2 reads a message.
//
// libnetconf2 2.0 must never see broken framing: a chunk header it cannot
// read ("#abc", "#0", "##" without a chunk) sends it down a path that
// dereferences a null pointer and takes the whole process with it, a chunk
// size of 2^64-1 makes it read into a one-byte buffer, and it waits inside
// its poll call (for up to 20 s) for the rest of a message that was cut
// short, while the sessions sharing that thread wait with it. So every byte
// a client sends goes through a FrameReader first, and libnetconf2 only gets
// whole, well-framed messages; a client that breaks the framing loses its
// session (as RFC 6242 says), and nobody else notices.
//
// Two transports use it: the sessions on descriptors the daemon owns (UNIX
// socket, standard streams) through FramedInputs below, and the SSH channels
// libnetconf2 owns through ssh_framing.cpp.
// Internal to tkav-netconfd.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace tavrik::netconf::detail {

// Splits what a peer sends into messages. The first message (the <hello>)
// is framed end-of-message (]]>]]>); a hello that comes in chunks is passed
// on framed end-of-message. Then the reader waits until told the framing
// the session agreed on.
class FrameReader {
public:
    static constexpr std::size_t kMaxMessage = std::size_t{64} << 20;
    static constexpr std::uint64_t kMaxChunk = 4294967295u;  // RFC 6242

    // A message may take up to `max_message` bytes with its framing (chunk
    // headers and end-of-chunks, or ]]>]]>), however its bytes arrive.
    explicit FrameReader(std::size_t max_message = kMaxMessage) : max_message_(max_message) {}

    // Takes bytes from the peer; false when they break the framing (then
    // error() says how, and the reader takes nothing more).
    bool feed(std::string_view bytes);
    // Whole messages received so far, exactly as received.
    std::string_view ready() const { return std::string_view(buffer_).substr(head_, ready_ - head_); }
    void consume(std::size_t n);
    // After the <hello>: until set_framing(), nothing more is split.
    bool awaiting_framing() const { return awaiting_framing_; }
    bool set_framing(bool chunked);  // false: held bytes break it
    bool failed() const { return !error_.empty(); }
    const std::string& error() const { return error_; }

private:
    enum class State { Between, Hash, Size, Data, ChunkEnd, ChunkHash, EndOfChunks };
    bool parse();
    bool parse_end_of_message();
    bool parse_chunked();
    bool hello_in_chunks() const;
    void unchunk_hello();
    bool fail(std::string message);
    // False (failed) when a message of `framed` bytes, framing included, is
    // larger than the limit.
    bool within_limit(std::uint64_t framed);
    void message_done();

    std::size_t max_message_;
    std::string buffer_;
    std::size_t head_ = 0;   // bytes before it are consumed
    std::size_t ready_ = 0;  // bytes before it are whole messages
    std::size_t pos_ = 0;    // parsed up to here
    bool chunked_ = false;
    bool awaiting_framing_ = false;
    bool hello_done_ = false;
    State state_ = State::Between;
    bool line_feed_ = false;  // Between: the last byte was a line feed
    std::uint64_t number_ = 0;
    unsigned digits_ = 0;
    std::uint64_t remaining_ = 0;
    unsigned chunks_ = 0;
    std::string error_;
};

// The input of sessions on descriptors the daemon owns. One thread reads
// what the clients send, splits it with a FrameReader each and writes whole
// messages into a pipe that libnetconf2 reads as the session's input. When
// a client breaks the framing the pipe closes at once; when it goes away,
// after its last whole message; either way libnetconf2 ends the session.
class FramedInputs {
public:
    struct Input;
    using Handle = Input*;

    FramedInputs();
    ~FramedInputs();
    FramedInputs(const FramedInputs&) = delete;
    FramedInputs& operator=(const FramedInputs&) = delete;

    // Starts reading `client` (which stays the caller's); returns the
    // descriptor to hand to libnetconf2 as the session's input (the
    // caller's too, to close after remove()), or -1.
    int add(int client, Handle& handle);
    // The framing the session agreed on in its <hello> exchange.
    void set_framing(Handle handle, bool chunked, std::uint32_t session);
    // Stops reading; once this returns the thread no longer touches the
    // client's descriptor.
    void remove(Handle handle);

private:
    void run();
    void wake() const;

    std::mutex mutex_;
    std::condition_variable removed_;
    std::list<Input> inputs_;
    int wake_ = -1;
    bool stopping_ = false;
    unsigned generation_ = 0;  // bumped each time the thread drops inputs
    std::thread thread_;
};

// SSH channels: libnetconf2 reads them through ssh_channel_read and
// ssh_channel_poll_timeout, which the daemon provides (ssh_framing.cpp) so
// that the same checks apply. After libnetconf2 accepted a session (or a
// new channel of one) in the calling thread, this tells the channel whose
// <hello> that thread read last the framing the session agreed on.
void ssh_hello_done(bool chunked, std::uint32_t session);

}  // namespace tavrik::netconf::detail
