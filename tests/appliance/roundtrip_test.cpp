// The appliance as the engine's platform: generated edits read back through
// the module as the engine's running configuration, and every fault of the
// appliance ends as the module defines with nothing lost.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <cstdlib>
#include <memory>

#include "edit_text.hpp"
#include "generator.hpp"
#include "support.hpp"
#include "tavrik/engine.hpp"

namespace {

using namespace appliance_test;
namespace av = tavrik::appliance;
namespace rt = tavrik::runtime;
using tavrik::engine::DefaultOperation;
using tavrik::engine::Engine;

class WithEngine : public testing::Test {
protected:
    void SetUp() override { start(); }
    void TearDown() override {
        engine.reset();
        rt::reset();
    }
    void start() {
        engine.reset();
        rt::reset();
        appliance = std::make_unique<av::Appliance>();
        rt::set_platform(appliance.get());
        engine = std::make_unique<Engine>(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, "");
        engine->set_vsys_feature(appliance.get());
    }
    tavrik::engine::EditResult replace(const std::string& config) {
        return tktest::edit_text(*engine, config, {DefaultOperation::Replace});
    }
    // The same configuration reached node by node: libyang's diff of the
    // running configuration and `config`, its operations made NETCONF
    // operations (create, delete, merge for a changed value), applied with
    // the default operation none.
    tavrik::engine::EditResult edit_towards(const std::string& config) {
        tavrik::engine::ParsedXml target = engine->parse(config);
        if (target.error) return {false, {}, target.error, {}, {}};
        lyd_node* diff = nullptr;
        if (lyd_diff_siblings(engine->running_tree(), target.tree.get(), 0, &diff) != LY_SUCCESS) return {};
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
        return engine->edit(edit.get(), {DefaultOperation::None});
    }
    // What the module reads back from the appliance, against the engine's
    // running configuration; the differences, empty when they agree.
    std::vector<std::string> read_back_differences() {
        auto text = engine->module_config();
        if (!text) return {"the module read no configuration"};
        return av::differences(av::parse_configuration(engine->running_xml()), av::parse_configuration(*text));
    }

    std::unique_ptr<av::Appliance> appliance;
    std::unique_ptr<Engine> engine;
};

std::string joined(const std::vector<std::string>& lines) {
    std::string out;
    for (const auto& l : lines) out += "\n  " + l;
    return out;
}

// Seeds times steps edits, each checked; a few seconds at most in all. A
// long sweep by hand: ROUNDTRIP_SEEDS=500 ROUNDTRIP_STEPS=60 in the
// environment.
int from_environment(const char* name, int fallback) {
    const char* text = std::getenv(name);
    const int value = text ? std::atoi(text) : 0;
    return value > 0 ? value : fallback;
}
const int kSeeds = from_environment("ROUNDTRIP_SEEDS", 16);
const int kSteps = from_environment("ROUNDTRIP_STEPS", 40);

// Each generated configuration replaces the running one whole, or is
// reached by an edit of what differs (applied in place).
class Generated : public WithEngine, public testing::WithParamInterface<bool> {};

TEST_P(Generated, EditsReadBackAsTheRunningConfiguration) {
    int accepted = 0, refused = 0, by_appliance = 0;
    for (int seed = 1; seed <= kSeeds; ++seed) {
        start();
        Generator generator(engine->context(), static_cast<std::uint64_t>(seed));
        for (int step = 1; step <= kSteps; ++step) {
            const std::string before = engine->running_xml();
            const std::string target = generator.next();
            const auto result = GetParam() ? edit_towards(target) : replace(target);
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) + "\nedit: " + target);
            if (result.ok) {
                generator.accept();
                ++accepted;
                ASSERT_TRUE(av::differences(av::parse_configuration(target),
                                            av::parse_configuration(engine->running_xml()))
                                .empty());
            } else {
                generator.reject();
                ++refused;
                by_appliance += result.error->app_code >= av::kSyntax && result.error->app_code <= av::kStorage;
                ASSERT_EQ(engine->running_xml(), before) << result.error->message;
            }
            std::vector<std::string> sent;
            for (const auto& l : result.lines) sent.push_back(std::to_string(l.cmd_op) + " " + l.view + ": " + l.line);
            auto diff = read_back_differences();
            ASSERT_TRUE(diff.empty()) << (result.ok ? "accepted" : "refused: " + result.error->message)
                                      << "\nlines:" << joined(sent) << "\ndifferences:" << joined(diff);
        }
    }
    // The generator reaches both outcomes, refusals by the appliance included.
    EXPECT_GT(accepted, kSeeds * kSteps / 2);
    EXPECT_GT(refused, kSeeds);
    EXPECT_GT(by_appliance, 5);
    RecordProperty("accepted", accepted);
    RecordProperty("refused", refused);
}

INSTANTIATE_TEST_SUITE_P(Appliance, Generated, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "InPlace" : "Replaced"; });

TEST_F(WithEngine, GeneratorCoversEveryConfigurationLeaf) {
    std::set<std::string> covered;
    for (int seed = 1; seed <= kSeeds; ++seed) {
        Generator generator(engine->context(), static_cast<std::uint64_t>(seed));
        for (int step = 0; step < kSteps; ++step) generator.next();
        covered.insert(generator.coverage().begin(), generator.coverage().end());
    }
    const auto leaves = Generator::model_leaves(engine->context());
    EXPECT_GT(leaves.size(), 20u);
    for (const auto& leaf : leaves) EXPECT_TRUE(covered.contains(leaf)) << leaf;
}

