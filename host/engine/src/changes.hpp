// The difference between two configurations, as the module is told about it.
#pragma once

#include <vector>

#include "support.hpp"
#include "transapi.h"

namespace tavrik::engine {

enum Side { Old = 0, New = 1 };

struct Change {
    int op = XMLDIFF_NONE;  // XMLDIFF bits
    int parent = -1;        // index of the change of the enclosing node; -1 at the top
    const lysc_node* schema = nullptr;
    const lyd_node* data[2] = {};  // the node in the old and in the new configuration
    xmlNode* xml[2] = {};          // its element in the old and in the new document
    bool active = true;            // false: kept only as the ancestor of other changes

    // What the module is handed: the node of the new document, of the old
    // one for a removal.
    Side side() const { return (op & XMLDIFF_REM) ? Old : New; }
    xmlNode* element() const { return xml[side()]; }
    const lyd_node* node() const { return data[side()]; }
};

// Every changed node of a configuration edit once, in document order (a node
// before its descendants, removed nodes after the remaining siblings):
//   - every node of a created or removed subtree: ADD or REM;
//   - a leaf whose value changed: MOD;
//   - a node that stays but has changed descendants: CHAIN.
// Non-presence containers count as absent while nothing in them is
// configured, as they are absent from an XML document.
//
// Both configurations are rendered as XML documents for the module, as far
// as it can look: the changed nodes, their ancestors, and the leaves beside
// them (keys included).
class ChangeSet {
public:
    ChangeSet(const lyd_node* old_tree, const lyd_node* new_tree);

    const std::vector<Change>& changes() const { return changes_; }
    bool empty() const { return changes_.empty(); }

    // Operation bits of the ancestor `level` steps above change `index`
    // (1 = parent); 0 beyond the root.
    int parent_op(size_t index, int level) const;

    // Turns the set into the way back for the changes marked in `undo`:
    // they swap sides and ADD and REM, and so do the CHAIN changes above
    // them, which are dispatched again whether or not they ran before; every
    // other change keeps its operation, so that it screens its descendants
    // as before, and is no longer dispatched.
    void reverse(const std::vector<char>& undo);

private:
    int add(int op, int parent, const lyd_node* old_node, const lyd_node* new_node);
    void compare(const lyd_node* old_first, const lyd_node* new_first, int parent);
    void subtree(const lyd_node* node, Side side, int op, int parent);
    void render(Side side, const lyd_node* first);
    void render(Side side, const lyd_node* node, xmlNode* parent, xmlNs* ns);

    std::vector<Change> changes_;
    XmlDoc docs_[2];
};

}  // namespace tavrik::engine
