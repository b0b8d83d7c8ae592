// The change set: which nodes are reported with which operation, in which
// order; built from an edit applied in place, and taken back.
#include "apply.hpp"
#include "changes.hpp"
#include "engine_fixture.hpp"

namespace tktest {
namespace {

const std::string kChains = "CHAIN " + kAv;  // the first of most lists below
std::string entry(const std::string& name) { return kVs1 + "/profiles/profile[name='" + name + "']"; }
// The chains down to the profiles, then `more`.
std::vector<std::string> below_profiles(std::vector<std::string> more) {
    more.insert(more.begin(), {kChains, "CHAIN " + kVs1, "CHAIN " + kVs1 + "/profiles"});
    return more;
}

struct EditCase {
    const char* name;
    std::string running, edit;
    std::vector<std::string> changes;
};

const EditCase kEdits[] = {
    {"CreatedSubtreeNodeByNode", av(vsys("vs1", "")), p1(desc("d")),
     {kChains, "CHAIN " + kVs1, "ADD " + kVs1 + "/profiles", "ADD " + kP1, "ADD " + kP1 + "/name", "ADD " + kP1 + "/description"}},
    // Edit order p2, p4, p3; document order: remaining, created, removed.
    {"DocumentOrderNotEditOrder",
     av(vsys("vs1", profile("p1", desc("1")) + profile("p2", desc("2")) + profile("p3", desc("3")))),
     av(vsys("vs1", profile("p2", "", op("delete")) + profile("p4", "") + profile("p3", desc("three")))),
     below_profiles({"CHAIN " + entry("p3"), "MOD " + entry("p3") + "/description", "ADD " + entry("p4"),
                     "ADD " + entry("p4") + "/name", "REM " + entry("p2"), "REM " + entry("p2") + "/name",
                     "REM " + entry("p2") + "/description"})},
    {"ReplaceComparesTheEntry", p1(desc("d") + leaf("heuristic-detect-enable", "true")),
     av(vsys("vs1", profile("p1", desc("e"), op("replace")))),
     below_profiles({"CHAIN " + kP1, "MOD " + kP1 + "/description", "REM " + kP1 + "/heuristic-detect-enable"})},
    {"LeafListEntriesAreNodes", p1(leaf("exception-signature-id", "1")), p1(leaf("exception-signature-id", "2")),
     below_profiles({"CHAIN " + kP1, "ADD " + kP1 + "/exception-signature-id[.='2']"})},
    {"EmptiedContainerGoesWithWhatItHeld", p1(leaf("whitelists", leaf("source-address", "a"))),
     p1(leaf("whitelists", leaf("source-address", "a", op("delete")))),
     below_profiles({"CHAIN " + kP1, "REM " + kP1 + "/whitelists", "REM " + kP1 + "/whitelists/source-address[.='a']"})},
    {"EmptyContainerCountsAsAbsent", av(vsys("vs1", "")), av(vsys("vs1", "<profiles/>")), {}},
    {"CreatedThenDeletedIsNothing", av(vsys("vs1", "")),
     av(vsys("vs1", profile("p9", desc("x")) + profile("p9", "", op("delete")))), {}},
    {"ValueSetBackIsNoChange", p1(desc("d")), av(vsys("vs1", profile("p1", desc("e")) + profile("p1", desc("d")))), {}},
    {"ChangedThenDeletedGoesAsItWas", p1(desc("d") + leaf("heuristic-detect-enable", "true")),
     av(vsys("vs1", profile("p1", desc("e") + leaf("heuristic-detect-enable", "", op("delete"))) +
                        profile("p1", "", op("delete")))),
     {kChains, "CHAIN " + kVs1, "REM " + kVs1 + "/profiles", "REM " + kP1, "REM " + kP1 + "/name",
      "REM " + kP1 + "/description", "REM " + kP1 + "/heuristic-detect-enable"}},
    // p2's successor when it went was p9, which went again: p2 comes back last.
    {"RemovedBeforeOneThatWentAgain", av(vsys("vs1", profile("p1", "") + profile("p2", ""))),
     av(vsys("vs1", profile("p9", "") + profile("p2", "", op("delete")) + profile("p9", "", op("delete")))),
     below_profiles({"REM " + entry("p2"), "REM " + entry("p2") + "/name"})},
    {"WholeConfigurationRemoved", av(leaf("global", leaf("file-reputation-age-time", "1"))), av("", op("delete")),
     {"REM " + kAv, "REM " + kAv + "/global", "REM " + kAv + "/global/file-reputation-age-time"}},
};

class EditChanges : public EngineTest, public ::testing::WithParamInterface<EditCase> {};

// Built from what the edit touched (every change handed over as its
// element); taken back, the tree is as it was to the byte (every node, the
// order of list entries, implicit nodes).
TEST_P(EditChanges, ListEveryChangedNodeInDocumentOrderAndUndo) {
    const EditCase& c = GetParam();
    Engine& engine = start();
    const Model model(TAVRIK_YANG_DIR, engine.model_namespace(), engine.context());
    Tree tree, running = engine.parse(c.running).tree, edit = engine.parse(c.edit).tree;
    AppliedEdit merged(model, tree);  // the text may repeat an element
    ASSERT_FALSE(merged.apply(running.get(), DefaultOperation::Merge));
    merged.keep();
    const std::string before = print_all(tree.get());
    AppliedEdit applied(model, tree);
    ASSERT_FALSE(applied.apply(edit.get(), DefaultOperation::Merge));
    ChangeSet set(model);
    applied.describe(set);
    set.render();
    std::vector<std::string> listed;
    for (size_t i = 0; i < set.changes().size(); ++i) {
        const auto& change = set.changes()[i];
        const int op = change.op;
        listed.push_back((op == XMLDIFF_ADD ? "ADD " : op == XMLDIFF_REM ? "REM " : op == XMLDIFF_MOD ? "MOD " : "CHAIN ") + set.path(i));
        EXPECT_STREQ(change.element() ? reinterpret_cast<const char*>(change.element()->name) : "", change.schema->name);
    }
    EXPECT_EQ(listed, c.changes);
    applied.undo();
    EXPECT_EQ(print_all(tree.get()), before);
}

INSTANTIATE_TEST_SUITE_P(Engine, EditChanges, ::testing::ValuesIn(kEdits), by_name);

}  // namespace
}  // namespace tktest
