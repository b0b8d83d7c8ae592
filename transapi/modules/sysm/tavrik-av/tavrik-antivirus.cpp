// The antivirus module's plug-in boundary: the descriptors the server reads
// by name and the callback table, with its wrappers and no-op callbacks.
#include "av_handlers.h"

namespace av {

// ADD wrapper: lets through changes without the removal bit.
template <int (*Handler)(void**, XMLDIFF_OP, xmlNodePtr, struct nc_err**)>
int onAdd(void** data, XMLDIFF_OP op, xmlNodePtr node, struct nc_err** error) {
    if (op & XMLDIFF_REM) return 0;
    return Handler(data, transapi_transform_op(op), node, error);
}

// Delete wrapper: lets through only changes with the removal bit.
template <int (*Handler)(void**, XMLDIFF_OP, xmlNodePtr, struct nc_err**)>
int onDelete(void** data, XMLDIFF_OP op, xmlNodePtr node, struct nc_err** error) {
    if (!(op & XMLDIFF_REM)) return 0;
    return Handler(data, transapi_transform_op(op), node, error);
}

}  // namespace av

// Row kinds: how a row's function is defined and named.
#define AV_DEFINE_NOOP(fn) \
    AV_EXPORT int fn(void**, XMLDIFF_OP, xmlNodePtr, struct nc_err**) { return 0; }
#define AV_DEFINE_ADD(fn)                                                                \
    AV_EXPORT int fn##_ADD(void** data, XMLDIFF_OP op, xmlNodePtr node, struct nc_err** error) { \
        return av::onAdd<fn>(data, op, node, error);                                     \
    }
#define AV_DEFINE_DELETE(fn)                                                                \
    AV_EXPORT int fn##_Delete(void** data, XMLDIFF_OP op, xmlNodePtr node, struct nc_err** error) { \
        return av::onDelete<fn>(data, op, node, error);                                     \
    }
#define AV_NAME_NOOP(fn) fn
#define AV_NAME_ADD(fn) fn##_ADD
#define AV_NAME_DELETE(fn) fn##_Delete

#define CFG "/tk-antivirus:antivirus"
#define VSYS CFG "/tk-antivirus:vsys"
#define PROFILE VSYS "/tk-antivirus:profiles/tk-antivirus:profile"
#define DETECT PROFILE "/tk-antivirus:detect"
#define DETECT_CONFIG DETECT "/tk-antivirus:detect-configuration"
#define EXCEPT_APP PROFILE "/tk-antivirus:exception-application"
#define EXCEPT_SIG PROFILE "/tk-antivirus:exception-signature"
#define WHITELISTS PROFILE "/tk-antivirus:whitelists"
#define MATCH_RULE WHITELISTS "/tk-antivirus:match-rules/tk-antivirus:match-rule"
#define SRC_RANGE WHITELISTS "/tk-antivirus:source-address-range"
#define DST_RANGE WHITELISTS "/tk-antivirus:destination-address-range"
#define GLOBAL CFG "/tk-antivirus:global"
#define STATE "/tk-antivirus:antivirus-state"

#define DISABLED CLBCKS_PRIORITY_FUNC_DISABLE
#define OBJ_ADD CLBCKS_PRIORITY_OBJECT_ADD
#define OBJ_DEL CLBCKS_PRIORITY_OBJECT_DEL
#define COM_ADD CLBCKS_PRIORITY_COMMON_ADD
#define COM_DEL CLBCKS_PRIORITY_COMMON_DEL

