// Application exceptions of a profile: the list entry and its action leaf
// both send the whole line, name and action together.
#include "av_handlers.h"

AV_EXPORT void AV_GetExceptAppConfig(xmlNodePtr pstChild, char* pcExcetAppName, unsigned int uiBufLen1,
                                     char* pcExcetAction, unsigned int uiBufLen2) {
    av::readExceptApp(pstChild, pcExcetAppName, uiBufLen1, pcExcetAction, uiBufLen2);
}

namespace {

using Value = av::Text<32>;

void readExceptionChild(xmlNode* child, Value& name, Value& action) {
    if (child->type == XML_ELEMENT_NODE) av::readExceptApp(child, name, sizeof name.buf, action, sizeof action.buf);
}

av::Result sendException(av::ProfileChange& c, const Value& name, const Value& action) {
    av::Text<128> line;
    if (action.empty())
        AV_FORMAT(line, "exception application name %s", name.buf);
    else if (av::oneOf(action, "alert", "allow", "block"))
        AV_FORMAT(line, "exception application name %s action %s", name.buf, action.buf);
    else
        return c.refuse("Av except app action error", NC_ERR_BAD_ELEM);
    return c.sendInProfileView(line, CMD_ADD);
}

constexpr const char* kNoName = "av detect exception-application name is null.";

}  // namespace

AV_HANDLER(callback_AV_ProfileExceptApplication) {
    av::ProfileChange c({data, op, node, error}, AV_PROFILE_PATH "except-application");
    if (auto end = c.open({3, 1})) return *end;

    Value name, action;
    for (xmlNode* child = node->children; child != nullptr; child = child->next)
        readExceptionChild(child, name, action);
    if (name.empty()) return c.refuse(kNoName, NC_ERR_MISSING_ELEM);

    if (av::removes(op)) {
        av::Text<128> line;
        return c.sendInProfileView(AV_FORMAT(line, "undo exception application name %s", name.buf), CMD_DEL);
    }
    if (av::addsOrModifies(op)) return sendException(c, name, action);
    if (av::chains(op)) return c.drop();
    return c.unknownOp();
}

// The changed action with the name that stands before it in its entry.
AV_HANDLER(callback_AV_ProfileApplicationAction) {
    av::ProfileChange c({data, op, node, error}, AV_PROFILE_PATH "except-application/action");
    if (auto end = c.open({4, 2, 1})) return *end;

    Value name, action;
    for (xmlNode* sibling = node; sibling != nullptr; sibling = sibling->prev)
        readExceptionChild(sibling, name, action);
    if (name.empty()) return c.refuse(kNoName, NC_ERR_MISSING_ELEM);

    if (av::removes(op)) return av::kDone;
    if (av::addsOrModifies(op)) return sendException(c, name, action);
    return c.unknownOp();
}
