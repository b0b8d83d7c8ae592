// One change through each of the module's 23 change handlers, added and
// removed, next to the floor the change-handler frame prescribes for it.
//
// The module is loaded as the server loads it (the engine's loader) and each
// handler is called through its wrapper (ADD or Delete) as the server calls
// it: a parsed libxml2 tree, the changed node in it, a data handle that
// answers parent operations. The runtime is set up as the engine runs it in
// production: no journal, a call record installed, the channel recording the
// messages; the record is released every block of calls (an edit's worth).
//
// The floor of a change is what the frame prescribes, through the same
// runtime calls: the path string made with asprintf, the handler's buffers
// and the message header cleared once each, the view instance and the line
// formatted with the bounded formatter (the handler's formats and values),
// then one cache and one send (or, for a change the handler drops, the
// clearing of the cached lines). Before it is timed, each case is checked:
// the floor leaves exactly what the handler leaves in the runtime's journal
// (lines, views, command op, header bytes, path string handed over).
//
// The machine is shared: handler and floor run in alternating blocks inside
// one benchmark, and each side counts the median of its blocks.
#include <libxml/parser.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench_main.hpp"
#include "securec.h"
#include "tavrik/module.hpp"
#include "tavrik/runtime.hpp"

namespace {

namespace rt = tavrik::runtime;
using Callback = int (*)(void**, XMLDIFF_OP, xmlNodePtr, nc_err**);
using Format = void (*)(char* out, size_t size);

// A text of the floor: the handler's format and values, written with the
// bounded formatter into a buffer of the handler's size.
#define TEXT(...) [](char* out, size_t size) { snprintf_s(out, size, size - 1, __VA_ARGS__); }

constexpr const char* kPrefix = "callback_AV_";

// Where a handler's line goes.
struct Channel {
    const char* vsys;
    Format view;             // formats the view instance into the second buffer; null: `fixedView`
    const char* fixedView;
    const char* viewTemplate;
    bool origin;  // the path string is handed to the channel
};

// "profile-av-p1" in the profile's view buffer.
constexpr Channel kProfileView{"vs1", TEXT("profile-av-%s", "p1"), nullptr, "profile-av", false};
// "vsys-vs1", formatted with a count equal to its size.
constexpr Channel kVsysView{"public", [](char* out, size_t size) { snprintf_s(out, size, size, "vsys-%s", "vs1"); },
                            nullptr, "mgmt-vsys", true};
constexpr Channel kProfileSystem{"vs1", nullptr, "system", nullptr, true};
constexpr Channel kGlobalSystem{"public", nullptr, "system", nullptr, true};

struct Case {
    const char* handler;          // the change handler; its wrappers are handler + "_ADD" / "_Delete"
    XMLDIFF_OP op;                // XMLDIFF_ADD (the ADD wrapper) or XMLDIFF_REM (the Delete wrapper)
    std::string tree;             // the configuration document the server hands over
    std::string node;             // the changed node: element names below the root element
    const char* path;             // the handler's path string
    std::vector<size_t> buffers;  // sizes of the buffers the handler clears: its line, its view (if
                                  // it formats one), its values; the message header comes on top
    Channel channel;
    Format line;                  // null: the handler sends nothing
    bool drops = false;           // no line: the handler clears the cached lines
    const char* label = "";       // told apart from the same handler and op

