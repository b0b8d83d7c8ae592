// The change-handler frame: what every configuration handler of the module
// does the same way. A handler builds a Change, asks it for parent screening
// and keys, checks its own values, and ends with a Result of the frame:
// send..(), drop(), refuse(), kDone or kSilentFailure.
#pragma once

#include <ctype.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "qmx_channel.h"
#include "securec.h"
#include "transapi.h"

#define AV_VISIBLE __attribute__((visibility("default")))
#define AV_EXPORT extern "C" AV_VISIBLE

extern "C" unsigned char g_ucAvApiDebug;

namespace av {

// Prints one trace line; called through AV_TRACE, only when the debug
// switch is on.
void trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

// One trace line when the debug switch is on; nothing, not even a call,
// otherwise.
#define AV_TRACE(...) (g_ucAvApiDebug != 0 ? av::trace(__VA_ARGS__) : (void)0)

// `text` is the keyword: compared inline character by character up to the
// first difference, so never read past the text's terminator.
template <size_t N>
inline bool same(const char* text, const char (&keyword)[N]) {
    for (size_t i = 0; i < N; ++i)
        if (text[i] != keyword[i]) return false;
    return true;
}
template <size_t... N>
inline bool oneOf(const char* text, const char (&... keywords)[N]) {
    return (same(text, keywords) || ...);
}
// A fixed-size character buffer, cleared when it is made and written only
// through the bounded formatter (AV_FORMAT below) or bounded copies.
template <size_t N>
struct Text {
    char buf[N];

    Text() { clear(); }
    void clear() { memset_s(buf, N, 0, N); }
    bool empty() const { return buf[0] == '\0'; }
    template <size_t K>
    bool is(const char (&keyword)[K]) const {
        return same(buf, keyword);
    }
    size_t length() const { return strlen(buf); }
    operator char*() { return buf; }
    operator const char*() const { return buf; }
};

// Formats into `text` (an av::Text, cleared when it was made) with the
// bounded formatter, at most its size less one characters; yields its
// characters. A macro, so that the compiler checks the format against its
// values.
#define AV_FORMAT(text, ...) \
    ((void)snprintf_s((text).buf, sizeof((text).buf), sizeof((text).buf) - 1, __VA_ARGS__), (text).buf)

// Copies `source` into `out` (`size` bytes), cut at `size` - 1 characters:
// what formatting it with "%s" and that count gives, without the formatter.
void copyCut(char* out, size_t size, const char* source);

// What a callback returns: 0 when the change was carried out or needs no
// command, the platform's verdict, or what the refusal made of it. Only the
// frame makes one, and none can be dropped unread.
class [[nodiscard]] Result {
public:
    constexpr explicit Result(int value) : value_(value) {}
    constexpr operator int() const { return value_; }

private:
    int value_;
};

// The change needs no command.
inline constexpr Result kDone{0};
// The change fails without an error record: nothing is cached, sent or
// refused. Only where a handler's rules call for it (a leaf without text,
// a match-rule value that disagrees with its match type).
inline constexpr Result kSilentFailure{1};

// A step that may end the handler: empty to carry on, or the result to end
// with at once:    if (auto end = c.open({3, 1})) return *end;
class [[nodiscard]] Step {
public:
    constexpr Step() = default;
    constexpr Step(Result end) : ends_(true), end_(end) {}
    constexpr explicit operator bool() const { return ends_; }
    constexpr Result operator*() const { return end_; }

private:
    bool ends_ = false;
    Result end_ = kDone;
};

// The arguments every table callback receives.
struct Call {
    void** data;
    XMLDIFF_OP op;
    xmlNodePtr node;
    struct nc_err** error;
};

inline bool removes(int op) { return (op & XMLDIFF_REM) != 0; }
inline bool addsOrModifies(int op) { return (op & (XMLDIFF_ADD | XMLDIFF_MOD)) != 0; }
inline bool chains(int op) { return (op & XMLDIFF_CHAIN) != 0; }
template <size_t N>
inline bool nameIs(const xmlNode* node, const char (&name)[N]) {
    return node->type == XML_ELEMENT_NODE && same(reinterpret_cast<const char*>(node->name), name);
}
inline bool contains(const char* text, char c) { return strchr(text, c) != nullptr; }

// Working set of one change: the path string, the message header, the
// refusal message. Frees what it allocated when the handler returns. Every
// way a handler ends is a Result made here.
class Change {
public:
    Change(const Call& call, const char* path, int tracePoint = __builtin_LINE());
    ~Change();
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    int op() const { return call_.op; }
    xmlNodePtr node() const { return call_.node; }
    const char* path() const { return path_; }

