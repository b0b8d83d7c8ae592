// One change through each of the module's 23 change handlers, called the way
// the server calls them: the module loaded as the server loads it (the
// engine's loader), the handler's ADD wrapper found by name, a parsed libxml2
// tree, a data handle that answers parent operations. Next to each, the floor of the same change: clearing the
// handler's buffers and formatting the same line with the bounded formatter.
//
// Every handler runs twice: with the runtime as it is (the journal and the
// recording platform, emptied every 256 calls, an edit's worth, so that they
// do not grow without bound) and with that bookkeeping off (journaling off, a
// platform that keeps nothing). The bookkeeping is the stand-in server's, not
// the module's.
#include <libxml/parser.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
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
using Format = void (*)(char* line, size_t size);

// The floor's line: the handler's format and values, written with the
// bounded formatter into a buffer of the handler's line size.
#define LINE(...) [](char* line, size_t size) { snprintf_s(line, size, size - 1, __VA_ARGS__); }

constexpr size_t kHeader = sizeof(msg_dp_qmx_head_t);  // cleared by every handler
constexpr const char* kPrefix = "callback_AV_";

struct Case {
    const char* handler;          // the change handler; its wrapper is handler + "_ADD"
    std::string tree;             // the configuration document the server hands over
    std::string node;             // the changed node: element names below the root element
    std::vector<size_t> buffers;  // sizes of the buffers the handler clears, its line first
    Format format;                // formats the line; null when the handler drops the change
    const char* line;             // the line the handler sends; null: it drops the change

    std::string name() const { return std::string(handler).substr(std::string_view(kPrefix).size()); }
};

std::string leaf(const std::string& name, const std::string& text) { return "<" + name + ">" + text + "</" + name + ">"; }
std::string inVsys(const std::string& body) { return "<antivirus>" + leaf("vsys", leaf("name", "vs1") + body) + "</antivirus>"; }
std::string inProfile(const std::string& body) {
    return inVsys(leaf("profiles", leaf("profile", leaf("name", "p1") + body)));
}
std::string global(const std::string& body) { return "<antivirus>" + leaf("global", body) + "</antivirus>"; }
const std::string P = "vsys/profiles/profile/";

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

