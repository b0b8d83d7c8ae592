// URL and host whitelist rules of a profile.
#include "av_handlers.h"

AV_EXPORT const char* const g_acAvMatchType[AV_MATCH_MAX] = {"prefix", "suffix", "fuzzy", "exact"};

AV_EXPORT void AV_GetInputMatchType(char* pcWhitelistUrl, unsigned int* puiType) {
    if (pcWhitelistUrl == nullptr || puiType == nullptr || pcWhitelistUrl[0] == '\0') return;
    bool b_PrefixFlg = pcWhitelistUrl[strlen(pcWhitelistUrl) - 1] == '*';
    bool b_SufixFlg = pcWhitelistUrl[0] == '*';
    if (b_PrefixFlg && b_SufixFlg)
        *puiType = AV_MATCH_FUZZY;
    else if (b_PrefixFlg)
        *puiType = AV_MATCH_PREFIX;
    else if (b_SufixFlg)
        *puiType = AV_MATCH_SUFIX;
    else
        *puiType = AV_MATCH_EXACT;
}

AV_EXPORT unsigned int AV_MatchTypeCorrect(char* pcWhitelistUrl, char* pcMatchType) {
    unsigned int uiType = AV_MATCH_MAX;
    if (pcWhitelistUrl == nullptr || pcMatchType == nullptr) return 1;
    AV_GetInputMatchType(pcWhitelistUrl, &uiType);
    if (uiType == AV_MATCH_MAX) return 1;
    return strcmp(pcMatchType, g_acAvMatchType[uiType]) == 0 ? 0 : 1;
}

namespace {
// One pass over a URL: its length once every double quote is written as
// "%22", its quotes, and whether it holds a blank or '?' (then the line
// quotes it).
struct UrlScan {
    size_t rewrittenLength = 0;
    size_t quotes = 0;
    bool quoted = false;

    explicit UrlScan(const char* value) {
        // Most URLs hold none of these: the C library finds the end at once.
        const char* p = value + strcspn(value, "\" \t\n\v\f\r?");
        for (; *p != '\0'; ++p) {
            if (*p == '"')
                ++quotes;
            else if (av::blank(*p) || *p == '?')
                quoted = true;
        }
        rewrittenLength = static_cast<size_t>(p - value) + 2 * quotes;
    }
};
}  // namespace

AV_HANDLER(callback_AV_ProfileWhitelistMatchRuleValue) {
    av::ProfileChange c({data, op, node, error}, AV_PROFILE_PATH "match-rule/value");
    if (auto end = c.open({6, 4})) return *end;

    const char* scope = c.key(1, "scope");
    if (scope == nullptr) return c.refuse("The profile match rule scope node is NULL.", NC_ERR_MISSING_ELEM);
    const char* type = c.key(1, "type");
    if (type == nullptr) return c.refuse("The profile match rule type node is NULL.", NC_ERR_MISSING_ELEM);

    const char* text = get_node_content(node);
    if (text == nullptr) return c.refuse("av whitelist url is null.", NC_ERR_MISSING_ELEM);
    av::Text<128> value;
    if (!av::trimInto(text, value)) return c.refuse("av remove spaces failed.", NC_ERR_BAD_ELEM);

    if (AV_MatchTypeCorrect(value, const_cast<char*>(type)) != 0) {
        AV_TRACE("Av whitelist match type is error,in  %d\r\n", __LINE__);
        return av::kSilentFailure;
    }

    const char* undo = av::removes(op) ? "undo " : "";

    av::Text<256> line;
    if (av::same(scope, "url")) {
        // A URL whose quotes, written as "%22", would not fit the value buffer
        // is as over-long as a value that does not fit as it stands.
        const UrlScan url(value);
        if (url.rewrittenLength >= sizeof value.buf) return c.refuse("av remove spaces failed.", NC_ERR_BAD_ELEM);
        if (url.quotes != 0) AV_IsContainedSpacesMarks(value);  // writes each quote as "%22"
        if (url.quoted)
            AV_FORMAT(line, "%swhitelist url \"%s\"", undo, value.buf);
        else
            AV_FORMAT(line, "%swhitelist url %s", undo, value.buf);
    } else if (av::same(scope, "host")) {
        AV_FORMAT(line, "%swhitelist host %s", undo, value.buf);
    } else {
        return c.refuse("Av whitelist match scope is error.", NC_ERR_BAD_ELEM);
    }
    if (av::removes(op)) return c.sendInProfileView<256>(line, CMD_DEL);
    if (av::addsOrModifies(op)) return c.sendInProfileView<256>(line, CMD_ADD);
    return c.unknownOp();
}
