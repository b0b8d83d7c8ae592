// Fuzz target: every row of the callback table and every change handler,
// driven through the stand-in runtime as the server drives them, with fuzzed
// XML trees around the changed node, values, operation bits, parent
// operations and platform verdicts. After each call the handler must have kept
// the frame's contract: at most one line, cached and sent together; a refusal
// before anything was cached, with its error record; the platform's verdict
// returned unchanged.
#include <libxml/tree.h>

#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.hpp"
#include "tavrik/runtime.hpp"

namespace {

namespace rt = tavrik::runtime;

constexpr const char* kHandlers[] = {
    "callback_AV_VsysEnable",
    "callback_AV_Profile",
    "callback_AV_ProfileDescription",
    "callback_AV_ProfileAttack",
    "callback_AV_ProfileInterworking",
    "callback_AV_ProfileHeuristic",
    "callback_AV_ProfileDetect",
    "callback_AV_ProfileDetectConfig",
    "callback_AV_ProfileDetectConfigDirection",
    "callback_AV_ProfileDetectConfigAction",
    "callback_AV_ProfileExceptApplication",
    "callback_AV_ProfileApplicationAction",
    "callback_AV_ProfileExceptID",
    "callback_AV_ProfileExceptSignature",
    "callback_AV_ProfileExceptSignatureAction",
    "callback_AV_ProfileExceptSignatureTimeout",
    "callback_AV_ProfileWhitelistMatchRuleValue",
    "callback_AV_ProfileWhitelistsourceAddress",
    "callback_AV_ProfileWhitelistsourceAddressRange",
    "callback_AV_ProfileWhitelistdestinationAddress",
    "callback_AV_ProfileWhitelistdestinationAddressRange",
    "callback_AV_GlobalFilerpuAgingTime",
    "callback_AV_GlobalFilerpuAgingTimeHour",
};

// Element names of the data model, for the children that the fuzzer puts
// around the changed node; "#text", "#cdata" and "#comment" add such nodes.
constexpr const char* kNames[] = {
    "#text", "#cdata", "#comment", "name", "protocol-type", "direction", "action", "application-name",
    "application-action", "id", "timeout", "scope", "type", "value", "start-address", "end-address",
    "description", "antivirus-enable", "collect-attack-evidence-enable", "interworking-detect-enable",
    "heuristic-detect-enable", "detect", "detect-configuration", "exception-application",
    "exception-signature", "exception-signature-id", "whitelists", "match-rules", "match-rule",
    "source-address", "destination-address", "source-address-range", "destination-address-range",
    "file-reputation-age-time", "file-reputation-age-time-hour",
};
constexpr int kParentLevels = 8;

struct Target {
    const char* path;
    transapi_data_clbk func;
};

struct Targets {
    std::vector<Target> rows;                  // the callback table
    std::vector<transapi_data_clbk> handlers;  // the 23 change handlers
    unsigned char* debug;

