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
