// Trimming, quoting and conversion of node text.
#include "av_frame.h"

using av::blank;

AV_EXPORT char* AV_Strstrip(const char* pcSrc, char* pcDst, int uiDstLen) { return av::strip(pcSrc, pcDst, uiDstLen); }

AV_EXPORT int AV_remove_prefix(char* pcSrcStr, int srcLen, char* psDstStr, int dstLen) {
    return av::removePrefix(pcSrcStr, srcLen, psDstStr, dstLen);
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
    if (av::strip(pcNodeContent, pcNodeTmp, static_cast<int>(uiLength)) == nullptr) {
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