    Targets() {
        for (const clbk& row : tkfuzz::module().rows()) rows.push_back({row.path, row.func});
        TKFUZZ_CHECK(!rows.empty());
        for (const char* name : kHandlers) handlers.push_back(tkfuzz::require<transapi_data_clbk>(name));
        debug = tkfuzz::require<unsigned char*>("g_ucAvApiDebug");
    }
};


const xmlChar* x(const std::string& s) { return reinterpret_cast<const xmlChar*>(s.c_str()); }

// Fuzzed children of one element: up to four entries, each a name of the data
// model (a pick byte) or, after a pick byte 255, a name of its own (a text),
// with an optional text.
void addChildren(tkfuzz::FuzzInput& in, xmlNodePtr element) {
    for (int n = in.byte() % 5; n > 0; --n) {
        unsigned pick = in.byte();
        std::string name = pick == 255 ? in.text() : kNames[pick % std::size(kNames)];
        auto text = in.optionalText();
        std::string content = text.value_or("");
        xmlNodePtr child;
        if (name == "#text")
            child = xmlNewTextLen(x(content), static_cast<int>(content.size()));
        else if (name == "#cdata")
            child = xmlNewCDataBlock(element->doc, x(content), static_cast<int>(content.size()));
        else if (name == "#comment")
            child = xmlNewComment(x(content));
        else {
            child = xmlNewNode(nullptr, x(name.empty() ? std::string("_") : name));
            if (text) xmlNodeAddContentLen(child, x(content), static_cast<int>(content.size()));
        }
        xmlAddChild(element, child);
    }
}

// The elements of a table path from the root down to the changed node, each
// with fuzzed children; returns the changed node.
xmlNodePtr buildTree(tkfuzz::FuzzInput& in, xmlDocPtr doc, std::string_view path) {
    xmlNodePtr parent = nullptr, node = nullptr;
    while (!path.empty()) {
        path.remove_prefix(1);  // '/'
        size_t end = path.find('/');
        std::string_view step = path.substr(0, end);
        if (size_t colon = step.find(':'); colon != std::string_view::npos) step.remove_prefix(colon + 1);
        node = xmlNewNode(nullptr, x(std::string(step)));
        if (parent == nullptr)
            xmlDocSetRootElement(doc, node);
        else
            xmlAddChild(parent, node);
        addChildren(in, node);
        parent = node;
        path = end == std::string_view::npos ? std::string_view() : path.substr(end);
    }
    return node;
}

bool zeroButTypeAndModule(const rt::Send& send) {
    for (size_t i = 0; i < send.header.size(); ++i)
        if (send.header[i] != (i == 4 ? API_DP2QMX_CMD_CONFIG : i == 8 ? API_MODULE_TK_AV : 0)) return false;
    return true;
}

void checkContract(int result, const nc_err* error) {
    const rt::Journal& j = rt::journal();
    TKFUZZ_CHECK(j.sends.size() <= 1 && j.refusals.size() <= 1 && j.clears <= 1 && j.releases == 0);
    if (!j.refusals.empty()) {
        const rt::Refusal& r = j.refusals[0];
        TKFUZZ_CHECK(result == 1 && j.cached.empty() && j.sends.empty() && j.clears == 0);
        TKFUZZ_CHECK(r.flag == 1 && !r.message.empty() && !r.path.empty());
        TKFUZZ_CHECK(r.tag == NC_ERR_OP_FAILED || r.tag == NC_ERR_MISSING_ELEM || r.tag == NC_ERR_BAD_ELEM ||
                     r.tag == NC_ERR_UNKNOWN_ELEM);
        TKFUZZ_CHECK(error != nullptr && error->message == r.message && error->tag == r.tag);
        return;
    }
    TKFUZZ_CHECK(error == nullptr);
    if (j.sends.empty()) {
        TKFUZZ_CHECK(j.cached.empty() && (result == 0 || result == 1));
        TKFUZZ_CHECK(j.clears == 0 || result == 0);
        return;
    }
    const rt::Send& s = j.sends[0];
    TKFUZZ_CHECK(j.cached.size() == 1 && s.lines.size() == 1 && j.clears == 0);
    TKFUZZ_CHECK(s.msg_type == API_DP2QMX_CMD_CONFIG && zeroButTypeAndModule(s));
    TKFUZZ_CHECK(s.cmd_op == CMD_ADD || s.cmd_op == CMD_DEL);
    TKFUZZ_CHECK(result == s.result);
    TKFUZZ_CHECK(s.lines[0].line.size() < 512 && s.lines[0].view.size() < 256);
}

}  // namespace

void tkfuzz::prepare() {
    tkfuzz::state<Targets>();
}

// Input: mode (bit 0: call the change handler picked by the next-but-one byte
// directly instead of the row's function; bit 1: debug switch on; bit 2: dry
// run, nothing delivered), row, handler, operation bits (4 bytes, of which
// the low 17 are a signed value), platform verdict (1 signed byte), the
// operation bits of the ancestors 1 to 8 (a byte each), then the children of
// each element of the row's path from the root down.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Targets& t = tkfuzz::state<Targets>();
    tkfuzz::FuzzInput in(data, size);
    unsigned mode = in.byte();
    const Target& row = t.rows[in.byte() % t.rows.size()];
    unsigned handler = in.byte();
    // Any operation bits the type can hold: every combination of the flags, and -1.
    int bits = static_cast<int>(in.u32() & 0x1ffff);
    auto op = static_cast<XMLDIFF_OP>(bits & 0x10000 ? bits - 0x20000 : bits);
    auto verdict = static_cast<int8_t>(in.byte());
    rt::ScriptedParents parents;
    for (int level = 1; level <= kParentLevels; ++level) parents.set(level, in.byte());

    rt::reset();
    *t.debug = mode & 2 ? 1 : 0;
    rt::set_delivery(mode & 4 ? rt::Delivery::RecordOnly : rt::Delivery::Deliver);
    rt::default_platform().next_results = {verdict};

    xmlDocPtr doc = xmlNewDoc(x("1.0"));
    xmlNodePtr node = buildTree(in, doc, row.path);
    transapi_data_clbk func = mode & 1 ? t.handlers[handler % t.handlers.size()] : row.func;

    nc_err* error = nullptr;
    void* handle = &parents;
    int result = func(&handle, op, node, &error);
    checkContract(result, error);

    rt::free_error(error);
    xmlFreeDoc(doc);
    rt::reset();
    return 0;
}