// The callback table, in row order: path, function (change handler for the
// wrapper rows), kind, priority.
#define AV_CALLBACK_TABLE(ROW) \
  ROW(VSYS, callback_AV_Vsys, NOOP, DISABLED) \
  ROW(VSYS "/tk-antivirus:name", callback_AV_VsysName, NOOP, DISABLED) \
  ROW(VSYS "/tk-antivirus:antivirus-enable", callback_AV_VsysEnable, ADD, OBJ_ADD) \
  ROW(VSYS "/tk-antivirus:antivirus-enable", callback_AV_VsysEnable, DELETE, OBJ_DEL) \
  ROW(VSYS "/tk-antivirus:profiles", callback_AV_AllProfile, NOOP, DISABLED) \
  ROW(PROFILE, callback_AV_Profile, ADD, OBJ_ADD) \
  ROW(PROFILE, callback_AV_Profile, DELETE, OBJ_DEL) \
  ROW(PROFILE "/tk-antivirus:name", callback_AV_ProfileName, NOOP, OBJ_ADD) \
  ROW(PROFILE "/tk-antivirus:description", callback_AV_ProfileDescription, ADD, COM_ADD) \
  ROW(PROFILE "/tk-antivirus:description", callback_AV_ProfileDescription, DELETE, COM_DEL) \
  ROW(PROFILE "/tk-antivirus:collect-attack-evidence-enable", callback_AV_ProfileAttack, ADD, COM_ADD) \
  ROW(PROFILE "/tk-antivirus:collect-attack-evidence-enable", callback_AV_ProfileAttack, DELETE, COM_DEL) \
  ROW(PROFILE "/tk-antivirus:interworking-detect-enable", callback_AV_ProfileInterworking, ADD, COM_ADD) \
  ROW(PROFILE "/tk-antivirus:interworking-detect-enable", callback_AV_ProfileInterworking, DELETE, COM_DEL) \
  ROW(PROFILE "/tk-antivirus:heuristic-detect-enable", callback_AV_ProfileHeuristic, ADD, COM_ADD) \
  ROW(PROFILE "/tk-antivirus:heuristic-detect-enable", callback_AV_ProfileHeuristic, DELETE, COM_DEL) \
  ROW(DETECT, callback_AV_ProfileDetect, ADD, COM_ADD) \
  ROW(DETECT, callback_AV_ProfileDetect, DELETE, COM_DEL) \
  ROW(DETECT "/tk-antivirus:protocol-type", callback_AV_ProfileProtocolType_ADD, NOOP, COM_ADD) \
  ROW(DETECT_CONFIG, callback_AV_ProfileDetectConfig, ADD, COM_ADD) \
  ROW(DETECT_CONFIG, callback_AV_ProfileDetectConfig, DELETE, COM_DEL) \
  ROW(DETECT_CONFIG "/tk-antivirus:direction", callback_AV_ProfileDetectConfigDirection, ADD, COM_ADD) \
  ROW(DETECT_CONFIG "/tk-antivirus:direction", callback_AV_ProfileDetectConfigDirection, DELETE, COM_DEL) \
  ROW(DETECT_CONFIG "/tk-antivirus:action", callback_AV_ProfileDetectConfigAction, ADD, COM_ADD) \
  ROW(DETECT_CONFIG "/tk-antivirus:action", callback_AV_ProfileDetectConfigAction, DELETE, COM_DEL) \
  ROW(EXCEPT_APP, callback_AV_ProfileExceptApplication, ADD, COM_ADD) \
  ROW(EXCEPT_APP, callback_AV_ProfileExceptApplication, DELETE, COM_DEL) \
  ROW(EXCEPT_APP "/tk-antivirus:application-name", callback_AV_ProfileApplicationName_ADD, NOOP, COM_ADD) \
  ROW(EXCEPT_APP "/tk-antivirus:application-action", callback_AV_ProfileApplicationAction, ADD, COM_ADD) \
  ROW(EXCEPT_APP "/tk-antivirus:application-action", callback_AV_ProfileApplicationAction, DELETE, COM_DEL) \
  ROW(PROFILE "/tk-antivirus:exception-signature-id", callback_AV_ProfileExceptID, ADD, COM_ADD) \
  ROW(PROFILE "/tk-antivirus:exception-signature-id", callback_AV_ProfileExceptID, DELETE, COM_DEL) \
  ROW(EXCEPT_SIG, callback_AV_ProfileExceptSignature, ADD, COM_ADD) \
  ROW(EXCEPT_SIG, callback_AV_ProfileExceptSignature, DELETE, COM_DEL) \
  ROW(EXCEPT_SIG "/tk-antivirus:id", callback_AV_ProfileExceptSignatureId_ADD, NOOP, COM_ADD) \
  ROW(EXCEPT_SIG "/tk-antivirus:action", callback_AV_ProfileExceptSignatureAction, ADD, COM_ADD) \
  ROW(EXCEPT_SIG "/tk-antivirus:action", callback_AV_ProfileExceptSignatureAction, DELETE, COM_DEL) \
  ROW(EXCEPT_SIG "/tk-antivirus:timeout", callback_AV_ProfileExceptSignatureTimeout, ADD, COM_ADD) \
  ROW(EXCEPT_SIG "/tk-antivirus:timeout", callback_AV_ProfileExceptSignatureTimeout, DELETE, COM_DEL) \
  ROW(WHITELISTS, callback_AV_ProfileWhitelist_ADD, NOOP, COM_ADD) \
  ROW(WHITELISTS "/tk-antivirus:match-rules", callback_AV_ProfileWhitelistMatchRules_ADD, NOOP, COM_ADD) \
  ROW(MATCH_RULE, callback_AV_ProfileWhitelistMatchRule_ADD, NOOP, COM_ADD) \
  ROW(MATCH_RULE "/tk-antivirus:scope", callback_AV_ProfileWhitelistMatchRuleScope_ADD, NOOP, COM_ADD) \
  ROW(MATCH_RULE "/tk-antivirus:type", callback_AV_ProfileWhitelistMatchRuleType_ADD, NOOP, COM_ADD) \
  ROW(MATCH_RULE "/tk-antivirus:value", callback_AV_ProfileWhitelistMatchRuleValue, ADD, COM_ADD) \
  ROW(MATCH_RULE "/tk-antivirus:value", callback_AV_ProfileWhitelistMatchRuleValue, DELETE, COM_DEL) \
  ROW(WHITELISTS "/tk-antivirus:source-address", callback_AV_ProfileWhitelistsourceAddress, ADD, COM_ADD) \
  ROW(WHITELISTS "/tk-antivirus:source-address", callback_AV_ProfileWhitelistsourceAddress, DELETE, COM_DEL) \
  ROW(SRC_RANGE, callback_AV_ProfileWhitelistsourceAddressRange, ADD, COM_ADD) \
  ROW(SRC_RANGE, callback_AV_ProfileWhitelistsourceAddressRange, DELETE, COM_DEL) \
  ROW(SRC_RANGE "/tk-antivirus:start-address", callback_AV_ProfileWhitelistsourceAddressRangeStart_ADD, NOOP, COM_ADD) \
  ROW(SRC_RANGE "/tk-antivirus:end-address", callback_AV_ProfileWhitelistsourceAddressRangeEnd_ADD, NOOP, COM_ADD) \
  ROW(WHITELISTS "/tk-antivirus:destination-address", callback_AV_ProfileWhitelistdestinationAddress, ADD, COM_ADD) \
  ROW(WHITELISTS "/tk-antivirus:destination-address", callback_AV_ProfileWhitelistdestinationAddress, DELETE, COM_DEL) \
  ROW(DST_RANGE, callback_AV_ProfileWhitelistdestinationAddressRange, ADD, COM_ADD) \
  ROW(DST_RANGE, callback_AV_ProfileWhitelistdestinationAddressRange, DELETE, COM_DEL) \
  ROW(DST_RANGE "/tk-antivirus:start-address", callback_AV_ProfileWhitelistdestinationAddressRangeStart_ADD, NOOP, COM_ADD) \
  ROW(DST_RANGE "/tk-antivirus:end-address", callback_AV_ProfileWhitelistdestinationAddressRangeEnd_ADD, NOOP, COM_ADD) \
  ROW(GLOBAL, callback_AV_Global, NOOP, COM_ADD) \
  ROW(GLOBAL "/tk-antivirus:file-reputation-age-time", callback_AV_GlobalFilerpuAgingTime, ADD, COM_ADD) \
  ROW(GLOBAL "/tk-antivirus:file-reputation-age-time", callback_AV_GlobalFilerpuAgingTime, DELETE, COM_DEL) \
  ROW(GLOBAL "/tk-antivirus:file-reputation-age-time-hour", callback_AV_GlobalFilerpuAgingTimeHour, ADD, COM_ADD) \
  ROW(GLOBAL "/tk-antivirus:file-reputation-age-time-hour", callback_AV_GlobalFilerpuAgingTimeHour, DELETE, COM_DEL) \
  ROW(STATE "/tk-antivirus:vsys", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:vsys/tk-antivirus:name", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys_tk_antivirus_name, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:vsys/tk-antivirus:profiles", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys_tk_antivirus_profiles, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys_tk_antivirus_profiles_tk_antivirus_profile, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/tk-antivirus:name", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys_tk_antivirus_profiles_tk_antivirus_profile_tk_antivirus_name, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/tk-antivirus:reference-count", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys_tk_antivirus_profiles_tk_antivirus_profile_tk_antivirus_reference_count, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/tk-antivirus:exception-signature", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys_tk_antivirus_profiles_tk_antivirus_profile_tk_antivirus_exception_signature, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/tk-antivirus:exception-signature/tk-antivirus:signature-id", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys_tk_antivirus_profiles_tk_antivirus_profile_tk_antivirus_exception_signature_tk_antivirus_signature_id, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/tk-antivirus:exception-signature/tk-antivirus:signature-name", callback_tk_antivirus_antivirus_state_tk_antivirus_vsys_tk_antivirus_profiles_tk_antivirus_profile_tk_antivirus_exception_signature_tk_antivirus_signature_name, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:exception-application", callback_tk_antivirus_antivirus_state_tk_antivirus_exception_application, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:exception-application/tk-antivirus:application-name", callback_tk_antivirus_antivirus_state_tk_antivirus_exception_application_tk_antivirus_application_name, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:exception-application/tk-antivirus:application-name/tk-antivirus:name", callback_tk_antivirus_antivirus_state_tk_antivirus_exception_application_tk_antivirus_application_name_tk_antivirus_name, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:name", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_name, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:description", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_description, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:collect-attack-evidence-enable", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_collect_attack_evidence_enable, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:interworking-detect-enable", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_interworking_detect_enable, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:heuristic-detect-enable", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_heuristic_detect_enable, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:detect", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_detect, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:detect/tk-antivirus:protocol-type", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_detect_tk_antivirus_protocol_type, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:detect/tk-antivirus:detect-configuration", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_detect_tk_antivirus_detect_configuration, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:detect/tk-antivirus:detect-configuration/tk-antivirus:direction", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_detect_tk_antivirus_detect_configuration_tk_antivirus_direction, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:detect/tk-antivirus:detect-configuration/tk-antivirus:action", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_detect_tk_antivirus_detect_configuration_tk_antivirus_action, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:exception-application", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_exception_application, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:exception-application/tk-antivirus:application-name", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_exception_application_tk_antivirus_application_name, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:exception-application/tk-antivirus:application-action", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_exception_application_tk_antivirus_application_action, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:exception-signature", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_exception_signature, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:exception-signature/tk-antivirus:signature-id", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_exception_signature_tk_antivirus_signature_id, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:exception-signature/tk-antivirus:signature-name", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_exception_signature_tk_antivirus_signature_name, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:match-rules", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_match_rules, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:match-rules/tk-antivirus:match-rule", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_match_rules_tk_antivirus_match_rule, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:match-rules/tk-antivirus:match-rule/tk-antivirus:scope", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_match_rules_tk_antivirus_match_rule_tk_antivirus_scope, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:match-rules/tk-antivirus:match-rule/tk-antivirus:type", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_match_rules_tk_antivirus_match_rule_tk_antivirus_type, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:match-rules/tk-antivirus:match-rule/tk-antivirus:value", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_match_rules_tk_antivirus_match_rule_tk_antivirus_value, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:source-address", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_source_address, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:source-address-range", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_source_address_range, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:source-address-range/tk-antivirus:start-address", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_source_address_range_tk_antivirus_start_address, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:source-address-range/tk-antivirus:end-address", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_source_address_range_tk_antivirus_end_address, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:destination-address", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_destination_address, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:destination-address-range", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_destination_address_range, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:destination-address-range/tk-antivirus:start-address", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_destination_address_range_tk_antivirus_start_address, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  ROW(STATE "/tk-antivirus:default-profile/tk-antivirus:profile/tk-antivirus:whitelists/tk-antivirus:destination-address-range/tk-antivirus:end-address", callback_tk_antivirus_antivirus_state_tk_antivirus_default_profile_tk_antivirus_profile_tk_antivirus_whitelists_tk_antivirus_destination_address_range_tk_antivirus_end_address, NOOP, CLBCKS_PRIORITY_FUNC_DISABLE) \
  /* end of table */

#define AV_DEFINE_ROW_FUNCTION(path, fn, kind, priority) AV_DEFINE_##kind(fn)
AV_CALLBACK_TABLE(AV_DEFINE_ROW_FUNCTION)

#define AV_COUNT_ROW(path, fn, kind, priority) +1
constexpr int kRowCount = 0 AV_CALLBACK_TABLE(AV_COUNT_ROW);
static_assert(kRowCount == 107, "the callback table has 107 rows");

// The table with its rows laid out behind the header, as the server reads it.
struct CallbackTable {
    int callbacks_count;
    void* data;
    struct clbk callbacks[kRowCount];
};
static_assert(offsetof(CallbackTable, callbacks) == offsetof(transapi_data_callbacks, callbacks));

#define AV_TABLE_ROW(path, fn, kind, priority) {path, AV_NAME_##kind(fn), priority, nullptr},

AV_EXPORT const CallbackTable clbks = {kRowCount, nullptr, {AV_CALLBACK_TABLE(AV_TABLE_ROW)}};

AV_EXPORT const int transapi_version = 4;
extern "C" {
AV_VISIBLE int config_modified = 0;
AV_VISIBLE NC_EDIT_ERROPT_TYPE erropt = NC_EDIT_ERROPT_NOTSET;
AV_VISIBLE struct ns_pair namespace_mapping[] = {
    {"tk-antivirus", "urn:tavrik:params:xml:ns:yang:tavrik-antivirus"},
    {nullptr, nullptr},
};
AV_VISIBLE struct transapi_rpc_callbacks rpc_clbks = {0};
AV_VISIBLE struct ncds_custom_funcs custom_funcs = {
    custom_init,       custom_free,         custom_changed, custom_rollback,
    custom_lock,       custom_unlock,       nullptr,        custom_getconfig,
    custom_copyconfig, custom_deleteconfig, custom_editconfig,
};
}
AV_EXPORT const TRANSAPI_CLBCKS_ORDER_TYPE callbacks_order = TRANSAPI_CLBCKS_ROOT_TO_LEAF;

AV_EXPORT int transapi_init(xmlDocPtr* /*running*/) { return 0; }

AV_EXPORT void transapi_close(void) {}
