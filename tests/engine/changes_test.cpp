// The change set: which nodes are reported with which operation, in which
// order, and what the module sees of the two configurations; built from an
// edit applied in place (and taken back), and from two whole configurations.
#include "apply.hpp"
#include "changes.hpp"
#include "engine_fixture.hpp"
#include "print_tree.hpp"

namespace tktest {
namespace {

using tavrik::engine::AppliedEdit;
using tavrik::engine::ChangeSet;
using tavrik::engine::Model;
using tavrik::engine::Tree;

class Changes : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        Engine& engine = start();
        model_.emplace(TAVRIK_YANG_DIR, engine.model_namespace(), engine.context());
    }
    void TearDown() override {
        model_.reset();
        EngineTest::TearDown();
    }
    Tree parse(const std::string& xml) {
        auto parsed = engine().parse(xml);
        EXPECT_FALSE(parsed.error) << parsed.error->message;
        return std::move(parsed.tree);
    }
    // A configuration: `xml` merged into nothing (the text may repeat an
    // element, as the builders below do).
    Tree configuration(const std::string& xml) {
        Tree tree;
        Tree edit = parse(xml);
        AppliedEdit applied(*model_, tree);
        EXPECT_FALSE(applied.apply(edit.get(), DefaultOperation::Merge));
        applied.keep();
        return tree;
    }
    // "OP path" per change, in order.
    static std::vector<std::string> listed(const ChangeSet& set) {
        std::vector<std::string> out;
        for (size_t i = 0; i < set.changes().size(); ++i) {
            const int op = set.changes()[i].op;
            const char* name = op == XMLDIFF_ADD ? "ADD" : op == XMLDIFF_REM ? "REM" : op == XMLDIFF_MOD ? "MOD" : "CHAIN";
            out.push_back(std::string(name) + " " + set.path(i));
        }
        return out;
    }
    static void expect_elements(const ChangeSet& set) {
        for (const auto& c : set.changes()) {
            ASSERT_NE(c.element(), nullptr);
            EXPECT_STREQ(reinterpret_cast<const char*>(c.element()->name), c.schema->name);
        }
    }
    std::optional<Model> model_;
};

const std::string kAv = "/tavrik-antivirus:antivirus";
const std::string kVs1 = kAv + "/vsys[name='vs1']";
const std::string kP1 = kVs1 + "/profiles/profile[name='p1']";
const std::string kChains = "CHAIN " + kAv;  // the first of every list below

struct EditCase {
    const char* name;
    std::string running;
    std::string edit;
    std::vector<std::string> changes;
    DefaultOperation default_operation = DefaultOperation::Merge;
};
std::ostream& operator<<(std::ostream& out, const EditCase& c) { return out << c.name; }

std::string desc(const std::string& text) { return leaf("description", text); }
std::string entry(const std::string& name) { return kVs1 + "/profiles/profile[name='" + name + "']"; }

