// The change-handler frame: what every configuration handler of the module
// does the same way. A handler builds one of these, asks it for parent
// screening and keys, checks its own values, and ends with one of
// send..(), drop() or refuse().
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

// Prints one trace line when the debug switch is on; nothing otherwise.
void trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A fixed-size character buffer, always cleared before use and written only
// through the bounded formatter (at most N-1 characters).
template <size_t N>
struct Text {
    char buf[N];

    Text() { clear(); }
    void clear() { memset_s(buf, N, 0, N); }
    template <class... Args>
    const char* format(const char* fmt, Args... args) {
        clear();
        snprintf_s(buf, N, N - 1, fmt, args...);
        return buf;
    }
    bool empty() const { return buf[0] == '\0'; }
    bool is(const char* keyword) const { return strcmp(buf, keyword) == 0; }
    size_t length() const { return strlen(buf); }
    operator char*() { return buf; }
    operator const char*() const { return buf; }
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
inline bool nameIs(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>(name)) == 0;
}
inline bool oneOf(const char* text, std::initializer_list<const char*> keywords) {
    for (const char* keyword : keywords)
        if (strcmp(text, keyword) == 0) return true;
    return false;
}
inline bool contains(const char* text, char c) {
    return xmlStrchr(reinterpret_cast<const xmlChar*>(text), static_cast<xmlChar>(c)) != nullptr;
}

// Working set of one change: the path string, the message header, the
// refusal message. Frees what it allocated when the handler returns.
class Change {
public:
    Change(const Call& call, const char* path, int tracePoint = __builtin_LINE());
    ~Change();
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    int op() const { return call_.op; }
    xmlNodePtr node() const { return call_.node; }
    const char* path() const { return path_; }

    // True when one of the ancestors at `levels` is being removed in this edit.
    bool parentRemoved(std::initializer_list<int> levels) const;
    // Key leaf `key` of the ancestor `level` steps up, or null.
    const char* key(int level, const char* name) const;

    // Refuses the change for the client; nothing has been cached.
    int refuse(const char* message, NC_ERR code);
    int unknownOp() { return refuse("Unknown op.", NC_ERR_OP_FAILED); }
    // No line for this change: discards what is cached and succeeds.
    int drop();
    // Caches `line` for (vsys, view, template) and sends it with `cmdOp`;
    // returns the platform's verdict unchanged. `withOrigin` hands the path
    // string to the channel.
    int send(const char* vsys, const char* view, const char* viewTemplate, const char* line,
             CMD_OPERATION cmdOp, bool withOrigin = false);

private:
    Call call_;
    char* path_ = nullptr;
    char* message_ = nullptr;
    msg_dp_qmx_head_t header_;
};

enum class Normalise { Now, Later };

// Path string prefix of the handlers below a profile entry.
#define AV_PROFILE_PATH "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/"

// A change below a profile entry: screens the ancestors, looks up the vsys
// and profile keys (at the first two screened levels) and trims the profile
// name. After construction, finished() tells whether the handler is done
// (ancestor removed: result 0; key refused: the refusal's result).
class ProfileChange : public Change {
public:
    ProfileChange(const Call& call, const char* path, std::initializer_list<int> screened,
                  Normalise when = Normalise::Now, int tracePoint = __builtin_LINE());

    bool finished() const { return finished_; }
    int result() const { return result_; }
    // Trims the profile key into profile(); refuses when it cannot.
    bool normalise();
    // Ends the handler with `code` when a check fails.
    bool fail(const char* message, NC_ERR code) {
        result_ = refuse(message, code);
        finished_ = true;
        return false;
    }

    const char* vsys() const { return vsys_; }
    const char* profile() const { return profile_; }

    // Caches `line` in the view of this profile ("profile-av-<name>",
    // template "profile-av") and sends it.
    template <size_t ViewSize = 128>
    int sendInProfileView(const char* line, CMD_OPERATION cmdOp) {
        Text<ViewSize> view;
        view.format("profile-av-%s", profile_.buf);
        return send(vsys_, view, "profile-av", line, cmdOp);
    }

private:
    const char* vsys_ = nullptr;
    const char* profileKey_ = nullptr;
    Text<128> profile_;
    bool finished_ = false;
    int result_ = 0;
};

// Reads one child element of a list entry or container: the text of an
// element named `first` is trimmed into `firstOut`, of one named `second`
// into `secondOut`; other elements are ignored. A text that cannot be
// trimmed leaves its buffer as it was (trace only).
void readChildPair(xmlNodePtr child, const char* first, char* firstOut, unsigned int firstSize, const char* second,
                   char* secondOut, unsigned int secondSize);

// Reads `text` trimmed into `out`; false when it is missing, blank or too long.
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
    return AV_Strstrip(text, out.buf, limit) != nullptr;
}