    std::string name() const {
        return std::string(handler).substr(std::string_view(kPrefix).size()) + (op == XMLDIFF_REM ? "/del" : "/add") +
               label;
    }
};

std::string leaf(const std::string& name, const std::string& text) { return "<" + name + ">" + text + "</" + name + ">"; }
std::string inVsys(const std::string& body) { return "<antivirus>" + leaf("vsys", leaf("name", "vs1") + body) + "</antivirus>"; }
std::string inProfile(const std::string& body) {
    return inVsys(leaf("profiles", leaf("profile", leaf("name", "p1") + body)));
}
std::string global(const std::string& body) { return "<antivirus>" + leaf("global", body) + "</antivirus>"; }
const std::string P = "vsys/profiles/profile/";

#define PROFILE_PATH "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile"
#define IN_PROFILE PROFILE_PATH "/"
#define GLOBAL_PATH "/tk-antivirus:antivirus/tk-antivirus:global/tk-antivirus:"

const std::string kDetect =
    leaf("detect", leaf("protocol-type", "http") +
                       leaf("detect-configuration", leaf("direction", "both") + leaf("action", "alert")));
const std::string kApplication =
    leaf("exception-application", leaf("application-name", "dropbox") + leaf("application-action", "block"));
const std::string kSignature =
    leaf("exception-signature", leaf("id", "2002") + leaf("action", "block-source-ip") + leaf("timeout", "60"));
const std::string kMatchRule = leaf(
    "whitelists",
    leaf("match-rules", leaf("match-rule", leaf("scope", "url") + leaf("type", "prefix") +
                                               leaf("value", "www.example.com/*"))));
std::string range(const char* name, const char* start, const char* end) {
    return leaf("whitelists", leaf(name, leaf("start-address", start) + leaf("end-address", end)));
}

const std::string kDesc100(100, 'd'), kDesc400(400, 'd');

constexpr auto ADD = XMLDIFF_ADD;
constexpr auto DEL = XMLDIFF_REM;

// A handler's added change and, with `delLine` (and `delBuffers` when they
// differ), its removal of the same node.
std::vector<Case> both(const Case& add, Format delLine, std::vector<size_t> delBuffers = {}) {
    Case del = add;
    del.op = DEL;
    del.line = delLine;
    del.drops = false;
    if (!delBuffers.empty()) del.buffers = std::move(delBuffers);
    return {add, del};
}

// A representative change of each handler, added or modified and removed
// alone (its parents are only on the way), with the buffers its code clears.
// The longer descriptions show how the cost grows with the text.
const std::vector<Case>& cases() {
    static const std::vector<Case> list = [] {
        const std::string desc = P + "description";
        const std::string detect = P + "detect/detect-configuration";
        const std::string app = P + "exception-application";
        const std::string sig = P + "exception-signature";
        const std::string wl = P + "whitelists/";
        const auto sw = [](const char* leafName) { return inProfile(leaf(leafName, "true")); };
        const std::vector<std::vector<Case>> pairs = {
            both({"callback_AV_VsysEnable", ADD, inVsys(leaf("antivirus-enable", "true")), "vsys/antivirus-enable",
                  "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:antivirus-enable", {512, 128, 32}, kVsysView,
                  TEXT("assign function av")},
                 TEXT("assign function av")),
            both({"callback_AV_Profile", ADD, inProfile(""), "vsys/profiles/profile", PROFILE_PATH, {512, 128, 128},
                  kProfileSystem, TEXT("profile type av name %s", "p1")},
                 TEXT("undo profile type av name %s", "p1")),
            both({"callback_AV_ProfileDescription", ADD, inProfile(leaf("description", "office traffic")), desc,
                  IN_PROFILE "description", {512, 128, 128}, kProfileView, TEXT("description %s", "office traffic")},
                 TEXT("undo description")),
            both({"callback_AV_ProfileAttack", ADD, sw("collect-attack-evidence-enable"),
                  P + "collect-attack-evidence-enable", IN_PROFILE "collect-attack-evidence-enable",
                  {128, 128, 128, 32}, kProfileView, TEXT("%s", "collect-attack-evidence enable")},
                 TEXT("undo %s", "collect-attack-evidence enable")),
            both({"callback_AV_ProfileInterworking", ADD, sw("interworking-detect-enable"),
                  P + "interworking-detect-enable", IN_PROFILE "interworking-detect-enable", {128, 128, 128, 32},
                  kProfileView, TEXT("%s", "file-reputation enable")},
                 TEXT("undo %s", "file-reputation enable")),
            both({"callback_AV_ProfileHeuristic", ADD, sw("heuristic-detect-enable"), P + "heuristic-detect-enable",
                  IN_PROFILE "heuristic-detect-enable", {128, 128, 128, 32}, kProfileView,
                  TEXT("%s", "heuristic-detect enable")},
                 TEXT("undo %s", "heuristic-detect enable")),
            // Added, the entry is dropped; removed, its line is sent from a view.
            both({"callback_AV_ProfileDetect", ADD, inProfile(kDetect), P + "detect", IN_PROFILE "detect",
                  {128, 128, 32, 32}, kProfileView, nullptr, true},
                 TEXT("undo %s-detect", "http"), {128, 128, 128, 32, 32}),
            both({"callback_AV_ProfileDetectConfig", ADD, inProfile(kDetect), detect, IN_PROFILE "detect/configuration",
                  {128, 128, 128, 32, 32, 32}, kProfileView,
                  TEXT("%s-detect direction %s action %s", "http", "both", "alert")},
                 TEXT("undo %s-detect direction action", "http")),
            both({"callback_AV_ProfileDetectConfigDirection", ADD, inProfile(kDetect), detect + "/direction",
                  IN_PROFILE "detect/configuration/direction", {128, 128, 128, 32, 32}, kProfileView,
                  TEXT("%s-detect direction %s", "http", "both")},
                 TEXT("undo %s-detect direction", "http")),
            both({"callback_AV_ProfileDetectConfigAction", ADD, inProfile(kDetect), detect + "/action",
                  IN_PROFILE "detect/configuration/action", {128, 128, 128, 32, 32}, kProfileView,
                  TEXT("%s-detect direction %s action %s", "http", "both", "alert")},
                 TEXT("undo %s-detect action", "http")),
            both({"callback_AV_ProfileExceptApplication", ADD, inProfile(kApplication), app,
                  IN_PROFILE "except-application", {128, 128, 128, 32, 32}, kProfileView,
                  TEXT("exception application name %s action %s", "dropbox", "block")},
                 TEXT("undo exception application name %s", "dropbox")),
            // Removed alone, the action needs no command: the handler reads and ends.
            both({"callback_AV_ProfileApplicationAction", ADD, inProfile(kApplication), app + "/application-action",
                  IN_PROFILE "except-application/action", {128, 128, 128, 32, 32}, kProfileView,
                  TEXT("exception application name %s action %s", "dropbox", "block")},
                 nullptr, {128, 32, 32}),
            both({"callback_AV_ProfileExceptID", ADD, inProfile(leaf("exception-signature-id", "1001")),
                  P + "exception-signature-id", IN_PROFILE "except-signature-id", {128, 128, 128, 32}, kProfileView,
                  TEXT("exception av-signature-id %s", "1001")},
                 TEXT("undo exception av-signature-id %s", "1001")),
            both({"callback_AV_ProfileExceptSignature", ADD, inProfile(kSignature), sig, IN_PROFILE "except-signatures",
                  {128, 128, 128, 32, 32, 32}, kProfileView,
                  TEXT("exception av-signature-id %s action %s timeout %s", "2002", "block-source-ip", "60")},
                 TEXT("undo exception av-signature-id %s", "2002")),
            // The action and timeout leaves drop an added change and speak when removed alone.
            both({"callback_AV_ProfileExceptSignatureAction", ADD, inProfile(kSignature), sig + "/action",
                  IN_PROFILE "except-signatures/action", {128, 128, 32, 32}, kProfileView, nullptr, true},
                 TEXT("exception av-signature-id %s action allow", "2002"), {128, 128, 128, 32, 32}),
            both({"callback_AV_ProfileExceptSignatureTimeout", ADD, inProfile(kSignature), sig + "/timeout",
                  IN_PROFILE "except-signatures/timeout", {128, 128, 32, 32, 32}, kProfileView, nullptr, true},
                 TEXT("exception av-signature-id %s action block-source-ip", "2002"), {128, 128, 128, 32, 32, 32}),
            both({"callback_AV_ProfileWhitelistMatchRuleValue", ADD, inProfile(kMatchRule),
                  wl + "match-rules/match-rule/value", IN_PROFILE "match-rule/value", {256, 256, 128, 128},
                  kProfileView, TEXT("whitelist url %s", "www.example.com/*")},
                 TEXT("undo whitelist url %s", "www.example.com/*")),
            both({"callback_AV_ProfileWhitelistsourceAddress", ADD,
                  inProfile(leaf("whitelists", leaf("source-address", "10.1.1.1"))), wl + "source-address",
                  IN_PROFILE "whitelist/sourceAddress", {256, 256, 128, 128, 32, 32}, kProfileView,
                  TEXT("%s%s %s", "", "whitelist source-address", "10.1.1.1")},
                 TEXT("%s%s %s", "undo ", "whitelist source-address", "10.1.1.1")),
            both({"callback_AV_ProfileWhitelistsourceAddressRange", ADD,
                  inProfile(range("source-address-range", "10.0.0.1", "10.0.0.9")), wl + "source-address-range",
                  IN_PROFILE "whitelist/sourceAddressRange", {256, 256, 128, 128, 32, 32}, kProfileView,
                  TEXT("%s%s range %s %s", "", "whitelist source-address", "10.0.0.1", "10.0.0.9")},
                 TEXT("%s%s range %s %s", "undo ", "whitelist source-address", "10.0.0.1", "10.0.0.9")),
            both({"callback_AV_ProfileWhitelistdestinationAddress", ADD,
                  inProfile(leaf("whitelists", leaf("destination-address", "10.2.2.2"))), wl + "destination-address",
                  IN_PROFILE "whitelist/destinationAddress", {256, 256, 128, 128, 32, 32}, kProfileView,
                  TEXT("%s%s %s", "", "whitelist destination-address", "10.2.2.2")},
                 TEXT("%s%s %s", "undo ", "whitelist destination-address", "10.2.2.2")),
            both({"callback_AV_ProfileWhitelistdestinationAddressRange", ADD,
                  inProfile(range("destination-address-range", "10.0.1.1", "10.0.1.9")),
                  wl + "destination-address-range", IN_PROFILE "whitelist/destinationAddressRange",
                  {256, 256, 128, 128, 32, 32}, kProfileView,
                  TEXT("%s%s range %s %s", "", "whitelist destination-address", "10.0.1.1", "10.0.1.9")},
                 TEXT("%s%s range %s %s", "undo ", "whitelist destination-address", "10.0.1.1", "10.0.1.9")),
            both({"callback_AV_GlobalFilerpuAgingTime", ADD, global(leaf("file-reputation-age-time", "7")),
                  "global/file-reputation-age-time", GLOBAL_PATH "file-reputation-age-time", {128, 32},
                  kGlobalSystem, TEXT("file-reputation set aging-time hour %u", 168u)},
                 TEXT("undo file-reputation set aging-time")),
            both({"callback_AV_GlobalFilerpuAgingTimeHour", ADD, global(leaf("file-reputation-age-time-hour", "12")),
                  "global/file-reputation-age-time-hour", GLOBAL_PATH "file-reputation-age-time-hour", {128, 32},
                  kGlobalSystem, TEXT("file-reputation set aging-time hour %s", "12")},
                 TEXT("undo file-reputation set aging-time")),
        };
        std::vector<Case> l;
        for (const auto& pair : pairs) l.insert(l.end(), pair.begin(), pair.end());
        // The description handler again with 100 and 400 characters of text.
        const auto longer = [&pairs](const std::string& text, Format line, const char* label) {
            Case c = pairs[2][0];
            c.tree = inProfile(leaf("description", text));
            c.line = line;
            c.label = label;
            return c;
        };
        l.push_back(longer(kDesc100, TEXT("description %s", kDesc100.c_str()), " 100 chars"));
        l.push_back(longer(kDesc400, TEXT("description %s", kDesc400.c_str()), " 400 chars"));
        return l;
    }();
    return list;
}

// The floor of one change: what the frame prescribes, nothing else.
void floorOf(const Case& c) {
    msg_dp_qmx_head_t header;
    memset_s(&header, sizeof header, 0, sizeof header);
    header.msg_type = API_DP2QMX_CMD_CONFIG;
    header.model_type = API_MODULE_TK_AV;
    char* path = nullptr;
    if (asprintf(&path, "%s", c.path) < 0) path = nullptr;

    char arena[2048];
    char* buffer[8];
    char* at = arena;
    for (size_t i = 0; i < c.buffers.size(); ++i) {
        memset_s(at, c.buffers[i], 0, c.buffers[i]);
        buffer[i] = at;
        at += c.buffers[i];
    }
    if (c.line) {
        const char* view = c.channel.fixedView;
        if (c.channel.view) {
            c.channel.view(buffer[1], c.buffers[1]);
            view = buffer[1];
        }
        c.line(buffer[0], c.buffers[0]);
        msg_to_dp_t* reply = nullptr;
        api_script_cache_lines(c.channel.vsys, view, c.channel.viewTemplate, buffer[0]);
        benchmark::DoNotOptimize(transapi_comm_with_qmx(header, c.op == DEL ? CMD_DEL : CMD_ADD, &reply, nullptr,
                                                        c.channel.origin ? path : nullptr));
    } else if (c.drops) {
        api_script_clear_lines();
    }
    benchmark::DoNotOptimize(arena);
    std::free(path);
}

const tavrik::engine::Module& module() {
    static const tavrik::engine::Module loaded(TAVRIK_MODULE_PATH);
    return loaded;
}

// One change handed to a handler's wrapper, as the server hands it: the
// parents of the changed node have changed descendants (CHAIN).
class Change {
public:
    explicit Change(const Case& c)
        : op_(c.op),
          wrapper_(module().function<Callback>(
              (std::string(c.handler) + (c.op == XMLDIFF_REM ? "_Delete" : "_ADD")).c_str())),
          doc_(xmlReadMemory(c.tree.data(), static_cast<int>(c.tree.size()), nullptr, nullptr, XML_PARSE_NOBLANKS)) {
        node_ = xmlDocGetRootElement(doc_);
        for (std::string_view path = c.node; node_ && !path.empty();) {
            const std::string_view step = path.substr(0, path.find('/'));
            path.remove_prefix(std::min(path.size(), step.size() + 1));
            xmlNode* child = node_->children;
            while (child && std::string_view(reinterpret_cast<const char*>(child->name)) != step) child = child->next;
            node_ = child;
        }
        if (!node_) throw std::runtime_error("no node " + c.node + " in " + c.tree);
        for (int level = 1; level <= 6; ++level) parents_.set(level, XMLDIFF_CHAIN);
    }
    ~Change() { xmlFreeDoc(doc_); }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    int operator()() {
        void* handle = &parents_;
        nc_err* error = nullptr;
        const int result = wrapper_(&handle, op_, node_, &error);
        if (error) rt::free_error(error);
        return result;
    }

private:
    XMLDIFF_OP op_;
    Callback wrapper_;
    xmlDoc* doc_;
    xmlNode* node_ = nullptr;
    rt::ScriptedParents parents_;
};

// What the runtime's journal holds after `call`.
template <class F>
rt::Journal journalOf(F call) {
    rt::reset();
    call();
    rt::Journal journal = rt::journal();
    rt::reset();
    return journal;
}

// The handler accepts the change, and the floor leaves behind exactly what
// it does. Empty when so, else what differs.
std::string check(const Case& c, Change& change) {
    int result = 0;
    const rt::Journal handler = journalOf([&] { result = change(); });
    const rt::Journal floor = journalOf([&] { floorOf(c); });
    std::string problem;
    if (result != 0) problem = "result " + std::to_string(result);
    if (!handler.refusals.empty()) problem += " refused: " + handler.refusals[0].message;
    if (handler.sends.size() != (c.line ? 1u : 0u)) problem += " sent " + std::to_string(handler.sends.size());
    bool same = handler.cached == floor.cached && handler.clears == floor.clears &&
                handler.sends.size() == floor.sends.size();
    for (size_t i = 0; same && i < handler.sends.size(); ++i) {
        const rt::Send &h = handler.sends[i], &f = floor.sends[i];
        same = h.header == f.header && h.cmd_op == f.cmd_op && h.origin == f.origin && h.lines == f.lines;
    }
    if (!same) {
        problem += " the floor differs from the handler";
        if (!handler.cached.empty()) problem += " (handler: " + handler.cached[0].line + ")";
        if (!floor.cached.empty()) problem += " (floor: " + floor.cached[0].line + ")";
    }
    return problem;
}

// The runtime as the engine runs it: no journal, a call record, the channel
// recording the messages.
class ProductionRuntime {
public:
    ProductionRuntime() {
        rt::reset();
        rt::set_journaling(false);
        rt::set_call_record(&record_);
        rt::set_delivery(rt::Delivery::RecordOnly);
    }
    ~ProductionRuntime() { rt::reset(); }
    ProductionRuntime(const ProductionRuntime&) = delete;
    ProductionRuntime& operator=(const ProductionRuntime&) = delete;

