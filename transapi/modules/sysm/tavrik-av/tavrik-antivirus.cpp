// The antivirus module's plug-in boundary: the descriptors the server reads
// by name and the callback table, with its wrappers and no-op callbacks.
#include "av_handlers.h"

namespace av {

using Handler = int (*)(void**, XMLDIFF_OP, xmlNodePtr, struct nc_err**);

// A wrapper of the callback table: lets through the changes of its half (the
// Delete wrapper those with the removal bit, the ADD wrapper the others) and
// hands them to the change handler with the operation converted.
template <Handler handler, bool removal>
int forward(void** data, XMLDIFF_OP op, xmlNodePtr node, struct nc_err** error) {
    if (removes(op) != removal) return 0;
    return handler(data, transapi_transform_op(op), node, error);
}

// The stored path of a state row from its steps as the table writes them
// ("vsys, profiles"): each step below the state root, '_' read as '-'.
// Writes it into `out` when given; returns its size with the NUL.
constexpr size_t stateRowPath(const char* steps, char* out = nullptr) {
    size_t n = 0;
    auto put = [&](const char* text) {
        for (; *text != '\0'; ++text, ++n)
            if (out != nullptr) out[n] = *text;
    };
    put("/tk-antivirus:antivirus-state/tk-antivirus:");
    for (; *steps != '\0'; ++steps) {
        const char c[2] = {*steps == '_' ? '-' : *steps, '\0'};
        if (*steps == ',')
            put("/tk-antivirus:");
        else if (*steps != ' ')
            put(c);
    }
    return n + 1;
}
template <size_t N>
struct PathText {
    char text[N] = {};
};
template <size_t N>
constexpr PathText<N> statePath(const char* steps) {
    PathText<N> path;
    stateRowPath(steps, path.text);
    return path;
}

}  // namespace av

#define AV_CAT(a, b) AV_CAT_(a, b)
#define AV_CAT_(a, b) a##b

// Function name of a state row from its steps: "callback_" and the stored
// path with '-', ':' and '/' as '_'.
#define AV_STATE_FN(...) AV_CAT(AV_STATE_FN_, AV_COUNT_STEPS(__VA_ARGS__))(__VA_ARGS__)
#define AV_COUNT_STEPS(...) AV_COUNT_STEPS_(__VA_ARGS__, 6, 5, 4, 3, 2, 1, )
#define AV_COUNT_STEPS_(a, b, c, d, e, f, n, ...) n
#define AV_STATE_FN_1(a) callback_tk_antivirus_antivirus_state_tk_antivirus_##a
#define AV_STATE_FN_2(a, b) AV_STATE_FN_1(a##_tk_antivirus_##b)
#define AV_STATE_FN_3(a, b, c) AV_STATE_FN_2(a, b##_tk_antivirus_##c)
#define AV_STATE_FN_4(a, b, c, d) AV_STATE_FN_3(a, b, c##_tk_antivirus_##d)
#define AV_STATE_FN_5(a, b, c, d, e) AV_STATE_FN_4(a, b, c, d##_tk_antivirus_##e)
#define AV_STATE_FN_6(a, b, c, d, e, f) AV_STATE_FN_5(a, b, c, d, e##_tk_antivirus_##f)
#define AV_STATE_PATH(...) AV_CAT(AV_STATE_FN(__VA_ARGS__), _path)

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

#define DISABLED CLBCKS_PRIORITY_FUNC_DISABLE
#define OBJ_ADD CLBCKS_PRIORITY_OBJECT_ADD
#define OBJ_DEL CLBCKS_PRIORITY_OBJECT_DEL
#define COM_ADD CLBCKS_PRIORITY_COMMON_ADD
#define COM_DEL CLBCKS_PRIORITY_COMMON_DEL

