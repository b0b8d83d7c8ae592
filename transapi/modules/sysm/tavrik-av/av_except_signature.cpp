// Signature exceptions: single IDs, and list entries with action and timeout.
// The entry handler owns the line; its action and timeout leaves only check,
// and speak to the appliance when they are removed alone.
#include "av_handlers.h"

#define AV_EXCEPT_SIG_PATH AV_PROFILE_PATH "except-signatures"

namespace {

using Value = av::Text<32>;
constexpr int kChildLimit = 31;  // values read from an entry's children hold at most 30 characters

// Trims the element's text into `out`; refuses the change when it cannot.
av::Step readChild(av::ProfileChange& c, xmlNode* child, Value& out) {
    if (av::trimInto(get_node_content(child), out, kChildLimit)) return {};
    return c.refuse("av remove spaces failed.", NC_ERR_BAD_ELEM);
}

av::Step readOwnValue(av::ProfileChange& c, Value& out) {
    if (av::trimInto(get_node_content(c.node()), out)) return {};
    return c.refuse("av remove spaces failed.", NC_ERR_BAD_ELEM);
}

}  // namespace

AV_HANDLER(callback_AV_ProfileExceptID) {
    av::ProfileChange c({data, op, node, error}, AV_PROFILE_PATH "except-signature-id");
    if (auto end = c.open({3, 1})) return *end;

    const char* text = get_node_content(node);
    if (text == nullptr) return c.refuse("av except signature-id is null.", NC_ERR_MISSING_ELEM);
    Value id;
    if (!av::trimInto(text, id)) return c.refuse("av remove spaces failed.", NC_ERR_BAD_ELEM);

    av::Text<128> line;
    if (av::removes(op))
        return c.sendInProfileView(AV_FORMAT(line, "undo exception av-signature-id %s", id.buf), CMD_DEL);
    if (av::addsOrModifies(op))
        return c.sendInProfileView(AV_FORMAT(line, "exception av-signature-id %s", id.buf), CMD_ADD);
    return c.unknownOp();
}

AV_HANDLER(callback_AV_ProfileExceptSignature) {
    av::ProfileChange c({data, op, node, error}, AV_EXCEPT_SIG_PATH);
    if (auto end = c.open({3, 1})) return *end;

    Value id, action, timeout;
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (av::nameIs(child, "id")) {
            if (auto end = readChild(c, child, id)) return *end;
        } else if (av::nameIs(child, "action") || av::nameIs(child, "timeout")) {
            Value& out = av::nameIs(child, "action") ? action : timeout;
            if (!av::trimInto(get_node_content(child), out, kChildLimit))
                AV_TRACE("av remove spaces failed,in %d\r\n", __LINE__);
        }
    }
    if (id.empty()) return c.refuse("av signature id is null.", NC_ERR_BAD_ELEM);

    av::Text<128> line;
    if (av::removes(op))
        return c.sendInProfileView(AV_FORMAT(line, "undo exception av-signature-id %s", id.buf), CMD_DEL);
    if (!(op & (XMLDIFF_ADD | XMLDIFF_MOD | XMLDIFF_CHAIN))) return c.unknownOp();

    if (action.empty()) {
        AV_FORMAT(line, "exception av-signature-id %s", id.buf);
    } else if (action.is("allow")) {
        if (!timeout.empty()) return c.refuse("av signature action is not block-source-ip.", NC_ERR_BAD_ELEM);
        AV_FORMAT(line, "exception av-signature-id %s action %s", id.buf, action.buf);
    } else if (action.is("block-source-ip")) {
        if (timeout.empty())
            AV_FORMAT(line, "exception av-signature-id %s action %s", id.buf, action.buf);
        else
            AV_FORMAT(line, "exception av-signature-id %s action %s timeout %s", id.buf, action.buf, timeout.buf);
    } else {
        return c.refuse("av signature action is neither allow nor block-source-ip.", NC_ERR_BAD_ELEM);
    }
    return c.sendInProfileView(line, CMD_ADD);
}

AV_HANDLER(callback_AV_ProfileExceptSignatureAction) {
    av::ProfileChange c({data, op, node, error}, AV_EXCEPT_SIG_PATH "/action");
    Value action, id;
    if (auto end = c.open({4, 2, 1})) return *end;
    if (auto end = readOwnValue(c, action)) return *end;

    for (xmlNode* sibling = node->prev; sibling != nullptr; sibling = sibling->prev) {
        if (av::nameIs(sibling, "id")) {
            if (auto end = readChild(c, sibling, id)) return *end;
            break;
        }
    }
    if (id.empty()) return c.refuse("av signature id is null.", NC_ERR_BAD_ELEM);

    av::Text<128> line;
    if (av::removes(op))
        return c.sendInProfileView(AV_FORMAT(line, "exception av-signature-id %s action allow", id.buf), CMD_DEL);
    if (av::addsOrModifies(op)) return c.drop();
    return c.unknownOp();
}

AV_HANDLER(callback_AV_ProfileExceptSignatureTimeout) {
    av::ProfileChange c({data, op, node, error}, AV_EXCEPT_SIG_PATH "/timeout");
    Value timeout, id, action;
    if (auto end = c.open({4, 2, 1})) return *end;
    if (auto end = readOwnValue(c, timeout)) return *end;

    for (xmlNode* sibling = node->prev; sibling != nullptr; sibling = sibling->prev) {
        Value* out = av::nameIs(sibling, "id") ? &id : av::nameIs(sibling, "action") ? &action : nullptr;
        if (out == nullptr) continue;
        if (auto end = readChild(c, sibling, *out)) return *end;
    }
    if (id.empty()) return c.refuse("av signature id is null.", NC_ERR_BAD_ELEM);
    if (action.empty()) return c.refuse("av signature action is null.", NC_ERR_BAD_ELEM);
    if (!action.is("block-source-ip")) return c.refuse("av signature action is not block-source-ip.", NC_ERR_BAD_ELEM);

    av::Text<128> line;
    if (av::removes(op))
        return c.sendInProfileView(AV_FORMAT(line, "exception av-signature-id %s action block-source-ip", id.buf),
                                   CMD_DEL);
    if (av::addsOrModifies(op)) return c.drop();
    return c.unknownOp();
}