    // Wall time per call of `calls` calls of `call`, the record
    // released at the end as an edit releases it.
    template <class F>
    double block(int calls, F call) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < calls; ++i) benchmark::DoNotOptimize(call());
        record_ = rt::CallRecord{};
        const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
        return took.count() / calls;
    }

private:
    rt::CallRecord record_;
};

constexpr int kBlock = 64;  // calls per block

double median(std::vector<double>& values) {
    if (values.empty()) return 0;
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

void registerCase(const Case& c) {
    const std::string name = "handler/" + c.name();
    benchmark::RegisterBenchmark(name.c_str(), [&c](benchmark::State& state) {
        Change change(c);
        if (std::string problem = check(c, change); !problem.empty()) {
            state.SkipWithError(problem.c_str());
            return;
        }
        std::vector<double> floorNs, handlerNs;
        {
            ProductionRuntime runtime;
            for (auto _ : state) {
                floorNs.push_back(runtime.block(kBlock, [&] {
                    floorOf(c);
                    return 0;
                }));
                handlerNs.push_back(runtime.block(kBlock, [&] { return change(); }));
            }
        }
        const double floor = median(floorNs), handler = median(handlerNs);
        state.counters["floor_ns"] = floor;
        state.counters["handler_ns"] = handler;
        state.counters["ratio"] = floor > 0 ? handler / floor : 0;
    })->MinTime(0.1)->Repetitions(3)->ReportAggregatesOnly(true);
}

constexpr double kTarget = 1.3;

void summary(const tkbench::Results& r) {
    std::printf("Per-handler cost of one change through the production runtime (no journal, call record,\n"
                "recording channel): handler / floor the frame prescribes, side by side, median of blocks of %d\n"
                "calls (wall time; target <= %.2fx)\n\n",
                kBlock, kTarget);
    std::printf("%-50s %10s %10s %8s  %s\n", "handler/op", "floor", "handler", "ratio", "<= 1.3x");
    int met = 0, measured = 0;
    for (const Case& c : cases()) {
        const std::string n = "handler/" + c.name();
        const auto floor = r.counter(n, "floor_ns"), handler = r.counter(n, "handler_ns");
        const char* verdict = "-";
        if (floor && handler) {
            ++measured;
            const bool ok = *handler <= kTarget * *floor;
            met += ok;
            verdict = ok ? "yes" : "no";
        }
        std::printf("%-50s %10s %10s %8s  %s%s\n", c.name().c_str(), tkbench::duration(floor).c_str(),
                    tkbench::duration(handler).c_str(), tkbench::ratio(handler, floor).c_str(), verdict,
                    c.line ? "" : c.drops ? " (drops the change)" : " (no command)");
    }
    std::printf("\ntarget met by %d of %d changes\n", met, measured);
}

}  // namespace

int main(int argc, char** argv) {
    for (const Case& c : cases()) registerCase(c);
    return tkbench::run(argc, argv, summary);
}
