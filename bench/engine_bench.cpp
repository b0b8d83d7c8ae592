// The engine's cost per edit against the size of the configuration, and its
// large edits next to libyang's diff of the same trees, in one run.
//
//   leaf/N     one leaf (a profile's description) changed, on configurations
//              of N other profiles (0, 1,000 and 10,000 by default; each
//              profile: name, description, heuristic-detect-enable, a detect
//              entry for http with direction and action). One line.
//   create     10,000 such profiles created by one edit (60,000 lines).
//   modify     the descriptions of 10,000 profiles changed by one edit
//              (10,000 lines), in place; and the same new configuration
//              made the running one whole (replace_running, as a commit of
//              a whole configuration: validated and compared whole).
//   libyang-diff/create, /modify  lyd_diff_siblings of the same two trees.
//
// Edits are libyang trees parsed before the measurement, as the daemon
// receives them. Lines go to a platform that keeps none.
//
// --profiles=N  the size of the large edits and the largest configuration.
#include <libyang/libyang.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_main.hpp"
#include "tavrik/engine.hpp"
#include "tavrik/runtime.hpp"

namespace {

namespace rt = tavrik::runtime;
using tavrik::engine::DataTree;
using tavrik::engine::EditResult;
using tavrik::engine::Engine;

int profiles = 10000;

constexpr char kAntivirus[] =
    "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\" "
    "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><vsys><name>vs1</name>";

std::string profile(const std::string& name, const std::string& description) {
    return "<profile><name>" + name + "</name><description>" + description +
           "</description><heuristic-detect-enable>true</heuristic-detect-enable><detect>"
           "<protocol-type>http</protocol-type><detect-configuration><direction>both</direction>"
           "<action>alert</action></detect-configuration></detect></profile>";
}

// vsys vs1 with profiles p0..p<count-1> (descriptions "<prefix><i>") and
// `more` inside <profiles>.
std::string configuration(int count, const std::string& prefix, const std::string& more = "") {
    std::string xml = std::string(kAntivirus) + "<profiles>";
    for (int i = 0; i < count; ++i) xml += profile("p" + std::to_string(i), prefix + std::to_string(i));
    return xml + more + "</profiles></vsys></antivirus>";
}

DataTree parse(const Engine& engine, const std::string& xml) {
    tavrik::engine::ParsedXml parsed = engine.parse(xml);
    if (parsed.error) throw std::runtime_error("cannot parse: " + parsed.error->message);
    return std::move(parsed.tree);
}

DataTree copy(const lyd_node* tree) {
    lyd_node* duplicate = nullptr;
    if (lyd_dup_siblings(tree, nullptr, LYD_DUP_RECURSIVE, &duplicate) != LY_SUCCESS)
        throw std::runtime_error("cannot copy a configuration");
    return DataTree(duplicate);
}

// Accepts every line and keeps nothing.
class DiscardingPlatform final : public rt::Platform {
public:
    int deliver(const std::vector<rt::CachedLine>&, unsigned) override { return 0; }
    rt::DocumentReply document(unsigned) override { return {}; }
};
DiscardingPlatform platform;

constexpr size_t kAnyCount = SIZE_MAX;

void apply(benchmark::State& state, Engine& engine, const lyd_node* edit, size_t lines) {
    const EditResult result = engine.edit(edit);
    if (!result.ok || (lines != kAnyCount && result.lines.size() != lines))
        state.SkipWithError(result.ok ? "the edit sent another number of lines" : result.error->message.c_str());
}

// One description, alternately "a" and "b", on N other profiles.
void leafEdit(benchmark::State& state, int others) {
    Engine engine(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, configuration(others, "profile ", profile("edited", "b")));
    const DataTree edits[2] = {parse(engine, configuration(0, "", profile("edited", "a"))),
                               parse(engine, configuration(0, "", profile("edited", "b")))};
    int i = 1;  // the running description is "b": first "a"
    for (auto _ : state) apply(state, engine, edits[i ^= 1].get(), 1);
}

struct Large {
    Large()
        : engine(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, configuration(0, "")),
          empty(engine.copy_running()),
          create(parse(engine, configuration(profiles, "profile "))),
          remove(parse(engine, std::string(kAntivirus) + "<profiles nc:operation=\"remove\"/></vsys></antivirus>")),
          modify{parse(engine, configuration(profiles, "changed ")), parse(engine, configuration(profiles, "profile "))} {
        tavrik::engine::EditOptions dry_run;
        dry_run.dry_run = true;
        const EditResult created = engine.edit(create.get(), dry_run);
        if (!created.ok) throw std::runtime_error(created.error->message);
        created_lines = created.lines.size();
        full = parse(engine, configuration(profiles, "profile "));
        changed = parse(engine, configuration(profiles, "changed "));
    }
    Engine engine;
    DataTree empty, create, remove, modify[2], full, changed;
    size_t created_lines = 0;
};

Large& large() {
    static Large made;
    return made;
}

void createEdit(benchmark::State& state) {
    Large& l = large();
    for (auto _ : state) {
        apply(state, l.engine, l.create.get(), l.created_lines);
        state.PauseTiming();
        apply(state, l.engine, l.remove.get(), kAnyCount);
        state.ResumeTiming();
    }
}

void modifyEdit(benchmark::State& state) {
    Large& l = large();
    apply(state, l.engine, l.create.get(), l.created_lines);
    int i = 1;
    for (auto _ : state) apply(state, l.engine, l.modify[i ^= 1].get(), static_cast<size_t>(profiles));
    apply(state, l.engine, l.remove.get(), kAnyCount);
}

// The changed configuration made the running one whole, compared whole.
void modifyReplace(benchmark::State& state) {
    Large& l = large();
    apply(state, l.engine, l.create.get(), l.created_lines);
    for (auto _ : state) {
        state.PauseTiming();
        DataTree next = copy(l.changed.get());
        state.ResumeTiming();
        const EditResult result = l.engine.replace_running(std::move(next));
        state.PauseTiming();
        if (!result.ok) state.SkipWithError(result.error->message.c_str());
        if (!l.engine.replace_running(copy(l.full.get())).ok) state.SkipWithError("cannot restore");
        state.ResumeTiming();
    }
    apply(state, l.engine, l.remove.get(), kAnyCount);
}

void libyangDiff(benchmark::State& state, bool create) {
    Large& l = large();
    const lyd_node* from = create ? l.empty.get() : l.full.get();
    const lyd_node* to = create ? l.full.get() : l.changed.get();
    for (auto _ : state) {
        lyd_node* diff = nullptr;
        if (lyd_diff_siblings(from, to, 0, &diff) != LY_SUCCESS || !diff) {
            state.SkipWithError("lyd_diff_siblings failed");
            break;
        }
        state.PauseTiming();
        lyd_free_all(diff);
        state.ResumeTiming();
    }
}

std::vector<int> sizes() {
    std::vector<int> out{0};
    if (profiles > 1000) out.push_back(1000);
    out.push_back(profiles);
    return out;
}

std::string count(int n) {
    const std::string digits = std::to_string(n);
    std::string out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

void summary(const tkbench::Results& r) {
    std::printf("One-leaf edit by the size of the configuration (CPU time per edit; target: <= 1.50x of 0)\n\n");
    std::printf("%-10s %12s %10s\n", "profiles", "engine edit", "against 0");
    const auto base = r.ns("leaf/0");
    for (int n : sizes()) {
        const auto edit = r.ns("leaf/" + std::to_string(n));
        std::printf("%-10s %12s %10s\n", count(n).c_str(), tkbench::duration(edit).c_str(),
                    tkbench::ratio(edit, base).c_str());
    }
    std::printf("\nEdits of %s profiles next to libyang's diff of the same trees (target: engine faster)\n\n",
                count(profiles).c_str());
    std::printf("%-28s %12s %12s %8s\n", "edit", "engine", "libyang diff", "ratio");
    const std::pair<const char*, const char*> rows[][2] = {
        {{"create, one edit", "create/engine-edit"}, {"", "create/libyang-diff"}},
        {{"modify, one edit (in place)", "modify/engine-edit"}, {"", "modify/libyang-diff"}},
        {{"modify, replace_running", "modify/engine-replace"}, {"", "modify/libyang-diff"}},
    };
    for (const auto& row : rows) {
        const auto edit = r.ns(row[0].second), diff = r.ns(row[1].second);
        std::printf("%-28s %12s %12s %8s\n", row[0].first, tkbench::duration(edit).c_str(),
                    tkbench::duration(diff).c_str(), tkbench::ratio(edit, diff).c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--profiles=", 11) == 0)
            profiles = std::atoi(argv[i] + 11);
        else
            args.push_back(argv[i]);
    }
    if (profiles <= 0) {
        std::fprintf(stderr, "--profiles needs a positive count\n");
        return 2;
    }
    rt::set_platform(&platform);
    for (int n : sizes())
        benchmark::RegisterBenchmark(("leaf/" + std::to_string(n)).c_str(), leafEdit, n)
            ->Unit(benchmark::kMicrosecond)
            ->MinTime(0.2)
            ->Repetitions(3)
            ->ReportAggregatesOnly(true);
    const auto large_edit = [](const char* name, auto run) {
        benchmark::RegisterBenchmark(name, run)->Unit(benchmark::kMillisecond)->Iterations(5);
    };
    large_edit("create/engine-edit", createEdit);
    large_edit("create/libyang-diff", [](benchmark::State& s) { libyangDiff(s, true); });
    large_edit("modify/engine-edit", modifyEdit);
    large_edit("modify/engine-replace", modifyReplace);
    large_edit("modify/libyang-diff", [](benchmark::State& s) { libyangDiff(s, false); });
    int count = static_cast<int>(args.size());
    return tkbench::run(count, args.data(), summary);
}