const EditCase kEdits[] = {
    {"LeafModifiedUnderChains", p1(desc("d")), p1(desc("e")),
     {kChains, "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "CHAIN " + kP1, "MOD " + kP1 + "/description"}},
    {"CreatedSubtreeNodeByNode", av(vsys("vs1", "")), p1(desc("d")),
     {kChains, "CHAIN " + kVs1, "ADD " + kVs1 + "/profiles", "ADD " + kP1, "ADD " + kP1 + "/name",
      "ADD " + kP1 + "/description"}},
    // Edit order p2, p4, p3; document order: remaining, created, removed.
    {"DocumentOrderNotEditOrder",
     av(vsys("vs1", profile("p1", desc("1")) + profile("p2", desc("2")) + profile("p3", desc("3")))),
     av(vsys("vs1", profile("p2", "", op("delete")) + profile("p4", "") + profile("p3", desc("three")))),
     {kChains, "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "CHAIN " + entry("p3"),
      "MOD " + entry("p3") + "/description", "ADD " + entry("p4"), "ADD " + entry("p4") + "/name",
      "REM " + entry("p2"), "REM " + entry("p2") + "/name", "REM " + entry("p2") + "/description"}},
    {"ReplaceComparesTheEntry", p1(desc("d") + leaf("heuristic-detect-enable", "true")),
     av(vsys("vs1", profile("p1", desc("e"), op("replace")))),
     {kChains, "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "CHAIN " + kP1, "MOD " + kP1 + "/description",
      "REM " + kP1 + "/heuristic-detect-enable"}},
    {"LeafListEntriesAreNodes", p1(leaf("exception-signature-id", "1")), p1(leaf("exception-signature-id", "2")),
     {kChains, "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "CHAIN " + kP1,
      "ADD " + kP1 + "/exception-signature-id[.='2']"}},
    {"EmptiedContainerGoesWithWhatItHeld", p1(leaf("whitelists", leaf("source-address", "a"))),
     p1(leaf("whitelists", leaf("source-address", "a", op("delete")))),
     {kChains, "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "CHAIN " + kP1, "REM " + kP1 + "/whitelists",
      "REM " + kP1 + "/whitelists/source-address[.='a']"}},
    {"EmptyContainerCountsAsAbsent", av(vsys("vs1", "")), av(vsys("vs1", "<profiles/>")), {}},
    {"FilledContainerComes", av(vsys("vs1", "<profiles/>")), p1(""),
     {kChains, "CHAIN " + kVs1, "ADD " + kVs1 + "/profiles", "ADD " + kP1, "ADD " + kP1 + "/name"}},
    {"CreatedThenDeletedIsNothing", av(vsys("vs1", "")),
     av(vsys("vs1", profile("p9", desc("x")) + profile("p9", "", op("delete")))), {}},
    {"ChangedThenDeletedGoesAsItWas", p1(desc("d") + leaf("heuristic-detect-enable", "true")),
     av(vsys("vs1", profile("p1", desc("e") + leaf("heuristic-detect-enable", "", op("delete"))) +
                        profile("p1", "", op("delete")))),
     {kChains, "CHAIN " + kVs1, "REM " + kVs1 + "/profiles", "REM " + kP1, "REM " + kP1 + "/name",
      "REM " + kP1 + "/description", "REM " + kP1 + "/heuristic-detect-enable"}},
    // p2's successor when it went was p9, which went again: p2 comes back last.
    {"RemovedBeforeOneThatWentAgain", av(vsys("vs1", profile("p1", "") + profile("p2", ""))),
     av(vsys("vs1", profile("p9", "") + profile("p2", "", op("delete")) + profile("p9", "", op("delete")))),
     {kChains, "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "REM " + entry("p2"), "REM " + entry("p2") + "/name"}},
    {"ValueSetBackIsNoChange", p1(desc("d")), av(vsys("vs1", profile("p1", desc("e")) + profile("p1", desc("d")))),
     {}},
    {"WholeConfigurationRemoved", av(leaf("global", leaf("file-reputation-age-time", "1"))),
     std::string("<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\" xmlns:nc=\"") + kNetconfNs +
         "\" " + op("delete") + "/>",
     {"REM " + kAv, "REM " + kAv + "/global", "REM " + kAv + "/global/file-reputation-age-time"}},
};

class EditChanges : public Changes, public ::testing::WithParamInterface<EditCase> {};

// Built from what the edit touched; taken back, the tree is as it was to
// the byte (every node, the order of list entries, implicit nodes).
TEST_P(EditChanges, ListEveryChangedNodeInDocumentOrderAndUndo) {
    const EditCase& c = GetParam();
    Tree tree = configuration(c.running);
    const std::string before = print_all(tree.get());
    Tree edit = parse(c.edit);
    AppliedEdit applied(*model_, tree);
    const auto error = applied.apply(edit.get(), c.default_operation);
    ASSERT_FALSE(error) << error->message << " at " << error->path;
    ChangeSet set(*model_);
    applied.describe(set);
    set.render();
    EXPECT_EQ(listed(set), c.changes);
    expect_elements(set);
    applied.undo();
    EXPECT_EQ(print_all(tree.get()), before);
}

INSTANTIATE_TEST_SUITE_P(Engine, EditChanges, ::testing::ValuesIn(kEdits),
                         [](const auto& info) { return std::string(info.param.name); });

// Whole configurations (replace_running) are compared whole; the same rules.
TEST_F(Changes, WholeConfigurationsAreCompared) {
    Tree old_tree = configuration(av(vsys("vs1", "<profiles/>" + leaf("antivirus-enable", "true"))));
    Tree new_tree = configuration(av(vsys("vs1", profile("p2", "")) + leaf("global", leaf("file-reputation-age-time", "1"))));
    const ChangeSet set(*model_, old_tree.get(), new_tree.get());
    EXPECT_EQ(listed(set),
              (std::vector<std::string>{kChains, "CHAIN " + kVs1, "ADD " + kVs1 + "/profiles", "ADD " + entry("p2"),
                                        "ADD " + entry("p2") + "/name", "REM " + kVs1 + "/antivirus-enable",
                                        "ADD " + kAv + "/global", "ADD " + kAv + "/global/file-reputation-age-time"}));
    expect_elements(set);
}

std::string text(const xmlNode* element) {
    return element && element->children ? reinterpret_cast<const char*>(element->children->content) : "";
}
std::vector<std::string> child_names(const xmlNode* element) {
    std::vector<std::string> names;
    for (const xmlNode* c = element->children; c; c = c->next) names.push_back(reinterpret_cast<const char*>(c->name));
    return names;
}

class Edited : public Changes {
protected:
    void TearDown() override {
        set_.reset();
        applied_.reset();  // takes the edit back while the context lives
        tree_.reset();
        edit_.reset();
        Changes::TearDown();
    }
    // The change set of `edit` applied in place to `running`.
    ChangeSet& changes_of(const std::string& running, const std::string& edit) {
        tree_ = configuration(running);
        edit_ = parse(edit);
        applied_.emplace(*model_, tree_);
        EXPECT_EQ(applied_->apply(edit_.get(), DefaultOperation::Merge), std::nullopt);
        set_.emplace(*model_);
        applied_->describe(*set_);
        set_->render();
        return *set_;
    }
    const tavrik::engine::Change& find(const std::string& path) {
        for (size_t i = 0; i < set_->changes().size(); ++i)
            if (set_->path(i) == path) return set_->changes()[i];
        throw std::runtime_error("no change of " + path);
    }

private:
    Tree tree_, edit_;
    std::optional<AppliedEdit> applied_;
    std::optional<ChangeSet> set_;
};

TEST_F(Edited, DocumentsShowChangedNodesWithTheLeavesBesideThem) {
    const std::string other = profile("p2", desc("other"));
    const std::string signature = leaf("exception-signature", leaf("id", "7") + leaf("action", "allow"));
    ChangeSet& set =
        changes_of(av(vsys("vs1", profile("p1", desc("d") + leaf("exception-signature-id", "5") + signature) + other)),
                   av(vsys("vs1", profile("p1", desc("e") + leaf("exception-signature",
                                                                 leaf("id", "7") + leaf("action", "", op("delete")))))));
    const auto& description = find(kP1 + "/description");
    EXPECT_EQ(text(description.xml[tavrik::engine::New]), "e");
    EXPECT_EQ(text(description.xml[tavrik::engine::Old]), "d");
    // The profile element holds its key and its changed children, in
    // document order; no leaf-list values, nothing of the unchanged p2.
    const xmlNode* profile_element = description.element()->parent;
    EXPECT_EQ(child_names(profile_element), (std::vector<std::string>{"name", "description", "exception-signature"}));
    EXPECT_EQ(child_names(profile_element->parent), (std::vector<std::string>{"profile"}));
    // A removed leaf is handed from the old document, beside its key.
    const auto& action = find(kP1 + "/exception-signature[id='7']/action");
    EXPECT_EQ(action.op, XMLDIFF_REM);
    EXPECT_EQ(child_names(action.element()->parent), (std::vector<std::string>{"id", "action"}));
    EXPECT_EQ(text(action.element()), "allow");
    EXPECT_EQ(action.element()->doc, set.changes().front().xml[tavrik::engine::Old]->doc);
    // Parent operations by level, 0 beyond the root.
    const size_t index = static_cast<size_t>(&action - set.changes().data());
    EXPECT_EQ(set.parent_op(index, 1), XMLDIFF_CHAIN);
    EXPECT_EQ(set.parent_op(index, 5), XMLDIFF_CHAIN);  // antivirus
    EXPECT_EQ(set.parent_op(index, 6), XMLDIFF_NONE);
    // The namespace of the model is on every element.
    EXPECT_STREQ(reinterpret_cast<const char*>(action.element()->ns->href),
                 "urn:tavrik:params:xml:ns:yang:tavrik-antivirus");
}

TEST_F(Edited, ReverseSwapsTheUndoneChangesOnly) {
    ChangeSet& set = changes_of(av(vsys("vs1", "")), p1(desc("d")));
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
TEST_F(Edited, ReverseRunsTheChainsAboveTheUndoneChanges) {
    const auto signature = [](const std::string& leaves) {
        return leaf("exception-signature", leaf("id", "7") + leaves);
    };
    ChangeSet& set = changes_of(p1(desc("d") + signature(leaf("action", "allow"))),
                                p1(desc("e") + signature(leaf("action", "", op("delete")))));
    ASSERT_EQ(listed(set), (std::vector<std::string>{
                               kChains, "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles", "CHAIN " + kP1,
                               "MOD " + kP1 + "/description", "CHAIN " + kP1 + "/exception-signature[id='7']",
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
