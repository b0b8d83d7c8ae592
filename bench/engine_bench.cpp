// The engine's diff-and-dispatch of a 10,000-profile edit next to libyang's
// own diff (lyd_diff_siblings) of the same two trees, in the same run.
//
// Two edits of one vsys: "modify" changes the description of every profile;
// "create" adds every profile (each with a description, a switch and a
// scanned protocol with its direction and action). The engine takes the new
// configuration through its public API (replace_running, as copy-config
// does). Beside libyang's diff, libyang's validation of the new tree is
// measured as well: the engine validates every edit. The engine's edit is
// split by a platform that notes when the first and the last line of the
// second pass arrive; it keeps no line.
//
// --profiles=N changes the size (for profiling at a smaller one).
#include <libyang/libyang.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
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
using tavrik::engine::EditOptions;
using tavrik::engine::EditResult;
using tavrik::engine::Engine;

int profiles = 10000;

std::string configuration(int count, const char* description) {
    std::string xml = "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"><vsys><name>vs1</name>";
    if (count > 0) xml += "<profiles>";
    for (int i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        xml += "<profile><name>p" + n + "</name><description>" + description + n +
               "</description><heuristic-detect-enable>true</heuristic-detect-enable><detect>"
               "<protocol-type>http</protocol-type><detect-configuration><direction>both</direction>"
               "<action>alert</action></detect-configuration></detect></profile>";
    }
    if (count > 0) xml += "</profiles>";
    return xml + "</vsys></antivirus>";
}

DataTree copy(const lyd_node* tree) {
    lyd_node* duplicate = nullptr;
    if (lyd_dup_siblings(tree, nullptr, LYD_DUP_RECURSIVE, &duplicate) != LY_SUCCESS)
        throw std::runtime_error("cannot copy a configuration");
    return DataTree(duplicate);
}

double cpuNow() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// Accepts every line and keeps nothing. When armed with the number of lines
// an edit sends, it notes the CPU time of the first and of the last
// delivery: the beginning and the end of the edit's second pass.
class TimingPlatform final : public rt::Platform {
public:
    int deliver(const std::vector<rt::CachedLine>&, unsigned) override {
        if (++delivered_ == 1) first = cpuNow();
        if (delivered_ == expected_) last = cpuNow();
        return 0;
    }
    rt::DocumentReply document(unsigned) override { return {}; }

    void arm(size_t lines) {
        expected_ = lines;
        delivered_ = 0;
        first = last = 0;
    }
    void disarm() { expected_ = 0; }

    double first = 0, last = 0;

private:
    size_t expected_ = 0, delivered_ = 0;
};
TimingPlatform platform;

enum class Kind { Modify, Create };

// An engine whose running configuration is `from`, and the configuration
// `to` that the edit makes, both as trees of the engine's context.
struct Scenario {
    explicit Scenario(Kind kind)
        : engine(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR,
                 configuration(kind == Kind::Modify ? profiles : 0, "profile ")),
          from(engine.copy_running()) {
        if (kind == Kind::Modify) {
            // As edit-config's merge does it: the running configuration with
            // every description changed in place.
            to = engine.copy_running();
            lyd_node* node = nullptr;
            LYD_TREE_DFS_BEGIN(to.get(), node) {
                if (std::strcmp(node->schema->name, "description") == 0)
                    lyd_change_term(node, ("changed " + std::string(lyd_get_value(node))).c_str());
                LYD_TREE_DFS_END(to.get(), node);
            }
        } else {
            const std::string xml = configuration(profiles, "profile ");
            lyd_node* tree = nullptr;
            if (lyd_parse_data_mem(engine.context(), xml.c_str(), LYD_XML, LYD_PARSE_ONLY, 0, &tree) != LY_SUCCESS)
                throw std::runtime_error("cannot parse the new configuration");
            to.reset(tree);
        }
        EditOptions dryRun;
        dryRun.dry_run = true;
        const EditResult result = engine.replace_running(copy(to.get()), dryRun);
        if (!result.ok) throw std::runtime_error("the edit is refused: " + result.error->message);
        lines = result.lines.size();
    }

    // Makes `from` the running configuration again, after a whole edit.
    void restore() {
        if (!changed) return;
        if (!engine.replace_running(copy(from.get())).ok)
            throw std::runtime_error("cannot restore the running configuration");
        changed = false;
    }

    Engine engine;
    DataTree from, to;
    size_t lines = 0;      // lines the edit sends
    bool changed = false;  // the running configuration is `to`
};

Scenario& scenario(Kind kind) {
    static std::unique_ptr<Scenario> made[2];
    auto& s = made[static_cast<int>(kind)];
    if (!s) s = std::make_unique<Scenario>(kind);
    return *s;
}

const char* nameOf(Kind kind) { return kind == Kind::Modify ? "modify" : "create"; }

void libyangDiff(benchmark::State& state, Kind kind) {
    Scenario& s = scenario(kind);
    for (auto _ : state) {
        lyd_node* diff = nullptr;
        if (lyd_diff_siblings(s.from.get(), s.to.get(), 0, &diff) != LY_SUCCESS || !diff) {
            state.SkipWithError("lyd_diff_siblings failed");
            break;
        }
        state.PauseTiming();
        lyd_free_all(diff);
        state.ResumeTiming();
    }
}