// A representative add or modify of each handler, with the buffers its code
// clears (line, view, profile name, values, message header).
const std::vector<Case>& cases() {
    static const std::vector<Case> list = {
        {"callback_AV_VsysEnable", inVsys(leaf("antivirus-enable", "true")), "vsys/antivirus-enable",
         {512, 128, 32, kHeader}, LINE("assign function av"), "assign function av"},
        {"callback_AV_Profile", inProfile(""), "vsys/profiles/profile", {512, 128, 128, kHeader},
         LINE("profile type av name %s", "p1"), "profile type av name p1"},
        {"callback_AV_ProfileDescription", inProfile(leaf("description", "office traffic")), P + "description",
         {512, 128, 128, kHeader}, LINE("description %s", "office traffic"), "description office traffic"},
        {"callback_AV_ProfileAttack", inProfile(leaf("collect-attack-evidence-enable", "true")),
         P + "collect-attack-evidence-enable", {128, 128, 128, 32, kHeader},
         LINE("%s", "collect-attack-evidence enable"), "collect-attack-evidence enable"},
        {"callback_AV_ProfileInterworking", inProfile(leaf("interworking-detect-enable", "true")),
         P + "interworking-detect-enable", {128, 128, 128, 32, kHeader}, LINE("%s", "file-reputation enable"),
         "file-reputation enable"},
        {"callback_AV_ProfileHeuristic", inProfile(leaf("heuristic-detect-enable", "true")),
         P + "heuristic-detect-enable", {128, 128, 128, 32, kHeader}, LINE("%s", "heuristic-detect enable"),
         "heuristic-detect enable"},
        {"callback_AV_ProfileDetect", inProfile(kDetect), P + "detect", {128, 128, 32, 32, kHeader}, nullptr,
         nullptr},
        {"callback_AV_ProfileDetectConfig", inProfile(kDetect), P + "detect/detect-configuration",
         {128, 128, 128, 32, 32, 32, kHeader},
         LINE("%s-detect direction %s action %s", "http", "both", "alert"),
         "http-detect direction both action alert"},
        {"callback_AV_ProfileDetectConfigDirection", inProfile(kDetect), P + "detect/detect-configuration/direction",
         {128, 128, 128, 32, 32, kHeader}, LINE("%s-detect direction %s", "http", "both"),
         "http-detect direction both"},
        {"callback_AV_ProfileDetectConfigAction", inProfile(kDetect), P + "detect/detect-configuration/action",
         {128, 128, 128, 32, 32, kHeader}, LINE("%s-detect direction %s action %s", "http", "both", "alert"),
         "http-detect direction both action alert"},
        {"callback_AV_ProfileExceptApplication", inProfile(kApplication), P + "exception-application",
         {128, 128, 128, 32, 32, kHeader}, LINE("exception application name %s action %s", "dropbox", "block"),
         "exception application name dropbox action block"},
        {"callback_AV_ProfileApplicationAction", inProfile(kApplication),
         P + "exception-application/application-action", {128, 128, 128, 32, 32, kHeader},
         LINE("exception application name %s action %s", "dropbox", "block"),
         "exception application name dropbox action block"},
        {"callback_AV_ProfileExceptID", inProfile(leaf("exception-signature-id", "1001")),
         P + "exception-signature-id", {128, 128, 128, 32, kHeader}, LINE("exception av-signature-id %s", "1001"),
         "exception av-signature-id 1001"},
        {"callback_AV_ProfileExceptSignature", inProfile(kSignature), P + "exception-signature",
         {128, 128, 128, 32, 32, 32, kHeader},
         LINE("exception av-signature-id %s action %s timeout %s", "2002", "block-source-ip", "60"),
         "exception av-signature-id 2002 action block-source-ip timeout 60"},
        {"callback_AV_ProfileExceptSignatureAction", inProfile(kSignature), P + "exception-signature/action",
         {128, 128, 32, 32, kHeader}, nullptr, nullptr},
        {"callback_AV_ProfileExceptSignatureTimeout", inProfile(kSignature), P + "exception-signature/timeout",
         {128, 128, 32, 32, 32, kHeader}, nullptr, nullptr},
        {"callback_AV_ProfileWhitelistMatchRuleValue", inProfile(kMatchRule),
         P + "whitelists/match-rules/match-rule/value", {256, 256, 128, 128, kHeader},
         LINE("whitelist url %s", "www.example.com/*"), "whitelist url www.example.com/*"},
        {"callback_AV_ProfileWhitelistsourceAddress",
         inProfile(leaf("whitelists", leaf("source-address", "10.1.1.1"))), P + "whitelists/source-address",
         {256, 256, 128, 128, 32, 32, kHeader}, LINE("%s%s %s", "", "whitelist source-address", "10.1.1.1"),
         "whitelist source-address 10.1.1.1"},
        {"callback_AV_ProfileWhitelistsourceAddressRange",
         inProfile(range("source-address-range", "10.0.0.1", "10.0.0.9")), P + "whitelists/source-address-range",
         {256, 256, 128, 128, 32, 32, kHeader},
         LINE("%s%s range %s %s", "", "whitelist source-address", "10.0.0.1", "10.0.0.9"),
         "whitelist source-address range 10.0.0.1 10.0.0.9"},
        {"callback_AV_ProfileWhitelistdestinationAddress",
         inProfile(leaf("whitelists", leaf("destination-address", "10.2.2.2"))),
         P + "whitelists/destination-address", {256, 256, 128, 128, 32, 32, kHeader},
         LINE("%s%s %s", "", "whitelist destination-address", "10.2.2.2"), "whitelist destination-address 10.2.2.2"},
        {"callback_AV_ProfileWhitelistdestinationAddressRange",
         inProfile(range("destination-address-range", "10.0.1.1", "10.0.1.9")),
         P + "whitelists/destination-address-range", {256, 256, 128, 128, 32, 32, kHeader},
         LINE("%s%s range %s %s", "", "whitelist destination-address", "10.0.1.1", "10.0.1.9"),
         "whitelist destination-address range 10.0.1.1 10.0.1.9"},
        {"callback_AV_GlobalFilerpuAgingTime", global(leaf("file-reputation-age-time", "7")),
         "global/file-reputation-age-time", {128, 32, kHeader}, LINE("file-reputation set aging-time hour %u", 168u),
         "file-reputation set aging-time hour 168"},
        {"callback_AV_GlobalFilerpuAgingTimeHour", global(leaf("file-reputation-age-time-hour", "12")),
         "global/file-reputation-age-time-hour", {128, 32, kHeader},
         LINE("file-reputation set aging-time hour %s", "12"), "file-reputation set aging-time hour 12"},
    };
    return list;
}

