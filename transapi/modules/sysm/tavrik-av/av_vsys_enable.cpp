// Assigning the antivirus function to a virtual system.
#include "av_handlers.h"

AV_HANDLER(callback_AV_VsysEnable) {
    av::Change c({data, op, node, error}, "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:antivirus-enable");
    if (auto end = c.screen({1})) return *end;

    const char* vsys = c.key(1, "name");
    if (vsys == nullptr) return c.refuse("The vsys name node is NULL.", NC_ERR_MISSING_ELEM);
    if (av::same(vsys, "public")) return c.refuse("The public vsys is not support.", NC_ERR_MISSING_ELEM);

    av::Text<128> view;  // formatted with a count equal to its size: too long a name leaves it empty
    snprintf_s(view, sizeof view.buf, sizeof view.buf, "vsys-%s", vsys);

    const char* text = get_node_content(node);
    if (text == nullptr) return c.refuse("vsys antivirus-enable is null.", NC_ERR_MISSING_ELEM);
    if (av::contains(text, '?')) return c.refuse("'?' is in the vsys antivirus-enable.", NC_ERR_BAD_ELEM);
    if (strchr(text, ' ') != nullptr) return c.refuse("blank is in the vsys antivirus-enable.", NC_ERR_BAD_ELEM);
    av::Text<32> assign;
    av::copyCut(assign, sizeof assign.buf, text);

    av::Text<512> line;
    CMD_OPERATION cmd = CMD_ADD;
    if (av::removes(op)) {
        AV_FORMAT(line, "assign function av");
        cmd = CMD_DEL;
    } else if (av::addsOrModifies(op)) {
        if (assign.is("true"))
            AV_FORMAT(line, "assign function av");
        else if (assign.is("false"))
            AV_FORMAT(line, "undo assign function av");
        else
            return c.refuse("Unknown value of vsys av-enable.", NC_ERR_OP_FAILED);
    } else {
        return c.unknownOp();
    }
    return c.send("public", view, "mgmt-vsys", line, cmd, true);
}