    // Ends the handler with kDone when one of the ancestors at `levels` is
    // being removed in this edit.
    Step screen(std::initializer_list<int> levels) const;
    // Key leaf `key` of the ancestor `level` steps up, or null.
    const char* key(int level, const char* name) const {
        return priority_transapi_find_parent_key_node_content(level, call_.node, name);
    }

    // Refuses the change for the client; nothing has been cached.
    Result refuse(const char* message, NC_ERR code);
    Result unknownOp() { return refuse("Unknown op.", NC_ERR_OP_FAILED); }
    // No line for this change: discards what is cached and succeeds.
    Result drop();
    // Caches `line` for (vsys, view, template) and sends it with `cmdOp`;
    // ends with the platform's verdict unchanged. `withOrigin` hands the path
    // string to the channel.
    Result send(const char* vsys, const char* view, const char* viewTemplate, const char* line, CMD_OPERATION cmdOp,
                bool withOrigin = false);

private:
    Call call_;
    char* path_ = nullptr;
    char* message_ = nullptr;
    msg_dp_qmx_head_t header_;
};

enum class Normalise { Now, Later };

// Path string prefix of the handlers below a profile entry.
#define AV_PROFILE_PATH "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/"

// A change below a profile entry. open() screens the ancestors, looks up the
// vsys and profile keys (at the first two screened levels) and trims the
// profile name, unless the handler does that later with normalise().
class ProfileChange : public Change {
public:
    ProfileChange(const Call& call, const char* path, int tracePoint = __builtin_LINE())
        : Change(call, path, tracePoint) {}

    Step open(std::initializer_list<int> screened, Normalise when = Normalise::Now);
    // Trims the profile key into profile(); refuses when it cannot.
    Step normalise();

    const char* vsys() const { return vsys_; }
    const char* profile() const { return profile_; }

