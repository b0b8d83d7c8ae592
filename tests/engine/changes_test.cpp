// The change set: which nodes are reported with which operation, in which
// order, and what the module sees of the two configurations.
#include "changes.hpp"

#include "edit_config.hpp"
#include "engine_fixture.hpp"

namespace tktest {
namespace {

using tavrik::engine::ChangeSet;
using tavrik::engine::Tree;

class Changes : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        model_ = ly_ctx_get_module_implemented(start().context(), "tavrik-antivirus");
    }
    Tree parse(const std::string& xml) {
        Tree tree;
        auto error = tavrik::engine::parse_config(model_, xml, tree);
        EXPECT_FALSE(error) << error->message;
        return tree;
    }
    // "OP path" per change, in order.
    static std::vector<std::string> listed(const ChangeSet& set) {
        std::vector<std::string> out;
        for (const auto& c : set.changes()) {
            const char* op = c.op == XMLDIFF_ADD ? "ADD" : c.op == XMLDIFF_REM ? "REM" : c.op == XMLDIFF_MOD ? "MOD"
                                                                                                                : "CHAIN";
            out.push_back(std::string(op) + " " + tavrik::engine::path_of(c.node()));
        }
        return out;
    }
    const lys_module* model_ = nullptr;
};

const std::string kVs1 = "/tavrik-antivirus:antivirus/vsys[name='vs1']";
const std::string kP1 = kVs1 + "/profiles/profile[name='p1']";

struct Diff {
    const char* name;
    std::string old_config;
    std::string new_config;
    std::vector<std::string> changes;
};
std::ostream& operator<<(std::ostream& out, const Diff& d) { return out << d.name; }

const Diff kDiffs[] = {
    {"NothingChanged", p1(leaf("description", "d")), p1(leaf("description", "d")), {}},
    {"LeafModifiedUnderChains", p1(leaf("description", "d")), p1(leaf("description", "e")),
     {"CHAIN /tavrik-antivirus:antivirus", "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "CHAIN " + kP1,
      "MOD " + kP1 + "/description"}},
    {"CreatedSubtreeNodeByNode", av(vsys("vs1", "")), p1(leaf("description", "d")),
     {"CHAIN /tavrik-antivirus:antivirus", "CHAIN " + kVs1, "ADD " + kVs1 + "/profiles", "ADD " + kP1,
      "ADD " + kP1 + "/name", "ADD " + kP1 + "/description"}},
    {"RemovalsAfterTheRemainingSiblings", p1(leaf("description", "d")),
     av(vsys("vs1", profile("p2", ""))),
     {"CHAIN /tavrik-antivirus:antivirus", "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles",
      "ADD " + kVs1 + "/profiles/profile[name='p2']", "ADD " + kVs1 + "/profiles/profile[name='p2']/name",
      "REM " + kP1, "REM " + kP1 + "/name", "REM " + kP1 + "/description"}},
    {"LeafListEntriesAreNodes", p1(leaf("exception-signature-id", "1")),
     p1(leaf("exception-signature-id", "1") + leaf("exception-signature-id", "2")),
     {"CHAIN /tavrik-antivirus:antivirus", "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "CHAIN " + kP1,
      "ADD " + kP1 + "/exception-signature-id[.='2']"}},
    {"EmptyContainerCountsAsAbsent", av(vsys("vs1", "<profiles/>")), p1(""),
     {"CHAIN /tavrik-antivirus:antivirus", "CHAIN " + kVs1, "ADD " + kVs1 + "/profiles", "ADD " + kP1,
      "ADD " + kP1 + "/name"}},
    {"WholeConfigurationRemoved", av(leaf("global", leaf("file-reputation-age-time", "1"))), "",
     {"REM /tavrik-antivirus:antivirus", "REM /tavrik-antivirus:antivirus/global",
      "REM /tavrik-antivirus:antivirus/global/file-reputation-age-time"}},
};

class Diffs : public Changes, public ::testing::WithParamInterface<Diff> {};

TEST_P(Diffs, ReportEveryChangedNodeInDocumentOrder) {
    const Diff& d = GetParam();
    Tree old_tree = parse(d.old_config);
    Tree new_tree = parse(d.new_config);
    const ChangeSet set(old_tree.get(), new_tree.get());
    EXPECT_EQ(listed(set), d.changes);
    for (const auto& c : set.changes()) {
        ASSERT_NE(c.element(), nullptr);
        EXPECT_STREQ(reinterpret_cast<const char*>(c.element()->name), c.schema->name);
    }
}

INSTANTIATE_TEST_SUITE_P(Engine, Diffs, ::testing::ValuesIn(kDiffs),
                         [](const auto& info) { return std::string(info.param.name); });

std::string text(const xmlNode* element) {
    return element && element->children ? reinterpret_cast<const char*>(element->children->content) : "";
}
std::vector<std::string> child_names(const xmlNode* element) {
    std::vector<std::string> names;
    for (const xmlNode* c = element->children; c; c = c->next) names.push_back(reinterpret_cast<const char*>(c->name));
    return names;
}