// libyang's validation of the new configuration, as an edit validates it.
void libyangValidate(benchmark::State& state, Kind kind) {
    Scenario& s = scenario(kind);
    for (auto _ : state) {
        state.PauseTiming();
        lyd_node* tree = copy(s.to.get()).release();
        state.ResumeTiming();
        const LY_ERR err = lyd_validate_all(&tree, s.engine.context(), LYD_VALIDATE_NO_STATE, nullptr);
        state.PauseTiming();
        lyd_free_all(tree);
        if (err != LY_SUCCESS) {
            state.SkipWithError("the new configuration is not valid");
            break;
        }
        state.ResumeTiming();
    }
}

// The whole edit, with the CPU time until the second pass begins, of the
// second pass and after it as counters (ms per edit).
void engineEdit(benchmark::State& state, Kind kind) {
    Scenario& s = scenario(kind);
    s.restore();
    double untilPass2 = 0, pass2 = 0, after = 0;
    for (auto _ : state) {
        state.PauseTiming();
        DataTree next = copy(s.to.get());
        platform.arm(s.lines);
        state.ResumeTiming();
        {
            const double start = cpuNow();
            EditResult result = s.engine.replace_running(std::move(next));
            const double end = cpuNow();
            state.PauseTiming();
            platform.disarm();
            if (!result.ok || result.lines.size() != s.lines) {
                state.SkipWithError(result.ok ? "the edit sent another number of lines" : result.error->message.c_str());
                break;
            }
            untilPass2 += platform.first - start;
            pass2 += platform.last - platform.first;
            after += end - platform.last;
            s.changed = true;
            s.restore();
        }  // the result, 10,000s of lines, is freed outside the measurement
        state.ResumeTiming();
    }
    using benchmark::Counter;
    state.counters["until_pass2_ms"] = Counter(untilPass2 / 1e6, Counter::kAvgIterations);
    state.counters["pass2_ms"] = Counter(pass2 / 1e6, Counter::kAvgIterations);
    state.counters["after_ms"] = Counter(after / 1e6, Counter::kAvgIterations);
    state.counters["lines"] = static_cast<double>(s.lines);
}

void summary(const tkbench::Results& r) {
    std::printf("Engine diff-and-dispatch of a %d-profile edit next to libyang's diff of the same trees\n"
                "(CPU time per edit; target: engine faster than libyang's diff)\n\n", profiles);
    std::printf("%-7s %12s %12s %8s | %12s %12s %12s %12s %12s\n", "edit", "libyang diff", "engine edit", "ratio",
                "validate", "set+pass 1", "~change set", "pass 2", "after");
    auto minus = [](std::optional<double> a, std::optional<double> b) -> std::optional<double> {
        if (!a || !b) return std::nullopt;
        return *a - *b;
    };
    auto ms = [](std::optional<double> value) -> std::optional<double> {
        if (!value) return std::nullopt;
        return *value * 1e6;
    };
    for (Kind kind : {Kind::Modify, Kind::Create}) {
        const std::string k = nameOf(kind);
        const auto diff = r.ns(k + "/libyang-diff"), validate = r.ns(k + "/libyang-validate"),
                   edit = r.ns(k + "/engine-edit"), untilPass2 = ms(r.counter(k + "/engine-edit", "until_pass2_ms")),
                   pass2 = ms(r.counter(k + "/engine-edit", "pass2_ms")),
                   after = ms(r.counter(k + "/engine-edit", "after_ms"));
        const auto setAndPass1 = minus(untilPass2, validate);
        std::printf("%-7s %12s %12s %8s | %12s %12s %12s %12s %12s\n", k.c_str(), tkbench::duration(diff).c_str(),
                    tkbench::duration(edit).c_str(), tkbench::ratio(edit, diff).c_str(),
                    tkbench::duration(validate).c_str(), tkbench::duration(setAndPass1).c_str(),
                    tkbench::duration(minus(setAndPass1, pass2)).c_str(), tkbench::duration(pass2).c_str(),
                    tkbench::duration(after).c_str());
    }
    std::printf("\nratio: engine / libyang diff (< 1.00x: the engine is faster). The edit's parts: validate is\n"
                "libyang's validation of the new tree; set+pass 1 the rest until the first line reaches the\n"
                "platform (change set and the recording pass); ~change set that less one pass; pass 2 the\n"
                "first to the last line delivered; after: the result and the swap of the configurations.\n");
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
    for (Kind kind : {Kind::Modify, Kind::Create}) {
        const std::string k = nameOf(kind);
        using Run = void (*)(benchmark::State&, Kind);
        const std::pair<const char*, Run> runs[] = {
            {"/libyang-diff", libyangDiff}, {"/libyang-validate", libyangValidate}, {"/engine-edit", engineEdit}};
        for (const auto& [what, run] : runs)
            benchmark::RegisterBenchmark((k + what).c_str(), run, kind)->Unit(benchmark::kMillisecond)->Iterations(5);
    }
    int count = static_cast<int>(args.size());
    return tkbench::run(count, args.data(), summary);
}
