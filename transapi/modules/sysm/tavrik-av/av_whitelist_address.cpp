// Source and destination address whitelists of a profile: single addresses
// and address ranges, one routine for the four kinds.
#include "av_handlers.h"

AV_EXPORT void AV_GetSourceRangeConfig(xmlNodePtr pstChild, char* pcSourceIpStart, unsigned int uiBufLen1,
                                       char* pcSourceIpEnd, unsigned int uiBufLen2) {
    av::readRange(pstChild, pcSourceIpStart, uiBufLen1, pcSourceIpEnd, uiBufLen2);
}

namespace {

#define AV_WHITELIST_PATH AV_PROFILE_PATH "whitelist/"

struct AddressKind {
    const char* path;
    const char* missingMessage;
    const char* command;  // "<command> <address>" or "<command> range <start> <end>"
    bool range;
};

constexpr AddressKind kSourceAddress{AV_WHITELIST_PATH "sourceAddress", "av whitelist url is null.",
                                     "whitelist source-address", false};
constexpr AddressKind kDestinationAddress{AV_WHITELIST_PATH "destinationAddress", "av destination address is null.",
                                          "whitelist destination-address", false};
constexpr AddressKind kSourceRange{AV_WHITELIST_PATH "sourceAddressRange", "Av source address range is null.",
                                   "whitelist source-address", true};
constexpr AddressKind kDestinationRange{AV_WHITELIST_PATH "destinationAddressRange",
                                        "Av destination address range is null.", "whitelist destination-address", true};

av::Result changeAddress(const AddressKind& kind, const av::Call& call) {
    av::ProfileChange c(call, kind.path);
    if (auto end = c.open({4, 2})) return *end;

    av::Text<128> address;
    av::Text<32> start, end;
    if (kind.range) {
        for (xmlNode* child = call.node->children; child != nullptr; child = child->next)
            if (child->type == XML_ELEMENT_NODE)
                av::readRange(child, start, sizeof start.buf, end, sizeof end.buf);
        if (start.empty() || end.empty()) return c.refuse(kind.missingMessage, NC_ERR_MISSING_ELEM);
    } else {
        const char* text = get_node_content(call.node);
        if (text == nullptr) return c.refuse(kind.missingMessage, NC_ERR_MISSING_ELEM);
        if (!av::trimInto(text, address)) return c.refuse("av remove spaces failed.", NC_ERR_BAD_ELEM);
    }

    CMD_OPERATION cmd = CMD_ADD;
    if (av::removes(call.op))
        cmd = CMD_DEL;
    else if (!av::addsOrModifies(call.op))
        return c.unknownOp();
    const char* undo = cmd == CMD_DEL ? "undo " : "";

    av::Text<256> line;
    if (kind.range)
        AV_FORMAT(line, "%s%s range %s %s", undo, kind.command, start.buf, end.buf);
    else
        AV_FORMAT(line, "%s%s %s", undo, kind.command, address.buf);
    return c.sendInProfileView<256>(line, cmd);
}

}  // namespace

AV_HANDLER(callback_AV_ProfileWhitelistsourceAddress) { return changeAddress(kSourceAddress, {data, op, node, error}); }

AV_HANDLER(callback_AV_ProfileWhitelistdestinationAddress) {
    return changeAddress(kDestinationAddress, {data, op, node, error});
}

AV_HANDLER(callback_AV_ProfileWhitelistsourceAddressRange) {
    return changeAddress(kSourceRange, {data, op, node, error});
}

AV_HANDLER(callback_AV_ProfileWhitelistdestinationAddressRange) {
    return changeAddress(kDestinationRange, {data, op, node, error});
}
