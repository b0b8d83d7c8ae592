// The appliance as the engine's platform, with the real module: generated
// edits, some of them refused by an injected fault, read back through the
// module as the engine's running configuration; a refused edit leaves the
// running configuration and the appliance exactly as they were.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <cstdlib>
#include <memory>

#include "edit_text.hpp"
#include "generator.hpp"
#include "support.hpp"
#include "tavrik/engine.hpp"

namespace appliance_test {
namespace {

namespace rt = tavrik::runtime;
using tavrik::engine::DefaultOperation;
using tavrik::engine::EditResult;
constexpr int kInjected = 799;

// Seeds times steps edits; a long sweep by hand: ROUNDTRIP_SEEDS=500
// ROUNDTRIP_STEPS=60 in the environment.
int from_environment(const char* name, int fallback) {
    const char* text = std::getenv(name);
    return text && std::atoi(text) > 0 ? std::atoi(text) : fallback;
}
const int kSeeds = from_environment("ROUNDTRIP_SEEDS", 16);
const int kSteps = from_environment("ROUNDTRIP_STEPS", 40);

// Each generated configuration replaces the running one whole, or is reached
// by an edit of what differs (applied in place).
class Generated : public testing::TestWithParam<bool> {
protected:
    void TearDown() override {
        engine.reset();
        rt::reset();
    }
    void start() {
        engine.reset();
        rt::reset();
        appliance = std::make_unique<av::Appliance>();
        rt::set_platform(appliance.get());
        engine = std::make_unique<tavrik::engine::Engine>(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, "");
        engine->set_vsys_feature(appliance.get());
    }
    // `config` replaces the running configuration whole, or is reached node
    // by node (in place): libyang's diff of the running configuration and
    // `config`, its operations made NETCONF operations (create, delete, merge
    // for a changed value), with the default operation none.
    EditResult apply(const std::string& config, bool dry_run = false) {
        if (!GetParam()) return tktest::edit_text(*engine, config, {DefaultOperation::Replace, false, dry_run});
        tavrik::engine::ParsedXml target = engine->parse(config);
        lyd_node* diff = nullptr;
        if (target.error || lyd_diff_siblings(engine->running_tree(), target.tree.get(), 0, &diff) != LY_SUCCESS)
            return {false, {}, target.error, {}, {}};
        tavrik::engine::DataTree edit(diff);
        const lys_module* netconf = ly_ctx_get_module_implemented(engine->context(), "ietf-netconf");
        for (lyd_node* top = diff; top; top = top->next) {
            lyd_node* node = nullptr;
            LYD_TREE_DFS_BEGIN(top, node) {
                const lyd_meta* meta = lyd_find_meta(node->meta, nullptr, "yang:operation");
                const std::string operation = meta ? lyd_get_meta_value(meta) : "";
                while (node->meta) lyd_free_meta_single(node->meta);
                if (operation == "create" || operation == "delete" || operation == "replace")
                    lyd_new_meta(nullptr, node, netconf, "operation", operation == "replace" ? "merge" : operation.c_str(),
                                 0, nullptr);
                LYD_TREE_DFS_END(top, node);
            }
        }
        return engine->edit(edit.get(), {DefaultOperation::None, false, dry_run});
    }
    // Arms a failed send or the refusal of the nth line, for an edit whose
    // lines the appliance would all accept (so that the fault never meets the
    // lines that restore the appliance after a refusal of its own).
    bool inject(const std::string& config, unsigned nth) {
        const EditResult dry = apply(config, true);
        av::Appliance copy = *appliance;
        for (const auto& l : dry.lines)
            if (copy.deliver({{l.vsys, l.view, l.view_template, l.line}}, l.cmd_op) != av::kAccepted) return false;
        if (!dry.ok || dry.lines.empty() || nth > dry.lines.size()) return false;
        if (nth == 0) appliance->fail_send(kInjected);
        else appliance->refuse_line(nth, kInjected);
        return true;
    }
    // What the module reads back from the appliance against the engine's
    // running configuration: the differences, empty when they agree.
    std::vector<std::string> read_back_differences() {
        auto text = engine->module_config();
        if (!text) return {"the module read no configuration"};
        return av::differences(av::parse_configuration(engine->running_xml()), av::parse_configuration(*text));
    }

