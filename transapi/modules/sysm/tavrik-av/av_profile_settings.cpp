// A profile's description and its three feature switches.
#include "av_handlers.h"

AV_HANDLER(callback_AV_ProfileDescription) {
    av::ProfileChange c({data, op, node, error}, AV_PROFILE_PATH "description");
    if (auto end = c.open({3, 1})) return *end;

    const char* text = get_node_content(node);
    if (text == nullptr) return c.refuse("The profile description node is NULL.", NC_ERR_MISSING_ELEM);
    if (av::contains(text, '?')) return c.refuse("The profile description has '?'.", NC_ERR_BAD_ELEM);

    av::Text<512> line;
    if (av::addsOrModifies(op)) return c.sendInProfileView(AV_FORMAT(line, "description %s", text), CMD_ADD);
    if (av::removes(op)) return c.sendInProfileView(AV_FORMAT(line, "undo description"), CMD_DEL);
    return c.unknownOp();
}

namespace {

// One boolean switch of a profile: its leaf, messages and command.
struct Switch {
    const char* path;
    const char* noTextMessage;
    NC_ERR noTextCode;
    NC_ERR trimCode;
    const char* command;  // "<command>" switches on, "undo <command>" off
};

constexpr Switch kAttackEvidence{AV_PROFILE_PATH "collect-attack-evidence-enable",
                                 "Av profile collect_attack_evidence content is null.", NC_ERR_OP_FAILED,
                                 NC_ERR_OP_FAILED, "collect-attack-evidence enable"};
constexpr Switch kInterworking{AV_PROFILE_PATH "interworking-detect-enable",
                               "Av profile interworking-detect-enable content is null.", NC_ERR_MISSING_ELEM,
                               NC_ERR_BAD_ELEM, "file-reputation enable"};
constexpr Switch kHeuristic{AV_PROFILE_PATH "heuristic-detect-enable",
                            "Av profile heuristic-detect-enable content is null.", NC_ERR_MISSING_ELEM,
                            NC_ERR_MISSING_ELEM, "heuristic-detect enable"};

av::Result changeSwitch(const Switch& s, const av::Call& call) {
    av::ProfileChange c(call, s.path);
    if (auto end = c.open({3, 1})) return *end;

    const char* text = get_node_content(call.node);
    if (text == nullptr) return c.refuse(s.noTextMessage, s.noTextCode);
    av::Text<32> value;
    if (!av::trimInto(text, value)) return c.refuse("av remove spaces failed.", s.trimCode);

    av::Text<128> line;
    if (av::addsOrModifies(call.op)) {
        if (value.is("true")) return c.sendInProfileView(AV_FORMAT(line, "%s", s.command), CMD_ADD);
        if (value.is("false")) return c.sendInProfileView(AV_FORMAT(line, "undo %s", s.command), CMD_ADD);
        return c.refuse("Unknown input.", NC_ERR_OP_FAILED);
    }
    if (av::removes(call.op)) return c.sendInProfileView(AV_FORMAT(line, "undo %s", s.command), CMD_DEL);
    return c.unknownOp();
}

}  // namespace

AV_HANDLER(callback_AV_ProfileAttack) { return changeSwitch(kAttackEvidence, {data, op, node, error}); }

AV_HANDLER(callback_AV_ProfileInterworking) { return changeSwitch(kInterworking, {data, op, node, error}); }

AV_HANDLER(callback_AV_ProfileHeuristic) { return changeSwitch(kHeuristic, {data, op, node, error}); }
