// The framing checks in front of libnetconf2: what passes as whole
// messages, what ends a session.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framing.hpp"

namespace tavrik::netconf::detail {
namespace {

constexpr std::string_view kHello = "<hello/>]]>]]>";

struct Outcome {
    std::string passed;  // bytes released as whole messages, hello included
    std::string error;
};

// Feeds `hello` and `after` in pieces of `step` bytes.
Outcome run(std::string_view after, bool chunked, std::size_t step, std::string_view hello = kHello) {
    FrameReader reader(1000);
    Outcome out;
    const std::string input = std::string(hello) + std::string(after);
    for (std::size_t i = 0; i < input.size() && !reader.failed(); i += step) {
        reader.feed(std::string_view(input).substr(i, step));
        if (reader.awaiting_framing()) reader.set_framing(chunked);
        out.passed += reader.ready();
        reader.consume(reader.ready().size());
    }
    out.error = reader.error();
    return out;
}

TEST(FrameReaderTest, PassesWholeMessagesAndStopsAtBrokenFraming) {
    const std::string chunked = "\n#5\n<a/>x\n#2\nyz\n##\n";
    const auto chunked_of = [](int n) { return "\n#" + std::to_string(n) + "\n" + std::string(n, 'x') + "\n##\n"; };
    const auto ended_of = [](int n) { return std::string(n, 'x') + "]]>]]>"; };
    struct Case {
        const char* what;
        bool chunked;
        std::string after;
        std::string passed;  // after the hello
        std::string error;
    };
    const std::vector<Case> cases = {
        {"chunked messages", true, chunked + " \r\n" + chunked, chunked + " \r\n" + chunked, ""},
        {"a message cut short waits", true, "\n#5\n<a/>", "", ""},
        {"end-of-message framing", false, "<rpc/>]]>]]><rpc/>]]", "<rpc/>]]>]]>", ""},
        {"non-numeric size", true, "\n#abc\n", "", "invalid chunk size"},
        {"size with a leading zero", true, "\n#05\n", "", "invalid chunk size"},
        {"size 0", true, "\n#0\n", "", "invalid chunk size"},
        {"size above 4294967295", true, "\n#4294967296\n", "", "chunk size above 4294967295"},
        {"size 4294967295, the largest", true, "\n#4294967295\n", "", "a message is larger than 1000 bytes"},
        {"size of 20 digits", true, "\n#18446744073709551615\n", "", "chunk size above 4294967295"},
        {"end of chunks first", true, "\n##\n", "", "end of chunks before any chunk"},
        {"chunk longer than its size", true, "\n#2\nabc\n##\n", "", "a chunk is longer than its size"},
        {"bytes between messages", true, chunked + "x\n#1\na\n##\n", chunked, "bytes outside a chunk"},
        {"end marker broken", true, "\n#1\na\n##x", "", "invalid end of chunks"},
        // The limit counts the framing, whether a message comes in one piece or in many.
        {"chunked at the limit", true, chunked_of(990), chunked_of(990), ""},
        {"chunked above the limit", true, chunked_of(991), "", "a message is larger than 1000 bytes"},
        {"end-of-message at the limit", false, ended_of(994), ended_of(994), ""},
        {"end-of-message above the limit", false, ended_of(995), "", "a message is larger than 1000 bytes"},
    };
    for (const Case& c : cases) {
        for (const std::size_t step : {std::size_t{1}, std::size_t{3}, std::size_t{4096}}) {
            SCOPED_TRACE(std::string(c.what) + ", pieces of " + std::to_string(step));
            const Outcome out = run(c.after, c.chunked, step);
            EXPECT_EQ(out.passed, std::string(kHello) + c.passed);
            EXPECT_EQ(out.error, c.error);
        }
    }
}

// A client that writes its hello in chunks still gets its session; the hello
// reaches libnetconf2 framed the way it reads one.
TEST(FrameReaderTest, AHelloInChunksIsPassedOnEndOfMessage) {
    const std::string rpc = "\n#6\n<rpc/>\n##\n";
    for (const std::string_view hello : {"\n#8\n<hello/>\n##\n", " \r\n#3\n<he\n#5\nllo/>\n##\n"}) {
        for (const std::size_t step : {std::size_t{1}, std::size_t{3}, std::size_t{4096}}) {
            SCOPED_TRACE(std::string(hello) + ", pieces of " + std::to_string(step));
            const Outcome out = run(rpc, true, step, hello);
            EXPECT_EQ(out.passed, std::string(kHello) + rpc);
            EXPECT_EQ(out.error, "");
        }
    }
    // A '#' that does not follow a line feed starts no chunk: that hello waits for its ]]>]]>.
    const Outcome waiting = run("", true, 4096, " #8\n<hello/>\n##\n");
    EXPECT_EQ(waiting.passed + waiting.error, "");
}

}  // namespace
}  // namespace tavrik::netconf::detail
