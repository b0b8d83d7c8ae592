// The change set of an edit, as the module is told about it.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "model.hpp"
#include "transapi.h"

namespace tavrik::engine {

enum Side { Old = 0, New = 1 };

struct Change {
    int op = XMLDIFF_NONE;  // XMLDIFF bits
    int parent = -1;        // index of the change of the enclosing node; -1 at the top
    const lysc_node* schema = nullptr;
    // The node before and after the edit; one node for both when it was
    // edited in place (its value before is then `old_value`).
    const lyd_node* data[2] = {};
    const char* old_value = nullptr;  // MOD: the value before, when not data[Old]'s
    xmlNode* xml[2] = {};             // its element in the old and in the new document
    bool active = true;               // false: kept only as the ancestor of other changes

    // What the module is handed: the node of the new document, of the old
    // one for a removal.
    Side side() const { return (op & XMLDIFF_REM) ? Old : New; }
    xmlNode* element() const { return xml[side()]; }
    const lyd_node* node() const { return data[side()]; }
};

// Every changed node of an edit once, in document order (a node before its
// descendants, removed nodes after the remaining siblings):
//   - every node of a created or removed subtree: ADD or REM;
//   - a leaf whose value changed: MOD;
//   - a node that stays but has changed descendants: CHAIN.
// Non-presence containers count as absent while nothing in them is
// configured, as they are absent from an XML document.
//
// The set is built by whoever knows what changed (an edit applied in place,
// or the comparison of two whole configurations); render() then makes the
// documents the module reads: for the configuration before and after, the
// changed nodes of the model, their ancestors and the leaves of every
// rendered element (keys included), in document order. Changes of the data
// modules beside the model are listed, never rendered.
class ChangeSet {
public:
    explicit ChangeSet(const Model& model) : model_(model) {}
    // The changes from `old_tree` to `new_tree` (whole configurations),
    // rendered.
    ChangeSet(const Model& model, const lyd_node* old_tree, const lyd_node* new_tree);
    ChangeSet(const ChangeSet&) = delete;
    ChangeSet& operator=(const ChangeSet&) = delete;

    // ---- building ----
    int add(int op, int parent, const lyd_node* old_node, const lyd_node* new_node, const char* old_value = nullptr);
    // Drops change `index` when nothing was added after it (a CHAIN with no
    // change below).
    void drop_if_last(int index);
    // `node` and every configured node below it with `op` (ADD or REM).
    void subtree(const lyd_node* node, Side side, int op, int parent);
    // The changes between two lists of siblings, and between one node and
    // its counterpart, compared whole.
    void compare(const lyd_node* old_first, const lyd_node* new_first, int parent);
    void compare_pair(const lyd_node* old_node, const lyd_node* new_node, int parent);
    // `root` was detached from `parent` (null: the top level) by the edit;
    // its nodes' paths are below that parent.
    void detached(const lyd_node* root, const lyd_node* parent);
    // Makes the documents (the old one only when a removal needs it; the
    // way back makes it then).
    void render();

    // ---- using ----
    const std::vector<Change>& changes() const { return changes_; }
    bool empty() const { return changes_.empty(); }

    // Operation bits of the ancestor `level` steps above change `index`
    // (1 = parent); 0 beyond the root.
    int parent_op(size_t index, int level) const;

    // The instance path of change `index`'s node (libyang's notation).
    std::string path(size_t index) const;
    std::string path_of_node(const lyd_node* node) const;

    // Turns the set into the way back for the changes marked in `undo`:
    // they swap sides and ADD and REM, and so do the CHAIN changes above
    // them, which are dispatched again whether or not they ran before; every
    // other change keeps its operation, so that it screens its descendants
    // as before, and is no longer dispatched.
    void reverse(const std::vector<char>& undo);

private:
    bool rendered(const Change& change) const;
    void render_side(Side side);
    void render(Side side, size_t index);
    xmlNode* element(Side side, const lyd_node* node, const char* value, xmlNode* parent);

    const Model& model_;
    std::vector<Change> changes_;
    std::unordered_map<const lyd_node*, const lyd_node*> detached_;
    XmlDoc docs_[2];
};

}  // namespace tavrik::engine
