// Trimming, quoting and conversion of node text.
#include "av_frame.h"

namespace {
// The C locale's white space, whatever locale the host runs in; a test of
// two ranges, not a call per character.
bool blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
}  // namespace

AV_EXPORT char* AV_Strstrip(const char* pcSrc, char* pcDst, int uiDstLen) {
    if (pcSrc == nullptr || pcDst == nullptr) return nullptr;
    const char* start = pcSrc;
    while (*start != '\0' && blank(*start)) ++start;
    if (*start == '\0') return nullptr;
    const char* end = start + strlen(start) - 1;
    while (end > start && blank(*end)) --end;
    long n = end - start + 1;
    if (n >= uiDstLen) return nullptr;
    memcpy_s(pcDst, static_cast<size_t>(uiDstLen), start, static_cast<size_t>(n));
    pcDst[n] = '\0';
    return pcDst;
}

AV_EXPORT int AV_remove_prefix(char* pcSrcStr, int srcLen, char* psDstStr, int dstLen) {
    if (pcSrcStr == nullptr || psDstStr == nullptr) return 1;
    if (dstLen <= 0) return 0;  // no room even for the terminator: write nothing
    bool prefix = false;
    int written = 0;
    for (int i = 0; i < srcLen; ++i) {
        char c = pcSrcStr[i];
        if (c == ':') {
            prefix = true;
            continue;
        }
        if (c == '\0' || written >= dstLen) break;
        if (prefix) psDstStr[written++] = c;
    }
    if (!prefix) strncpy_s(psDstStr, static_cast<size_t>(dstLen), pcSrcStr, static_cast<size_t>(srcLen));
    psDstStr[dstLen - 1] = '\0';
    return 0;
}

AV_EXPORT unsigned int AV_IsContainedSpaces(const char* pcSrc) {
    if (pcSrc == nullptr) return 1;
    for (const char* p = pcSrc; *p != '\0'; ++p)
        if (blank(*p)) return 0;
    return 1;
}

// Rewrites every double quote as "%22" in place; the caller's buffer must
// hold the grown value (two more bytes per quote).
AV_EXPORT unsigned int AV_IsContainedSpacesMarks(char* pcSrc) {
    if (pcSrc == nullptr || *pcSrc == '\0') return 1;
    unsigned int uiContain = 0;
    for (char* p = pcSrc; *p != '\0'; ++p) {
        if (blank(*p) || *p == '?') {
            uiContain = 1;
        } else if (*p == '"') {
            memmove(p + 3, p + 1, strlen(p + 1) + 1);
            p[0] = '%';
            p[1] = '2';
            p[2] = '2';
            p += 2;
        }
    }
    return uiContain ? 0 : 1;
}

AV_EXPORT unsigned int AV_netconf_checkNodeName(const char* pcNodeContent, char* pcNodeTmp, char* pcNodeOutName,
                                                unsigned int uiLength) {
    if (AV_Strstrip(pcNodeContent, pcNodeTmp, static_cast<int>(uiLength)) == nullptr) {
        AV_TRACE("av remove spaces failed,in %d\r\n", __LINE__);
        return 1;
    }
    if (AV_IsContainedSpaces(pcNodeTmp) == 0)
        snprintf_s(pcNodeOutName, uiLength, uiLength - 1, "\"%s\"", pcNodeTmp);
    else
        av::copyCut(pcNodeOutName, uiLength, pcNodeTmp);
    return 0;
}

AV_EXPORT unsigned int AV_ApiAtoi(unsigned char* pucStr, unsigned int uiLen) {
    if (pucStr == nullptr || uiLen == 0) return 0xFFFFFFFFu;
    unsigned int value = 0;
    for (unsigned int i = 0; i < uiLen; ++i) {
        unsigned char c = pucStr[i];
        if (c < '0' || c > '9') return 0xFFFFFFFFu;
        value = value * 10u + static_cast<unsigned int>(c - '0');
    }
    return value;
}
