// Which directions and actions each scanned protocol admits.
#include "av_handlers.h"

using av::oneOf;

AV_EXPORT unsigned int AV_CheckProtocolAndGetValid(const char* pcNodeContent, char* pcProtocol,
                                                   unsigned int uiProtocolLen) {
    if (pcNodeContent == nullptr || pcProtocol == nullptr) return 1;
    if (av::strip(pcNodeContent, pcProtocol, static_cast<int>(uiProtocolLen)) == nullptr) {
        AV_TRACE("av remove spaces failed,in %d\r\n", __LINE__);
        return 1;
    }
    return oneOf(pcProtocol, "http", "ftp", "smtp", "pop3", "imap", "nfs", "smb") ? 0 : 1;
}

AV_EXPORT void AV_GetDetectConfig(xmlNodePtr pstChild, char* pcDirection, unsigned int uiBufLen1, char* pcAction,
                                  unsigned int uiBufLen2) {
    av::readDetectConfig(pstChild, pcDirection, uiBufLen1, pcAction, uiBufLen2);
}

AV_EXPORT unsigned int AV_CheckDetectDirConfig(char* pcDirection, char* pcProtocol) {
    if (pcDirection == nullptr || pcProtocol == nullptr) return 1;
    if (pcDirection[0] == '\0' || av::same(pcDirection, "none")) return 0;
    if (av::same(pcProtocol, "smtp")) {
        if (av::same(pcDirection, "upload")) return 0;
        AV_TRACE("Av smtp detect direction error\r");
        return 1;
    }
    if (av::same(pcProtocol, "pop3")) {
        if (av::same(pcDirection, "download")) return 0;
        AV_TRACE("Av pop3 detect direction error\r");
        return 1;
    }
    if (oneOf(pcDirection, "both", "upload", "download")) return 0;
    AV_TRACE("Av detect direction error\r");
    return 1;
}

// Every action passes for a protocol outside the three groups ("imap"
// included): the platform's command line judges those.
AV_EXPORT unsigned int AV_CheckDetectActionConfig(char* pcAction, char* pcProtocol) {
    if (pcAction == nullptr || pcProtocol == nullptr) return 1;
    if (pcAction[0] == '\0') return 0;
    if (oneOf(pcProtocol, "smtp", "pop3")) {
        if (oneOf(pcAction, "alert", "declare", "delete-attachment")) return 0;
        AV_TRACE("Av mail detect action error\r");
        return 1;
    }
    if (oneOf(pcProtocol, "http", "ftp", "smb")) {
        if (oneOf(pcAction, "alert", "block")) return 0;
        AV_TRACE("Av http/ftp/smb detect action error\r");
        return 1;
    }
    if (av::same(pcProtocol, "nfs")) {
        if (av::same(pcAction, "alert")) return 0;
        AV_TRACE("Av nfs detect action error\r");
        return 1;
    }
    return 0;
}

AV_EXPORT unsigned int AV_CheckDetectConfig(char* pcDirection, char* pcAction, char* pcProtocol) {
    if (pcDirection == nullptr || pcAction == nullptr) return 1;
    if (AV_CheckDetectDirConfig(pcDirection, pcProtocol) != 0) return 1;
    return AV_CheckDetectActionConfig(pcAction, pcProtocol) != 0 ? 1 : 0;
}
