// Creating and deleting antivirus profiles.
#include "av_handlers.h"

AV_HANDLER(callback_AV_Profile) {
    av::Change c({data, op, node, error},
                 "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile");
    if (auto end = c.screen({2})) return *end;

    const char* vsys = c.key(2, "name");
    if (vsys == nullptr) return c.refuse("The vsys name node is NULL.", NC_ERR_MISSING_ELEM);

    const char* name = nullptr;
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (av::nameIs(child, "name")) {
            name = get_node_content(child);
            break;
        }
    }
    if (name == nullptr) {
        AV_TRACE("av profile name is null,in %d\r\n", __LINE__);
        return c.refuse("The pcValue is NULL.", NC_ERR_MISSING_ELEM);
    }
    if (av::contains(name, '?')) return c.refuse("'?' is in the profile name.", NC_ERR_BAD_ELEM);
    if (av::contains(name, '"')) return c.refuse("double quotation is in the profile name.", NC_ERR_BAD_ELEM);

    av::Text<128> trimmed, profile;
    if (AV_netconf_checkNodeName(name, trimmed, profile, sizeof profile.buf) != 0)
        return c.refuse("AV netconf check Node Name failed.", NC_ERR_UNKNOWN_ELEM);

    av::Text<512> line;
    CMD_OPERATION cmd = CMD_ADD;
    if (av::removes(op)) {
        AV_FORMAT(line, "undo profile type av name %s", profile.buf);
        cmd = CMD_DEL;
    } else if (av::addsOrModifies(op)) {
        AV_FORMAT(line, "profile type av name %s", profile.buf);
    } else if (av::chains(op)) {
        AV_TRACE("av profile op is chain,in %d\r\n", __LINE__);
        return av::kDone;
    } else {
        return c.unknownOp();
    }
    return c.send(vsys, "system", nullptr, line, cmd, true);
}
