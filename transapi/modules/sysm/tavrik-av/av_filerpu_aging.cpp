// The global file-reputation aging time, given in days or in hours.
#include "av_handlers.h"

namespace {

#define AV_GLOBAL_PATH "/tk-antivirus:antivirus/tk-antivirus:global/tk-antivirus:"

struct AgingLeaf {
    const char* path;
    const char* noTextMessage;
    const char* trimMessage;
    bool days;  // the value counts days and is sent as hours
};

constexpr AgingLeaf kDays{AV_GLOBAL_PATH "file-reputation-age-time", "av get filerpu content error.",
                          "av get filerpu content remove spaces failed.", true};
constexpr AgingLeaf kHours{AV_GLOBAL_PATH "file-reputation-age-time-hour", "av get filerpu-hour content error.",
                           "av get filerpu-hour content remove spaces failed.", false};

av::Result changeAgingTime(const AgingLeaf& leaf, const av::Call& call) {
    av::Change c(call, leaf.path);
    const char* text = get_node_content(call.node);
    if (text == nullptr) return c.refuse(leaf.noTextMessage, NC_ERR_BAD_ELEM);
    av::Text<32> value;
    if (!av::trimInto(text, value)) return c.refuse(leaf.trimMessage, NC_ERR_BAD_ELEM);

    av::Text<128> line;
    CMD_OPERATION cmd = CMD_ADD;
    if (av::removes(call.op)) {
        AV_FORMAT(line, "undo file-reputation set aging-time");
        cmd = CMD_DEL;
    } else if (av::addsOrModifies(call.op)) {
        if (leaf.days) {
            unsigned int days =
                AV_ApiAtoi(reinterpret_cast<unsigned char*>(value.buf), static_cast<unsigned int>(value.length()));
            unsigned int uiTimeHour = days == 0xFFFFFFFFu ? 24u : days * 24u;
            AV_FORMAT(line, "file-reputation set aging-time hour %u", uiTimeHour);
        } else {
            AV_FORMAT(line, "file-reputation set aging-time hour %s", value.buf);
        }
    } else {
        return c.unknownOp();
    }
    return c.send("public", "system", nullptr, line, cmd, true);
}

}  // namespace

AV_HANDLER(callback_AV_GlobalFilerpuAgingTime) { return changeAgingTime(kDays, {data, op, node, error}); }

AV_HANDLER(callback_AV_GlobalFilerpuAgingTimeHour) { return changeAgingTime(kHours, {data, op, node, error}); }