TEST_F(Changes, DocumentsShowChangedNodesWithTheLeavesBesideThem) {
    const std::string other = profile("p2", leaf("description", "other"));
    Tree old_tree = parse(av(vsys("vs1", profile("p1", leaf("description", "d") +
                                                           leaf("exception-signature", leaf("id", "7") +
                                                                                           leaf("action", "allow"))) +
                                                 other)));
    Tree new_tree = parse(av(vsys("vs1", profile("p1", leaf("description", "e") +
                                                           leaf("exception-signature", leaf("id", "7"))) +
                                                 other)));
    const ChangeSet set(old_tree.get(), new_tree.get());
    const auto& changes = set.changes();
    auto find = [&](const std::string& path) -> const tavrik::engine::Change& {
        for (const auto& c : changes)
            if (tavrik::engine::path_of(c.node()) == path) return c;
        throw std::runtime_error("no change of " + path);
    };
    const auto& description = find(kP1 + "/description");
    EXPECT_EQ(text(description.xml[tavrik::engine::New]), "e");
    EXPECT_EQ(text(description.xml[tavrik::engine::Old]), "d");
    // The profile element holds its key and its changed children, in
    // document order, and nothing of the unchanged profile p2.
    const xmlNode* profile_element = description.element()->parent;
    EXPECT_EQ(child_names(profile_element), (std::vector<std::string>{"name", "description", "exception-signature"}));
    EXPECT_EQ(child_names(profile_element->parent), (std::vector<std::string>{"profile"}));
    // A removed leaf is handed from the old document, beside its key.
    const auto& action = find(kP1 + "/exception-signature[id='7']/action");
    EXPECT_EQ(action.op, XMLDIFF_REM);
    EXPECT_EQ(child_names(action.element()->parent), (std::vector<std::string>{"id", "action"}));
    EXPECT_EQ(action.element()->doc, set.changes().front().xml[tavrik::engine::Old]->doc);
    // Parent operations by level, 0 beyond the root.
    const size_t index = static_cast<size_t>(&action - changes.data());
    EXPECT_EQ(set.parent_op(index, 1), XMLDIFF_CHAIN);
    EXPECT_EQ(set.parent_op(index, 5), XMLDIFF_CHAIN);  // antivirus
    EXPECT_EQ(set.parent_op(index, 6), XMLDIFF_NONE);
    // The namespace of the model is on every element.
    EXPECT_STREQ(reinterpret_cast<const char*>(action.element()->ns->href),
                 "urn:tavrik:params:xml:ns:yang:tavrik-antivirus");
}

TEST_F(Changes, ReverseSwapsTheUndoneChangesOnly) {
    Tree old_tree = parse(av(vsys("vs1", "")));
    Tree new_tree = parse(p1(leaf("description", "d")));
    ChangeSet set(old_tree.get(), new_tree.get());
    const auto before = set.changes();
    std::vector<char> undo(before.size(), 0);
    undo[3] = 1;  // the profile entry
    set.reverse(undo);
    const auto& after = set.changes();
    EXPECT_EQ(after[3].op, XMLDIFF_REM);
    EXPECT_EQ(after[3].element(), before[3].xml[tavrik::engine::New]);
    EXPECT_TRUE(after[3].active);
    // The description was not carried out: it keeps its operation and is
    // not dispatched; its parent now answers the reversed operation.
    EXPECT_FALSE(after[5].active);
    EXPECT_EQ(after[5].op, XMLDIFF_ADD);
    EXPECT_EQ(set.parent_op(5, 1), XMLDIFF_REM);
    EXPECT_EQ(set.parent_op(5, 2), XMLDIFF_ADD);
}

// The restore of a half-done edit: the action's removal was carried out,
// the entry's chain change and the description were not.
TEST_F(Changes, ReverseRunsTheChainsAboveTheUndoneChanges) {
    const auto signature = [](const std::string& leaves) {
        return leaf("exception-signature", leaf("id", "7") + leaves);
    };
    Tree old_tree = parse(p1(leaf("description", "d") + signature(leaf("action", "allow"))));
    Tree new_tree = parse(p1(leaf("description", "e") + signature("")));
    ChangeSet set(old_tree.get(), new_tree.get());
    ASSERT_EQ(listed(set), (std::vector<std::string>{
                               "CHAIN /tavrik-antivirus:antivirus", "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles",
                               "CHAIN " + kP1, "MOD " + kP1 + "/description",
                               "CHAIN " + kP1 + "/exception-signature[id='7']",
                               "REM " + kP1 + "/exception-signature[id='7']/action"}));
    const xmlNode* old_entry = set.changes()[5].xml[tavrik::engine::Old];
    std::vector<char> undo(set.changes().size(), 0);
    undo[6] = 1;
    set.reverse(undo);
    std::vector<bool> active;
    for (const auto& c : set.changes()) active.push_back(c.active);
    EXPECT_EQ(active, (std::vector<bool>{true, true, true, true, false, true, true}));
    // The entry is handed over as it was before the edit, action included.
    EXPECT_EQ(set.changes()[5].op, XMLDIFF_CHAIN);
    EXPECT_EQ(set.changes()[5].element(), old_entry);
    EXPECT_EQ(child_names(old_entry), (std::vector<std::string>{"id", "action"}));
    EXPECT_EQ(set.changes()[6].op, XMLDIFF_ADD);
}

}  // namespace
}  // namespace tktest