// The callback table, in row order. Three kinds of row:
//   PAIR(path, handler, add priority, delete priority): the handler's ADD
//     wrapper and then its Delete wrapper, two rows on the same path;
//   NOOP(path, function, priority): an accept-and-do-nothing callback;
//   STATE(step, ...): an accept-and-do-nothing callback of priority 0 below
//     "/tk-antivirus:antivirus-state", path and name made from its steps.
#define AV_CALLBACK_TABLE(PAIR, NOOP, STATE) \
  NOOP(VSYS, callback_AV_Vsys, DISABLED) \
  NOOP(VSYS "/tk-antivirus:name", callback_AV_VsysName, DISABLED) \
  PAIR(VSYS "/tk-antivirus:antivirus-enable", callback_AV_VsysEnable, OBJ_ADD, OBJ_DEL) \
  NOOP(VSYS "/tk-antivirus:profiles", callback_AV_AllProfile, DISABLED) \
  PAIR(PROFILE, callback_AV_Profile, OBJ_ADD, OBJ_DEL) \
  NOOP(PROFILE "/tk-antivirus:name", callback_AV_ProfileName, OBJ_ADD) \
  PAIR(PROFILE "/tk-antivirus:description", callback_AV_ProfileDescription, COM_ADD, COM_DEL) \
  PAIR(PROFILE "/tk-antivirus:collect-attack-evidence-enable", callback_AV_ProfileAttack, COM_ADD, COM_DEL) \
  PAIR(PROFILE "/tk-antivirus:interworking-detect-enable", callback_AV_ProfileInterworking, COM_ADD, COM_DEL) \
  PAIR(PROFILE "/tk-antivirus:heuristic-detect-enable", callback_AV_ProfileHeuristic, COM_ADD, COM_DEL) \
  PAIR(DETECT, callback_AV_ProfileDetect, COM_ADD, COM_DEL) \
  NOOP(DETECT "/tk-antivirus:protocol-type", callback_AV_ProfileProtocolType_ADD, COM_ADD) \
  PAIR(DETECT_CONFIG, callback_AV_ProfileDetectConfig, COM_ADD, COM_DEL) \
  PAIR(DETECT_CONFIG "/tk-antivirus:direction", callback_AV_ProfileDetectConfigDirection, COM_ADD, COM_DEL) \
  PAIR(DETECT_CONFIG "/tk-antivirus:action", callback_AV_ProfileDetectConfigAction, COM_ADD, COM_DEL) \
  PAIR(EXCEPT_APP, callback_AV_ProfileExceptApplication, COM_ADD, COM_DEL) \
  NOOP(EXCEPT_APP "/tk-antivirus:application-name", callback_AV_ProfileApplicationName_ADD, COM_ADD) \
  PAIR(EXCEPT_APP "/tk-antivirus:application-action", callback_AV_ProfileApplicationAction, COM_ADD, COM_DEL) \
  PAIR(PROFILE "/tk-antivirus:exception-signature-id", callback_AV_ProfileExceptID, COM_ADD, COM_DEL) \
  PAIR(EXCEPT_SIG, callback_AV_ProfileExceptSignature, COM_ADD, COM_DEL) \
  NOOP(EXCEPT_SIG "/tk-antivirus:id", callback_AV_ProfileExceptSignatureId_ADD, COM_ADD) \
  PAIR(EXCEPT_SIG "/tk-antivirus:action", callback_AV_ProfileExceptSignatureAction, COM_ADD, COM_DEL) \
  PAIR(EXCEPT_SIG "/tk-antivirus:timeout", callback_AV_ProfileExceptSignatureTimeout, COM_ADD, COM_DEL) \
  NOOP(WHITELISTS, callback_AV_ProfileWhitelist_ADD, COM_ADD) \
  NOOP(WHITELISTS "/tk-antivirus:match-rules", callback_AV_ProfileWhitelistMatchRules_ADD, COM_ADD) \
  NOOP(MATCH_RULE, callback_AV_ProfileWhitelistMatchRule_ADD, COM_ADD) \
  NOOP(MATCH_RULE "/tk-antivirus:scope", callback_AV_ProfileWhitelistMatchRuleScope_ADD, COM_ADD) \
  NOOP(MATCH_RULE "/tk-antivirus:type", callback_AV_ProfileWhitelistMatchRuleType_ADD, COM_ADD) \
  PAIR(MATCH_RULE "/tk-antivirus:value", callback_AV_ProfileWhitelistMatchRuleValue, COM_ADD, COM_DEL) \
  PAIR(WHITELISTS "/tk-antivirus:source-address", callback_AV_ProfileWhitelistsourceAddress, COM_ADD, COM_DEL) \
  PAIR(SRC_RANGE, callback_AV_ProfileWhitelistsourceAddressRange, COM_ADD, COM_DEL) \
  NOOP(SRC_RANGE "/tk-antivirus:start-address", callback_AV_ProfileWhitelistsourceAddressRangeStart_ADD, COM_ADD) \
  NOOP(SRC_RANGE "/tk-antivirus:end-address", callback_AV_ProfileWhitelistsourceAddressRangeEnd_ADD, COM_ADD) \
  PAIR(WHITELISTS "/tk-antivirus:destination-address", callback_AV_ProfileWhitelistdestinationAddress, COM_ADD, COM_DEL) \
  PAIR(DST_RANGE, callback_AV_ProfileWhitelistdestinationAddressRange, COM_ADD, COM_DEL) \
  NOOP(DST_RANGE "/tk-antivirus:start-address", callback_AV_ProfileWhitelistdestinationAddressRangeStart_ADD, COM_ADD) \
  NOOP(DST_RANGE "/tk-antivirus:end-address", callback_AV_ProfileWhitelistdestinationAddressRangeEnd_ADD, COM_ADD) \
  NOOP(GLOBAL, callback_AV_Global, COM_ADD) \
  PAIR(GLOBAL "/tk-antivirus:file-reputation-age-time", callback_AV_GlobalFilerpuAgingTime, COM_ADD, COM_DEL) \
  PAIR(GLOBAL "/tk-antivirus:file-reputation-age-time-hour", callback_AV_GlobalFilerpuAgingTimeHour, COM_ADD, COM_DEL) \
  STATE(vsys) \
  STATE(vsys, name) \
  STATE(vsys, profiles) \
  STATE(vsys, profiles, profile) \
  STATE(vsys, profiles, profile, name) \
  STATE(vsys, profiles, profile, reference_count) \
  STATE(vsys, profiles, profile, exception_signature) \
  STATE(vsys, profiles, profile, exception_signature, signature_id) \
  STATE(vsys, profiles, profile, exception_signature, signature_name) \
  STATE(exception_application) \
  STATE(exception_application, application_name) \
  STATE(exception_application, application_name, name) \
  STATE(default_profile) \
  STATE(default_profile, profile) \
  STATE(default_profile, profile, name) \
  STATE(default_profile, profile, description) \
  STATE(default_profile, profile, collect_attack_evidence_enable) \
  STATE(default_profile, profile, interworking_detect_enable) \
  STATE(default_profile, profile, heuristic_detect_enable) \
  STATE(default_profile, profile, detect) \
  STATE(default_profile, profile, detect, protocol_type) \
  STATE(default_profile, profile, detect, detect_configuration) \
  STATE(default_profile, profile, detect, detect_configuration, direction) \
  STATE(default_profile, profile, detect, detect_configuration, action) \
  STATE(default_profile, profile, exception_application) \
  STATE(default_profile, profile, exception_application, application_name) \
  STATE(default_profile, profile, exception_application, application_action) \
  STATE(default_profile, profile, exception_signature) \
  STATE(default_profile, profile, exception_signature, signature_id) \
  STATE(default_profile, profile, exception_signature, signature_name) \
  STATE(default_profile, profile, whitelists) \
  STATE(default_profile, profile, whitelists, match_rules) \
  STATE(default_profile, profile, whitelists, match_rules, match_rule) \
  STATE(default_profile, profile, whitelists, match_rules, match_rule, scope) \
  STATE(default_profile, profile, whitelists, match_rules, match_rule, type) \
  STATE(default_profile, profile, whitelists, match_rules, match_rule, value) \
  STATE(default_profile, profile, whitelists, source_address) \
  STATE(default_profile, profile, whitelists, source_address_range) \
  STATE(default_profile, profile, whitelists, source_address_range, start_address) \
  STATE(default_profile, profile, whitelists, source_address_range, end_address) \
  STATE(default_profile, profile, whitelists, destination_address) \
  STATE(default_profile, profile, whitelists, destination_address_range) \
  STATE(default_profile, profile, whitelists, destination_address_range, start_address) \
  STATE(default_profile, profile, whitelists, destination_address_range, end_address) \
  /* end of table */

