// Fuzz target: the text checks and the detection matrix on arbitrary bytes
// and lengths. Every destination is a heap buffer of exactly the size the
// function is told, so that the sanitizers see a write past it; results are
// checked against what the functions promise.
#include <libxml/tree.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"

namespace {

using Strstrip = char* (*)(const char*, char*, int);
using RemovePrefix = int (*)(char*, int, char*, int);
using ContainsSpaces = unsigned (*)(const char*);
using ContainsSpacesMarks = unsigned (*)(char*);
using CheckNodeName = unsigned (*)(const char*, char*, char*, unsigned);
using ApiAtoi = unsigned (*)(unsigned char*, unsigned);
using CheckProtocol = unsigned (*)(const char*, char*, unsigned);
using CheckOne = unsigned (*)(char*, char*);
using CheckBoth = unsigned (*)(char*, char*, char*);
using ChildReaderFn = void (*)(xmlNodePtr, char*, unsigned, char*, unsigned);
using MatchType = void (*)(char*, unsigned*);
using MatchTypeCorrect = unsigned (*)(char*, char*);

struct Functions {
    Strstrip strstrip = tkfuzz::require<Strstrip>("AV_Strstrip");
    RemovePrefix removePrefix = tkfuzz::require<RemovePrefix>("AV_remove_prefix");
    ContainsSpaces containsSpaces = tkfuzz::require<ContainsSpaces>("AV_IsContainedSpaces");
    ContainsSpacesMarks containsSpacesMarks = tkfuzz::require<ContainsSpacesMarks>("AV_IsContainedSpacesMarks");
    CheckNodeName checkNodeName = tkfuzz::require<CheckNodeName>("AV_netconf_checkNodeName");
    ApiAtoi apiAtoi = tkfuzz::require<ApiAtoi>("AV_ApiAtoi");
    CheckProtocol checkProtocol = tkfuzz::require<CheckProtocol>("AV_CheckProtocolAndGetValid");
    CheckOne checkDirection = tkfuzz::require<CheckOne>("AV_CheckDetectDirConfig");
    CheckOne checkAction = tkfuzz::require<CheckOne>("AV_CheckDetectActionConfig");
    CheckBoth checkDetect = tkfuzz::require<CheckBoth>("AV_CheckDetectConfig");
    ChildReaderFn getDetectConfig = tkfuzz::require<ChildReaderFn>("AV_GetDetectConfig");
    ChildReaderFn getExceptAppConfig = tkfuzz::require<ChildReaderFn>("AV_GetExceptAppConfig");
    ChildReaderFn getSourceRangeConfig = tkfuzz::require<ChildReaderFn>("AV_GetSourceRangeConfig");
    MatchType matchType = tkfuzz::require<MatchType>("AV_GetInputMatchType");
    MatchTypeCorrect matchTypeCorrect = tkfuzz::require<MatchTypeCorrect>("AV_MatchTypeCorrect");
    unsigned char& debug = *tkfuzz::require<unsigned char*>("g_ucAvApiDebug");
};

// A heap buffer of exactly `size` bytes (none for a size of 0 or less),
// filled with `fill`.
class Buffer {
public:
    explicit Buffer(long size, char fill = 0) : size_(size > 0 ? static_cast<size_t>(size) : 0) {
        p_ = static_cast<char*>(std::malloc(size_));
        std::memset(p_, fill, size_);
    }
    Buffer(const std::string& text, size_t size) : Buffer(static_cast<long>(size)) {
        std::memcpy(p_, text.data(), std::min(size, text.size()));
    }
    ~Buffer() { std::free(p_); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    char* get() { return p_; }
    operator char*() { return p_; }
    bool terminated() const { return std::memchr(p_, 0, size_) != nullptr; }
    // The text up to its NUL, never reading past the buffer.
    std::string str() const { return std::string(p_, strnlen(p_, size_)); }
    bool all(char c) const {
        for (size_t i = 0; i < size_; ++i)
            if (p_[i] != c) return false;
        return true;
    }

private:
    size_t size_;
    char* p_;
};

constexpr char kUntouched = 0x5a;

bool blank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
// The text as the module sees it: up to its first NUL.
std::string cstr(const std::string& s) { return std::string(s.c_str()); }
std::string trimmed(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && blank(s[b])) ++b;
    while (e > b && blank(s[e - 1])) --e;
    return s.substr(b, e - b);
}
// What AV_Strstrip leaves in a destination of `size` bytes; nullopt: refused.
std::optional<std::string> stripped(const std::string& value, long size) {
    std::string t = trimmed(value);
    if (t.empty() || static_cast<long>(t.size()) >= size) return std::nullopt;
    return t;
}

void strstrip(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    long size = in.range(-2, 300);
    std::string value = cstr(in.rest());
    Buffer text(value, value.size() + 1), dst(size, kUntouched);
    const char* src = flags & 1 ? nullptr : text.get();
    char* d = flags & 2 ? nullptr : dst.get();
    char* r = f.strstrip(src, d, static_cast<int>(size));
    auto expected = src && d ? stripped(value, size) : std::nullopt;
    if (expected) {
        TKFUZZ_CHECK(r == d && *expected == d);
    } else {
        TKFUZZ_CHECK(r == nullptr && dst.all(kUntouched));
    }
}

void removePrefix(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    int srcLen = in.range(-4, 300);
    long size = in.range(-2, 64);
    std::string value = in.rest();
    Buffer text(value, value.size() + 1), dst(size);  // the callers clear the destination
    int r = f.removePrefix(flags & 1 ? nullptr : text.get(), srcLen, flags & 2 ? nullptr : dst.get(),
                           static_cast<int>(size));
    TKFUZZ_CHECK(r == (flags & 3 ? 1 : 0));
    TKFUZZ_CHECK(size <= 0 || dst.terminated());
}

void containsSpaces(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    std::string value = cstr(in.rest());
    Buffer text(value, value.size() + 1);
    unsigned r = f.containsSpaces(flags & 1 ? nullptr : text.get());
    bool spaces = !(flags & 1) && value.find_first_of(" \t\n\v\f\r") != std::string::npos;
    TKFUZZ_CHECK(r == (spaces ? 0u : 1u));
}

void containsSpacesMarks(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    std::string value = cstr(in.rest());
    std::string grown;
    bool marks = false;
    for (char c : value) {
        grown += c == '"' ? std::string("%22") : std::string(1, c);
        marks = marks || blank(c) || c == '?';
    }
    Buffer buf(value, grown.size() + 1);  // exactly the grown value and its NUL
    unsigned r = f.containsSpacesMarks(flags & 1 ? nullptr : buf.get());
    if (flags & 1) {
        TKFUZZ_CHECK(r == 1);
        return;
    }
    TKFUZZ_CHECK(r == (marks ? 0u : 1u));
    TKFUZZ_CHECK(grown == buf.get());
}

void checkNodeName(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    long size = in.range(0, 300);
    std::string value = cstr(in.rest());
    Buffer text(value, value.size() + 1), tmp(size), out(size, kUntouched);
    unsigned r = f.checkNodeName(flags & 1 ? nullptr : text.get(), tmp, out, static_cast<unsigned>(size));
    auto expected = flags & 1 ? std::nullopt : stripped(value, size);
    TKFUZZ_CHECK(r == (expected ? 0u : 1u));
    if (expected)
        TKFUZZ_CHECK(*expected == tmp.get() && out.terminated());
    else
        TKFUZZ_CHECK(out.all(kUntouched));
}

void apiAtoi(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    unsigned len = in.u16();
    std::string digits = in.rest();
    len %= static_cast<unsigned>(digits.size() + 1);
    Buffer buf(digits, len);  // exactly len bytes, no terminator
    unsigned r = f.apiAtoi(flags & 1 ? nullptr : reinterpret_cast<unsigned char*>(buf.get()), len);
    unsigned expected = len == 0 || (flags & 1) ? 0xFFFFFFFFu : 0;
    for (unsigned i = 0; i < len && !(flags & 1); ++i) {
        if (digits[i] < '0' || digits[i] > '9') {
            expected = 0xFFFFFFFFu;
            break;
        }
        expected = expected * 10u + static_cast<unsigned>(digits[i] - '0');
    }
    TKFUZZ_CHECK(r == expected);
}

bool isProtocol(const std::string& s) {
    for (const char* p : {"http", "ftp", "smtp", "pop3", "imap", "nfs", "smb"})
        if (s == p) return true;
    return false;
}

void checkProtocol(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    long size = in.range(0, 64);
    std::string value = cstr(in.rest());
    Buffer text(value, value.size() + 1), dst(size, kUntouched);
    unsigned r =
        f.checkProtocol(flags & 1 ? nullptr : text.get(), flags & 2 ? nullptr : dst.get(), static_cast<unsigned>(size));
    auto expected = flags & 3 ? std::nullopt : stripped(value, size);
    bool keyword = expected && isProtocol(*expected);
    TKFUZZ_CHECK(r == (keyword ? 0u : 1u));
    if (keyword) TKFUZZ_CHECK(*expected == dst.get());
}

void checkMatrix(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    std::string direction = cstr(in.text()), action = cstr(in.text()), protocol = cstr(in.rest());
    Buffer d(direction, direction.size() + 1), a(action, action.size() + 1), p(protocol, protocol.size() + 1);
    unsigned dir = f.checkDirection(d, p);
    unsigned act = f.checkAction(a, p);
    TKFUZZ_CHECK(dir <= 1 && act <= 1);
    TKFUZZ_CHECK(dir == 0 || !(direction.empty() || direction == "none"));
    TKFUZZ_CHECK(act == 0 || !action.empty());
    unsigned both = f.checkDetect(flags & 1 ? nullptr : d.get(), flags & 2 ? nullptr : a.get(), p);
    TKFUZZ_CHECK(both == ((flags & 3) || dir || act ? 1u : 0u));
}

// The readers of one child element of a list entry: the child's name picks
// which of the two buffers receives its trimmed text.
struct ChildReader {
    ChildReaderFn Functions::*fn;
    const char* first;
    const char* second;
};
constexpr ChildReader kChildReaders[] = {
    {&Functions::getDetectConfig, "direction", "action"},
    {&Functions::getExceptAppConfig, "application-name", "application-action"},
    {&Functions::getSourceRangeConfig, "start-address", "end-address"},
};

void readChild(const Functions& f, tkfuzz::FuzzInput& in, unsigned) {
    const ChildReader& reader = kChildReaders[in.byte() % std::size(kChildReaders)];
    unsigned kind = in.byte() % 3;
    std::string name = kind == 0 ? reader.first : kind == 1 ? reader.second : cstr(in.text());
    long size1 = in.range(0, 64), size2 = in.range(0, 64);
    auto content = in.optionalText();
    xmlNodePtr node = xmlNewNode(nullptr, reinterpret_cast<const xmlChar*>(name.empty() ? "x" : name.c_str()));
    if (content)
        xmlNodeAddContentLen(node, reinterpret_cast<const xmlChar*>(content->data()),
                             static_cast<int>(content->size()));
    Buffer one(size1), two(size2);  // the callers clear them
    (f.*reader.fn)(node, one, static_cast<unsigned>(size1), two, static_cast<unsigned>(size2));
    xmlFreeNode(node);
    // The buffer the name picks holds the trimmed text, or stays cleared; the other one stays cleared.
    std::string text = content ? stripped(cstr(*content), name == reader.first ? size1 : size2).value_or("") : "";
    TKFUZZ_CHECK(one.str() == (name == reader.first ? text : ""));
    TKFUZZ_CHECK(two.str() == (name == reader.second ? text : ""));
}

// Whitelist values: the match type implied by asterisks at the ends.
void matchType(const Functions& f, tkfuzz::FuzzInput& in, unsigned flags) {
    std::string type = cstr(in.text()), value = cstr(in.rest());
    Buffer v(value, value.size() + 1), t(type, type.size() + 1);
    unsigned implied = 4;  // left alone for a null or empty value
    f.matchType(flags & 1 ? nullptr : v.get(), &implied);
    unsigned correct = f.matchTypeCorrect(flags & 1 ? nullptr : v.get(), flags & 2 ? nullptr : t.get());
    const char* names[] = {"prefix", "suffix", "fuzzy", "exact"};
    unsigned want = 4;
    if (!(flags & 1) && !value.empty()) {
        bool head = value.front() == '*', tail = value.back() == '*';
        want = head && tail ? 2 : tail ? 0 : head ? 1 : 3;
    }
    TKFUZZ_CHECK(implied == want);
    TKFUZZ_CHECK(correct == ((flags & 2) || want == 4 || type != names[want] ? 1u : 0u));
    TKFUZZ_CHECK(value == v.get());  // read only
}

using Case = void (*)(const Functions&, tkfuzz::FuzzInput&, unsigned);
constexpr Case kCases[] = {strstrip, removePrefix,  containsSpaces, containsSpacesMarks, checkNodeName,
                           apiAtoi,  checkProtocol, checkMatrix,    readChild,           matchType};

}  // namespace

void tkfuzz::prepare() { tkfuzz::state<Functions>(); }

// Input: case selector, flags (bit 0 and 1: a null pointer argument where the
// function takes one; bit 7: debug switch on), then the case's fields.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tkfuzz::FuzzInput in(data, size);
    Case c = kCases[in.byte() % std::size(kCases)];
    unsigned flags = in.byte();
    const Functions& f = tkfuzz::state<Functions>();
    f.debug = flags & 0x80 ? 1 : 0;
    c(f, in, flags);
    return 0;
}