// The floor of one change.
void floorOf(const Case& c) {
    char arena[2048];
    char* at = arena;
    for (size_t size : c.buffers) {
        memset_s(at, size, 0, size);
        at += size;
    }
    if (c.format) c.format(arena, c.buffers[0]);
    benchmark::DoNotOptimize(arena);
}

const tavrik::engine::Module& module() {
    static const tavrik::engine::Module loaded(TAVRIK_MODULE_PATH);
    return loaded;
}

// One change handed to a handler's ADD wrapper, as the server hands it: the
// parents of the changed node have changed descendants (CHAIN).
class Change {
public:
    explicit Change(const Case& c)
        : wrapper_(module().function<Callback>((std::string(c.handler) + "_ADD").c_str())),
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
        const int result = wrapper_(&handle, XMLDIFF_ADD, node_, &error);
        if (error) rt::free_error(error);
        return result;
    }

private:
    Callback wrapper_;
    xmlDoc* doc_;
    xmlNode* node_ = nullptr;
    rt::ScriptedParents parents_;
};

// What a change is to leave behind: its line sent, or the change dropped;
// and the floor's line is the same. Empty when so, else what differs.
std::string check(const Case& c, Change& change) {
    rt::reset();
    const int result = change();
    const rt::Journal& j = rt::journal();
    std::string problem;
    if (result != 0) problem = "result " + std::to_string(result);
    if (!j.refusals.empty()) problem += " refused: " + j.refusals[0].message;
    if (c.line) {
        if (j.sends.size() != 1 || j.sends[0].lines.size() != 1 || j.sends[0].lines[0].line != c.line)
            problem += " did not send exactly \"" + std::string(c.line) + "\"";
        char line[2048];
        c.format(line, c.buffers[0]);
        if (std::string_view(line) != c.line) problem += " the floor formats \"" + std::string(line) + "\"";
    } else if (j.clears != 1 || !j.sends.empty()) {
        problem += " did not drop the change";
    }
    rt::reset();
    return problem;
}

// Accepts every line and keeps nothing.
class DiscardingPlatform final : public rt::Platform {
public:
    int deliver(const std::vector<rt::CachedLine>&, unsigned) override { return 0; }
    rt::DocumentReply document(unsigned) override { return {}; }
};
DiscardingPlatform discarding;

enum class Bookkeeping { AsIs, Off };
constexpr int kEmptyEvery = 256;  // calls between emptying the journal and the recording platform

// Runs `call` in the loop with the runtime's bookkeeping as asked.
template <class F>
void loop(benchmark::State& state, Bookkeeping bookkeeping, F call) {
    rt::reset();
    if (bookkeeping == Bookkeeping::Off) {
        rt::set_journaling(false);
        rt::set_platform(&discarding);
    }
    int calls = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(call());
        if (bookkeeping == Bookkeeping::AsIs && ++calls == kEmptyEvery) {
            calls = 0;
            rt::reset_journal();
            rt::default_platform().deliveries.clear();
        }
    }
    rt::reset();
}

const char* mode(Bookkeeping b) { return b == Bookkeeping::AsIs ? "runtime" : "quiet"; }

// Short runs, three of each; the median counts. Adjacent in time, a handler
// and its floor see the same load of the machine.
template <class F>
void add(const std::string& name, F run) {
    benchmark::RegisterBenchmark(name.c_str(), run)->MinTime(0.05)->Repetitions(3)->ReportAggregatesOnly(true);
}