// The functions of the rows (and the stored paths of the state rows).
#define AV_DEFINE_NOOP(path, fn, priority) \
    AV_EXPORT int fn(void**, XMLDIFF_OP, xmlNodePtr, struct nc_err**) { return 0; }
#define AV_DEFINE_PAIR(path, handler, addPriority, deletePriority)                           \
    AV_HANDLER(handler##_ADD) { return av::forward<handler, false>(data, op, node, error); } \
    AV_HANDLER(handler##_Delete) { return av::forward<handler, true>(data, op, node, error); }
#define AV_DEFINE_STATE(...)                     \
    AV_DEFINE_NOOP(, AV_STATE_FN(__VA_ARGS__), ) \
    constexpr auto AV_STATE_PATH(__VA_ARGS__) = av::statePath<av::stateRowPath(#__VA_ARGS__)>(#__VA_ARGS__);
AV_CALLBACK_TABLE(AV_DEFINE_PAIR, AV_DEFINE_NOOP, AV_DEFINE_STATE)

#define AV_COUNT_PAIR(...) +2
#define AV_COUNT_ROW(...) +1
constexpr int kRowCount = 0 AV_CALLBACK_TABLE(AV_COUNT_PAIR, AV_COUNT_ROW, AV_COUNT_ROW);
static_assert(kRowCount == 107, "the callback table has 107 rows");

// The table with its rows laid out behind the header, as the server reads it.
struct CallbackTable {
    int callbacks_count;
    void* data;
    struct clbk callbacks[kRowCount];
};
static_assert(offsetof(CallbackTable, callbacks) == offsetof(transapi_data_callbacks, callbacks));

#define AV_ROWS_PAIR(path, handler, addPriority, deletePriority) \
    {path, handler##_ADD, addPriority, nullptr}, {path, handler##_Delete, deletePriority, nullptr},
#define AV_ROW_NOOP(path, fn, priority) {path, fn, priority, nullptr},
#define AV_ROW_STATE(...) {AV_STATE_PATH(__VA_ARGS__).text, AV_STATE_FN(__VA_ARGS__), DISABLED, nullptr},

AV_EXPORT const CallbackTable clbks = {kRowCount, nullptr,
                                       {AV_CALLBACK_TABLE(AV_ROWS_PAIR, AV_ROW_NOOP, AV_ROW_STATE)}};

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
