// Scanned protocols of a profile: the list entry's own line is the removal.
#include "av_handlers.h"

AV_HANDLER(callback_AV_ProfileDetect) {
    av::ProfileChange c({data, op, node, error}, AV_PROFILE_PATH "detect");
    if (auto end = c.open({3, 1})) return *end;

    const char* text = nullptr;
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (av::nameIs(child, "protocol-type")) {
            text = get_node_content(child);
            break;
        }
    }
    if (text == nullptr) return c.refuse("av detect protocol-type is null.", NC_ERR_MISSING_ELEM);

    av::Text<32> keyword, protocol;
    av::removePrefix(text, keyword);
    if (AV_CheckProtocolAndGetValid(keyword, protocol, sizeof protocol.buf) != 0)
        return c.refuse("av detect protocol-type is invalid.", NC_ERR_BAD_ELEM);

    av::Text<128> line;
    if (av::removes(op)) return c.sendInProfileView(AV_FORMAT(line, "undo %s-detect", protocol.buf), CMD_DEL);
    if (op & (XMLDIFF_ADD | XMLDIFF_MOD | XMLDIFF_CHAIN)) return c.drop();
    return c.unknownOp();
}