const std::string kBase =
    "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"><vsys><name>vs1</name>"
    "<antivirus-enable>true</antivirus-enable><profiles><profile><name>p1</name><description>base</description>"
    "<detect><protocol-type>http</protocol-type><detect-configuration><direction>both</direction>"
    "<action>block</action></detect-configuration></detect></profile></profiles></vsys></antivirus>";
// Changes p1 and adds p2: four lines or more, in priority order.
const std::string kEdit =
    "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"><vsys><name>vs1</name>"
    "<antivirus-enable>false</antivirus-enable><profiles><profile><name>p1</name><description>changed</description>"
    "<heuristic-detect-enable>true</heuristic-detect-enable></profile><profile><name>p2</name>"
    "<description>new</description></profile></profiles></vsys></antivirus>";

struct SendFault {
    std::string name;
    int nth;  // 0: the send fails; else the nth line is refused
};

void PrintTo(const SendFault& f, std::ostream* out) { *out << f.name; }

class SendFaults : public WithEngine, public testing::WithParamInterface<SendFault> {};

TEST_P(SendFaults, RefusedEditLosesNothing) {
    ASSERT_TRUE(replace(kBase).ok);
    const std::string running = engine->running_xml();
    const av::Configuration before = appliance->configuration();
    const auto dry = tktest::edit_text(*engine, kEdit, {DefaultOperation::Replace, false, true});
    ASSERT_TRUE(dry.ok);
    ASSERT_GE(dry.lines.size(), 4u);

    const int code = 600 + GetParam().nth;
    if (GetParam().nth == 0) appliance->fail_send(code);
    else appliance->refuse_line(static_cast<unsigned>(GetParam().nth), code);
    const auto result = replace(kEdit);
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->app_code, code);
    EXPECT_EQ(result.error->tag, tavrik::engine::ErrorTag::OperationFailed);
    const std::size_t refused_line = GetParam().nth == 0 ? 0 : static_cast<std::size_t>(GetParam().nth) - 1;
    EXPECT_NE(result.error->message.find("\"" + dry.lines[refused_line].line + "\""), std::string::npos)
        << result.error->message;
    EXPECT_NE(result.error->message.find(std::to_string(code)), std::string::npos);
    EXPECT_EQ(result.error->message.find("Restoring the platform failed"), std::string::npos);
    // Nothing lost: the running configuration, the appliance, the read-back.
    EXPECT_EQ(engine->running_xml(), running);
    EXPECT_EQ(appliance->configuration(), before);
    EXPECT_TRUE(read_back_differences().empty());
    // And the same edit goes through once the fault is gone.
    EXPECT_TRUE(replace(kEdit).ok);
    EXPECT_TRUE(read_back_differences().empty());
}

INSTANTIATE_TEST_SUITE_P(Appliance, SendFaults,
                         testing::Values(SendFault{"SendFails", 0}, SendFault{"FirstLineRefused", 1},
                                         SendFault{"SecondLineRefused", 2}, SendFault{"LastLineRefused", 4}),
                         [](const auto& info) { return info.param.name; });

struct ReadFault {
    std::string name;
    av::DocumentFault fault;
    bool config;  // type 7, else type 2
};

void PrintTo(const ReadFault& f, std::ostream* out) { *out << f.name; }

class ReadFaults : public WithEngine, public testing::WithParamInterface<ReadFault> {};

TEST_P(ReadFaults, OutcomeAsTheModuleDefines) {
    ASSERT_TRUE(replace(kBase).ok);
    const auto [name, fault, config] = GetParam();
    const av::Configuration before = appliance->configuration();
    const auto normal_state = engine->module_state();
    ASSERT_TRUE(normal_state && !normal_state->empty());
    appliance->fault_document(config ? API_DP2QMX_GET_CONFIG : API_DP2QMX_NC_STATE, fault, 55);
    rt::reset_journal();
    if (config) {
        const auto text = engine->module_config();
        switch (fault) {
            case av::DocumentFault::Malformed:  // the text as it came: the reader must refuse it
                ASSERT_TRUE(text);
                EXPECT_FALSE(text->empty());
                EXPECT_THROW(av::parse_configuration(*text), av::ConfigurationError);
                break;
            case av::DocumentFault::Empty: EXPECT_EQ(text, std::optional<std::string>("")); break;
            default: EXPECT_EQ(text, std::nullopt);
        }
    } else {
        EXPECT_EQ(engine->module_state(), std::nullopt);
    }
    // A reply that came is released.
    EXPECT_EQ(rt::journal().releases, fault == av::DocumentFault::NoReply ? 0 : 1);
    // Nothing lost: the next reads are whole again.
    EXPECT_EQ(appliance->configuration(), before);
    EXPECT_TRUE(read_back_differences().empty());
    EXPECT_EQ(engine->module_state(), normal_state);
}

INSTANTIATE_TEST_SUITE_P(Appliance, ReadFaults,
                         testing::Values(ReadFault{"ConfigMalformed", av::DocumentFault::Malformed, true},
                                         ReadFault{"ConfigEmpty", av::DocumentFault::Empty, true},
                                         ReadFault{"ConfigNoReply", av::DocumentFault::NoReply, true},
                                         ReadFault{"ConfigFailed", av::DocumentFault::Failed, true},
                                         ReadFault{"StateMalformed", av::DocumentFault::Malformed, false},
                                         ReadFault{"StateEmpty", av::DocumentFault::Empty, false},
                                         ReadFault{"StateNoReply", av::DocumentFault::NoReply, false},
                                         ReadFault{"StateFailed", av::DocumentFault::Failed, false}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