    // What the model finds wrong with the documents of the appliance, ""
    // when both are valid data of the model.
    std::string documents_error() const {
        if (auto error = engine->validate(appliance->running_config_xml())) return error->message;
        uint32_t quiet = LY_LOSTORE_LAST;  // kept, not printed
        ly_temp_log_options(&quiet);
        lyd_node* tree = nullptr;
        const LY_ERR err = lyd_parse_data_mem(engine->context(), appliance->state_xml().c_str(), LYD_XML,
                                              LYD_PARSE_STRICT, LYD_VALIDATE_PRESENT, &tree);
        lyd_free_all(tree);
        const std::string error = err == LY_SUCCESS ? "" : ly_errmsg(engine->context());
        ly_temp_log_options(nullptr);
        return error;
    }

    std::unique_ptr<av::Appliance> appliance;
    std::unique_ptr<tavrik::engine::Engine> engine;
};

TEST_P(Generated, EditsReadBackAsTheRunningConfiguration) {
    int accepted = 0, refused = 0, by_appliance = 0, injected = 0;
    std::set<std::string> covered;
    for (int seed = 1; seed <= kSeeds; ++seed) {
        start();
        Generator generator(engine->context(), static_cast<std::uint64_t>(seed));
        std::mt19937 faults(static_cast<std::uint32_t>(seed));
        for (int step = 1; step <= kSteps; ++step) {
            const std::string before = engine->running_xml(), target = generator.next();
            const av::Configuration appliance_before = appliance->configuration();
            // One edit in five meets a failed send or a refusal of its first to fourth line.
            const unsigned fault = faults() % 25;
            const bool armed = fault < 5 && inject(target, fault);
            const EditResult result = apply(target);
            std::string sent = result.ok ? "" : result.error->message;
            for (const auto& l : result.lines) sent += "\n  " + std::to_string(l.cmd_op) + " " + l.view + ": " + l.line;
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) + "\nrunning before: " +
                         before + "\nedit: " + target + "\nlines: " + sent);
            ASSERT_EQ(!result.ok && result.error->app_code == kInjected, armed);
            injected += armed;
            if (result.ok) {
                generator.accept();
                ++accepted;
                const auto running = av::parse_configuration(engine->running_xml());
                ASSERT_EQ(av::differences(av::parse_configuration(target), running), std::vector<std::string>{});
                ASSERT_EQ(documents_error(), "");
            } else {
                generator.reject();
                ++refused;
                by_appliance += result.error->app_code >= av::kSyntax && result.error->app_code <= av::kStorage;
                ASSERT_EQ(engine->running_xml(), before);
                ASSERT_EQ(appliance->configuration(), appliance_before);
            }
            ASSERT_EQ(read_back_differences(), std::vector<std::string>{});
        }
        covered.insert(generator.coverage().begin(), generator.coverage().end());
    }
    // Every configuration leaf of the model; both outcomes, refusals by the
    // appliance and by injected faults included.
    const auto leaves = Generator::model_leaves(engine->context());
    EXPECT_GT(leaves.size(), 20u);
    for (const auto& leaf : leaves) EXPECT_TRUE(covered.contains(leaf)) << leaf;
    EXPECT_GT(accepted, kSeeds * kSteps / 2);
    EXPECT_GT(refused - injected, kSeeds);
    EXPECT_GT(by_appliance, 5);
    EXPECT_GT(injected, kSeeds * kSteps / 20);
    RecordProperty("accepted, refused, refused by injected faults",
                   std::to_string(accepted) + ", " + std::to_string(refused) + ", " + std::to_string(injected));
    // The comparison sees a change made behind the engine's back.
    run(*appliance, at("system", "profile type av name divergent"));
    EXPECT_NE(read_back_differences(), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Appliance, Generated, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "InPlace" : "Replaced"; });

}  // namespace
}  // namespace appliance_test
