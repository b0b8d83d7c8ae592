// Direction and action of one scanned protocol: the detect-configuration
// container and its two leaves.
#include "av_handlers.h"

#define AV_DETECT_CONFIG_PATH AV_PROFILE_PATH "detect/configuration"

namespace {

using av::oneOf;
using Keyword = av::Text<32>;

bool isMail(const char* protocol) { return oneOf(protocol, "smtp", "pop3"); }
bool isNfs(const char* protocol) { return av::same(protocol, "nfs"); }

// The enclosing detect entry's protocol key, prefix removed (not trimmed,
// not tested: the detect entry's handler tests the keyword).
av::Step readProtocol(av::ProfileChange& c, int level, Keyword& protocol) {
    const char* key = c.key(level, "protocol-type");
    if (key == nullptr) return c.refuse("The profile detect protocol-type node is NULL.", NC_ERR_MISSING_ELEM);
    av::removePrefix(key, protocol);
    return {};
}

// Reads the changed leaf's keyword, trimmed, and tests it for the protocol.
// A leaf without text fails silently.
av::Step readLeaf(av::ProfileChange& c, const char* leaf, Keyword& value, Keyword& protocol,
                  unsigned int (*admitted)(char*, char*), const char* invalidMessage) {
    const char* text = get_node_content(c.node());
    if (text == nullptr) {
        AV_TRACE("av detect %s is null,in %d\r\n", leaf, __LINE__);
        return av::kSilentFailure;
    }
    if (!av::trimInto(text, value)) return c.refuse("av remove spaces failed.", NC_ERR_BAD_ELEM);
    if (admitted(value, protocol) != 0) return c.refuse(invalidMessage, NC_ERR_BAD_ELEM);
    return {};
}

}  // namespace

AV_HANDLER(callback_AV_ProfileDetectConfig) {
    av::ProfileChange c({data, op, node, error}, AV_DETECT_CONFIG_PATH);
    Keyword protocol, direction, action;
    if (auto end = c.open({4, 2, 1})) return *end;
    if (auto end = readProtocol(c, 1, protocol)) return *end;

    for (xmlNode* child = node->children; child != nullptr; child = child->next)
        if (child->type == XML_ELEMENT_NODE)
            av::readDetectConfig(child, direction, sizeof direction.buf, action, sizeof action.buf);
    if (AV_CheckDetectConfig(direction, action, protocol) != 0)
        return c.refuse("Av protocol detect config input invalid.", NC_ERR_BAD_ELEM);

    av::Text<128> line;
    if (av::removes(op)) {
        if (direction.empty() && action.empty())
            return c.refuse("Undo av detect protocol input error.", NC_ERR_BAD_ELEM);
        if (isMail(protocol))
            AV_FORMAT(line, "undo %s-detect action", protocol.buf);
        else if (isNfs(protocol))
            AV_FORMAT(line, "undo %s-detect direction", protocol.buf);
        else
            AV_FORMAT(line, "undo %s-detect direction action", protocol.buf);
        return c.sendInProfileView(line, CMD_DEL);
    }
    if (av::addsOrModifies(op)) {
        if (direction.empty()) return c.refuse("Av detect direction is null.", NC_ERR_BAD_ELEM);
        if (direction.is("none"))
            AV_FORMAT(line, "undo %s-detect", protocol.buf);
        else if (isMail(protocol) && !action.empty())
            AV_FORMAT(line, "%s-detect action %s", protocol.buf, action.buf);
        else if (isMail(protocol))
            AV_FORMAT(line, "%s-detect", protocol.buf);
        else if (isNfs(protocol) || action.empty())
            AV_FORMAT(line, "%s-detect direction %s", protocol.buf, direction.buf);
        else
            AV_FORMAT(line, "%s-detect direction %s action %s", protocol.buf, direction.buf, action.buf);
        return c.sendInProfileView(line, CMD_ADD);
    }
    if (av::chains(op)) return c.drop();
    return c.unknownOp();
}

AV_HANDLER(callback_AV_ProfileDetectConfigDirection) {
    av::ProfileChange c({data, op, node, error}, AV_DETECT_CONFIG_PATH "/direction");
    Keyword protocol, direction;
    if (auto end = c.open({5, 3, 2, 1}, av::Normalise::Later)) return *end;
    if (auto end = readProtocol(c, 2, protocol)) return *end;
    if (auto end = c.normalise()) return *end;
    if (auto end = readLeaf(c, "direction", direction, protocol, AV_CheckDetectDirConfig,
                            "Av protocol detect direction config invalid."))
        return *end;

    av::Text<128> line;
    if (av::removes(op)) {
        if (isMail(protocol)) return c.drop();
        return c.sendInProfileView(AV_FORMAT(line, "undo %s-detect direction", protocol.buf), CMD_DEL);
    }
    if (av::addsOrModifies(op)) {
        if (direction.is("none"))
            AV_FORMAT(line, "undo %s-detect", protocol.buf);
        else if (isMail(protocol))
            AV_FORMAT(line, "%s-detect", protocol.buf);
        else
            AV_FORMAT(line, "%s-detect direction %s", protocol.buf, direction.buf);
        return c.sendInProfileView(line, CMD_ADD);
    }
    return c.unknownOp();
}

AV_HANDLER(callback_AV_ProfileDetectConfigAction) {
    av::ProfileChange c({data, op, node, error}, AV_DETECT_CONFIG_PATH "/action");
    Keyword protocol, action;
    if (auto end = c.open({5, 3, 2, 1})) return *end;
    if (auto end = readProtocol(c, 2, protocol)) return *end;
    if (auto end = readLeaf(c, "action", action, protocol, AV_CheckDetectActionConfig,
                            "Av protocol detect action config invalid."))
        return *end;

    av::Text<128> line;
    if (av::removes(op)) {
        if (isNfs(protocol)) return c.drop();
        return c.sendInProfileView(AV_FORMAT(line, "undo %s-detect action", protocol.buf), CMD_DEL);
    }
    if (av::addsOrModifies(op)) {
        const char* direction = c.key(1, "direction");
        if (direction == nullptr)
            return c.refuse("The profile detect direction in action node is NULL.", NC_ERR_MISSING_ELEM);
        if (AV_CheckDetectDirConfig(const_cast<char*>(direction), protocol) != 0)
            return c.refuse("Av protocol detect direction config invalid.", NC_ERR_BAD_ELEM);
        if (av::same(direction, "none") || isNfs(protocol)) return c.drop();
        if (isMail(protocol))
            AV_FORMAT(line, "%s-detect action %s", protocol.buf, action.buf);
        else
            AV_FORMAT(line, "%s-detect direction %s action %s", protocol.buf, direction, action.buf);
        return c.sendInProfileView(line, CMD_ADD);
    }
    return c.unknownOp();
}