    // Caches `line` in the view of this profile ("profile-av-<name>",
    // template "profile-av") and sends it.
    template <size_t ViewSize = 128>
    Result sendInProfileView(const char* line, CMD_OPERATION cmdOp) {
        Text<ViewSize> view;
        return send(vsys_, AV_FORMAT(view, "profile-av-%s", profile_.buf), "profile-av", line, cmdOp);
    }

private:
    const char* vsys_ = nullptr;
    const char* profileKey_ = nullptr;
    Text<128> profile_;
};

// Reads one child element of a list entry or container: the text of an
// element named `first` is trimmed into `firstOut`, of one named `second`
// into `secondOut`; other elements are ignored. A text that cannot be
// trimmed leaves its buffer as it was (trace only).
template <size_t A, size_t B>
void readChildPair(xmlNodePtr child, const char (&first)[A], char* firstOut, unsigned int firstSize,
                   const char (&second)[B], char* secondOut, unsigned int secondSize);

// The C locale's white space, whatever locale the host runs in; a test of
// two ranges, not a call per character.
inline bool blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Copies `src` without its leading and trailing blanks into `dst` (`size`
// bytes with the NUL); null when either is null or the text is blank or too
// long. Overlapping source and destination leave the destination empty, as
// the bounded copy does. AV_Strstrip is this function.
inline char* strip(const char* src, char* dst, int size) {
    if (src == nullptr || dst == nullptr) return nullptr;
    while (blank(*src)) ++src;
    if (*src == '\0') return nullptr;
    const char* end = src + strlen(src);
    while (end - 1 > src && blank(end[-1])) --end;
    const long n = end - src;
    if (n >= size) return nullptr;
    if ((dst < src && dst + n > src) || (src < dst && src + n > dst))
        memset(dst, 0, static_cast<size_t>(size));
    else
        memcpy(dst, src, static_cast<size_t>(n));
    dst[n] = '\0';
    return dst;
}

// Without a ':' the source is copied as the bounded string copy with a count
// of `srcLen` copies it: cut at `srcLen`, or emptied when no terminator falls
// within the destination. With one, the characters after the first ':' up to
// the terminator, less every further ':', at most `dstLen`. The last byte of
// the destination is always a terminator. AV_remove_prefix is this function.
inline int removePrefix(const char* src, int srcLen, char* dst, int dstLen) {
    if (src == nullptr || dst == nullptr) return 1;
    if (dstLen <= 0) return 0;  // no room even for the terminator: write nothing
    const size_t size = static_cast<size_t>(dstLen);
    const size_t scanned = srcLen > 0 ? strnlen(src, static_cast<size_t>(srcLen)) : 0;
    const char* colon = static_cast<const char*>(memchr(src, ':', scanned));
    if (colon != nullptr) {
        size_t written = 0;
        for (const char* p = colon + 1; p < src + scanned && written < size; ++p)
            if (*p != ':') dst[written++] = *p;
    } else if (srcLen >= 0 && static_cast<size_t>(srcLen) < size) {
        memmove(dst, src, scanned);
        dst[scanned] = '\0';
    } else {
        const size_t n = strnlen(src, size);
        if (n >= size)
            dst[0] = '\0';
        else
            memmove(dst, src, n + 1);
    }
    dst[dstLen - 1] = '\0';
    return 0;
}

// removePrefix(text, strlen(text), out, N) with one pass over a text
// without ':'.
template <size_t N>
void removePrefix(const char* text, Text<N>& out) {
    const char* stop = strchrnul(text, ':');
    if (*stop != '\0') {
        removePrefix(text, static_cast<int>(strlen(text)), out.buf, static_cast<int>(N));
        return;
    }
    const size_t n = static_cast<size_t>(stop - text);
    if (n < N) {
        memcpy(out.buf, text, n);
        out.buf[n] = '\0';
    } else {
        out.buf[0] = '\0';
    }
    out.buf[N - 1] = '\0';
}

// Reads `text` trimmed into `out`; false when it is missing, blank or too long
// (`limit` bytes with the NUL).
template <size_t N>
bool trimInto(const char* text, Text<N>& out, int limit = static_cast<int>(N));

}  // namespace av

// Value rules shared by the handlers.
AV_EXPORT char* AV_Strstrip(const char* pcSrc, char* pcDst, int uiDstLen);
AV_EXPORT int AV_remove_prefix(char* pcSrcStr, int srcLen, char* psDstStr, int dstLen);
AV_EXPORT unsigned int AV_IsContainedSpaces(const char* pcSrc);
AV_EXPORT unsigned int AV_IsContainedSpacesMarks(char* pcSrc);
AV_EXPORT unsigned int AV_netconf_checkNodeName(const char* pcNodeContent, char* pcNodeTmp, char* pcNodeOutName,
                                                unsigned int uiLength);
AV_EXPORT unsigned int AV_ApiAtoi(unsigned char* pucStr, unsigned int uiLen);

template <size_t N>
bool av::trimInto(const char* text, Text<N>& out, int limit) {
    return strip(text, out.buf, limit) != nullptr;
}

template <size_t A, size_t B>
void av::readChildPair(xmlNodePtr child, const char (&first)[A], char* firstOut, unsigned int firstSize,
                       const char (&second)[B], char* secondOut, unsigned int secondSize) {
    if (child == nullptr) return;
    char* target = nullptr;
    unsigned int size = 0;
    if (nameIs(child, first)) {
        target = firstOut;
        size = firstSize;
    } else if (nameIs(child, second)) {
        target = secondOut;
        size = secondSize;
    } else {
        return;
    }
    if (strip(get_node_content(child), target, static_cast<int>(size)) == nullptr)
        AV_TRACE("av remove spaces failed,in %d\r\n", __LINE__);
}
