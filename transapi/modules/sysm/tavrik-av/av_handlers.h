// The module's change handlers, one per configuration node family. Each is
// reached through its ADD and Delete wrappers in the callback table.
#pragma once

#include "av_frame.h"

#define AV_HANDLER(name) AV_EXPORT int name(void** data, XMLDIFF_OP op, xmlNodePtr node, struct nc_err** error)

AV_HANDLER(callback_AV_VsysEnable);
AV_HANDLER(callback_AV_Profile);
AV_HANDLER(callback_AV_ProfileDescription);
AV_HANDLER(callback_AV_ProfileAttack);
AV_HANDLER(callback_AV_ProfileInterworking);
AV_HANDLER(callback_AV_ProfileHeuristic);
AV_HANDLER(callback_AV_ProfileDetect);
AV_HANDLER(callback_AV_ProfileDetectConfig);
AV_HANDLER(callback_AV_ProfileDetectConfigDirection);
AV_HANDLER(callback_AV_ProfileDetectConfigAction);
AV_HANDLER(callback_AV_ProfileExceptApplication);
AV_HANDLER(callback_AV_ProfileApplicationAction);
AV_HANDLER(callback_AV_ProfileExceptID);
AV_HANDLER(callback_AV_ProfileExceptSignature);
AV_HANDLER(callback_AV_ProfileExceptSignatureAction);
AV_HANDLER(callback_AV_ProfileExceptSignatureTimeout);
AV_HANDLER(callback_AV_ProfileWhitelistMatchRuleValue);
AV_HANDLER(callback_AV_ProfileWhitelistsourceAddress);
AV_HANDLER(callback_AV_ProfileWhitelistsourceAddressRange);
AV_HANDLER(callback_AV_ProfileWhitelistdestinationAddress);
AV_HANDLER(callback_AV_ProfileWhitelistdestinationAddressRange);
AV_HANDLER(callback_AV_GlobalFilerpuAgingTime);
AV_HANDLER(callback_AV_GlobalFilerpuAgingTimeHour);

// Detection matrix.
AV_EXPORT unsigned int AV_CheckProtocolAndGetValid(const char* pcNodeContent, char* pcProtocol,
                                                   unsigned int uiProtocolLen);
AV_EXPORT void AV_GetDetectConfig(xmlNodePtr pstChild, char* pcDirection, unsigned int uiBufLen1, char* pcAction,
                                  unsigned int uiBufLen2);
AV_EXPORT unsigned int AV_CheckDetectDirConfig(char* pcDirection, char* pcProtocol);
AV_EXPORT unsigned int AV_CheckDetectActionConfig(char* pcAction, char* pcProtocol);
AV_EXPORT unsigned int AV_CheckDetectConfig(char* pcDirection, char* pcAction, char* pcProtocol);

namespace av {
// Readers of one child element of a list entry (see readChildPair), inline;
// AV_GetDetectConfig, AV_GetExceptAppConfig and AV_GetSourceRangeConfig are
// these.
inline void readDetectConfig(xmlNodePtr child, char* direction, unsigned int directionSize, char* action,
                             unsigned int actionSize) {
    readChildPair(child, "direction", direction, directionSize, "action", action, actionSize);
}
inline void readExceptApp(xmlNodePtr child, char* name, unsigned int nameSize, char* action, unsigned int actionSize) {
    readChildPair(child, "application-name", name, nameSize, "application-action", action, actionSize);
}
inline void readRange(xmlNodePtr child, char* start, unsigned int startSize, char* end, unsigned int endSize) {
    readChildPair(child, "start-address", start, startSize, "end-address", end, endSize);
}
}  // namespace av

// Readers of one child element of a list entry.
AV_EXPORT void AV_GetExceptAppConfig(xmlNodePtr pstChild, char* pcExcetAppName, unsigned int uiBufLen1,
                                     char* pcExcetAction, unsigned int uiBufLen2);
AV_EXPORT void AV_GetSourceRangeConfig(xmlNodePtr pstChild, char* pcSourceIpStart, unsigned int uiBufLen1,
                                       char* pcSourceIpEnd, unsigned int uiBufLen2);

// Match types of a whitelist rule, implied by asterisks at the value's ends.
typedef enum tagAV_PATTERN_MATCH_TYPE {
    AV_MATCH_PREFIX = 0,
    AV_MATCH_SUFIX = 1,
    AV_MATCH_FUZZY = 2,
    AV_MATCH_EXACT = 3,
    AV_MATCH_MAX = 4
} AV_PATTERN_MATCH_TYPE;

AV_EXPORT const char* const g_acAvMatchType[AV_MATCH_MAX];
AV_EXPORT void AV_GetInputMatchType(char* pcWhitelistUrl, unsigned int* puiType);
AV_EXPORT unsigned int AV_MatchTypeCorrect(char* pcWhitelistUrl, char* pcMatchType);
