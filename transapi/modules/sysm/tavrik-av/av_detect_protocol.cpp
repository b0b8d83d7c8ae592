// Scanned protocols of a profile: the list entry's own line is the removal.
#include "av_handlers.h"

AV_HANDLER(callback_AV_ProfileDetect) {
    av::ProfileChange c({data, op, node, error}, AV_PROFILE_PATH "detect", {3, 1});
    if (c.finished()) return c.result();

    const char* text = nullptr;
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (av::nameIs(child, "protocol-type")) {
            text = get_node_content(child);
            break;
        }
    }
    if (text == nullptr) return c.refuse("av detect protocol-type is null.", NC_ERR_MISSING_ELEM);

    av::Text<32> keyword, protocol;
    AV_remove_prefix(const_cast<char*>(text), static_cast<int>(strlen(text)), keyword, sizeof keyword.buf);
    if (AV_CheckProtocolAndGetValid(keyword, protocol, sizeof protocol.buf) != 0)
        return c.refuse("av detect protocol-type is invalid.", NC_ERR_BAD_ELEM);

    av::Text<128> line;
    if (av::removes(op)) return c.sendInProfileView(line.format("undo %s-detect", protocol.buf), CMD_DEL);
    if (op & (XMLDIFF_ADD | XMLDIFF_MOD | XMLDIFF_CHAIN)) return c.drop();
    return c.unknownOp();
}