void registerHandler(const Case& c) {
    add("floor/" + c.name(), [&c](benchmark::State& state) {
        for (auto _ : state) floorOf(c);
    });
    for (Bookkeeping b : {Bookkeeping::AsIs, Bookkeeping::Off}) {
        add("handler/" + c.name() + "/" + mode(b), [&c, b](benchmark::State& state) {
            Change change(c);
            if (std::string problem = check(c, change); !problem.empty()) {
                state.SkipWithError(problem.c_str());
                return;
            }
            loop(state, b, [&] { return change(); });
        });
    }
}

// The parts of a profile-view handler beyond the floor, one by one.
constexpr const char* kPath =
    "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/description";

void registerParts() {
    add("part/path", [](benchmark::State& state) {
        for (auto _ : state) {
            char* path = nullptr;
            if (asprintf(&path, "%s", kPath) < 0) path = nullptr;
            benchmark::DoNotOptimize(path);
            std::free(path);
        }
    });
    add("part/view", [](benchmark::State& state) {
        for (auto _ : state) {
            char view[128];
            memset_s(view, sizeof view, 0, sizeof view);
            snprintf_s(view, sizeof view, sizeof view - 1, "profile-av-%s", "p1");
            benchmark::DoNotOptimize(view);
        }
    });
    for (Bookkeeping b : {Bookkeeping::AsIs, Bookkeeping::Off}) {
        add(std::string("part/channel/") + mode(b), [b](benchmark::State& state) {
            msg_dp_qmx_head_t header{};
            header.msg_type = API_DP2QMX_CMD_CONFIG;
            header.model_type = API_MODULE_TK_AV;
            loop(state, b, [&] {
                msg_to_dp_t* reply = nullptr;
                api_script_cache_lines("vs1", "profile-av-p1", "profile-av", "description office traffic");
                return transapi_comm_with_qmx(header, CMD_ADD, &reply, nullptr, nullptr);
            });
        });
    }
}

void summary(const tkbench::Results& r) {
    std::printf("Per-handler cost of one change: CPU time per call, handler / floor (target <= 1.50x)\n");
    std::printf("  runtime: journal and recording platform as they are; quiet: that bookkeeping off\n\n");
    std::printf("%-40s %10s %10s %8s %10s %8s  %s\n", "handler", "floor", "runtime", "ratio", "quiet", "ratio",
                "quiet <= 1.5x");
    int met = 0, measured = 0;
    for (const Case& c : cases()) {
        const std::string n = c.name();
        const auto floor = r.ns("floor/" + n), asIs = r.ns("handler/" + n + "/runtime"),
                   quiet = r.ns("handler/" + n + "/quiet");
        const char* verdict = "-";
        if (floor && quiet) {
            ++measured;
            const bool ok = *quiet <= 1.5 * *floor;
            met += ok;
            verdict = ok ? "yes" : "no";
        }
        std::printf("%-40s %10s %10s %8s %10s %8s  %s%s\n", n.c_str(), tkbench::duration(floor).c_str(),
                    tkbench::duration(asIs).c_str(), tkbench::ratio(asIs, floor).c_str(),
                    tkbench::duration(quiet).c_str(), tkbench::ratio(quiet, floor).c_str(), verdict,
                    c.line ? "" : " (drops the change: no line)");
    }
    std::printf("\ntarget met by %d of %d handlers (quiet)\n", met, measured);
    std::printf("\nParts of a profile-view handler beyond its floor (description):\n");
    std::printf("  path string (asprintf + free)      %s\n", tkbench::duration(r.ns("part/path")).c_str());
    std::printf("  view instance (clear + format)     %s\n", tkbench::duration(r.ns("part/view")).c_str());
    std::printf("  channel: cache + send, runtime     %s\n", tkbench::duration(r.ns("part/channel/runtime")).c_str());
    std::printf("  channel: cache + send, quiet       %s\n", tkbench::duration(r.ns("part/channel/quiet")).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    for (const Case& c : cases()) registerHandler(c);
    registerParts();
    return tkbench::run(argc, argv, summary);
}
