// NETCONF edit-config applied in place to a configuration tree.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "changes.hpp"
#include "model.hpp"

namespace tavrik::engine {

// An edit applied to `tree` in place, with the record of what it did: the
// nodes it reached on its way down, created, removed (detached, kept until
// the edit ends) and changed (with their value before). From the record the
// change set is built without looking at anything the edit did not touch,
// and the tree is put back exactly as it was (the same nodes, in the same
// order) when the edit is refused.
//
// Operations per node come from the ietf-netconf:operation metadata (an
// attribute of an opaque node), else from the parent, else from the
// default operation. Values were checked by libyang when the edit was
// parsed; what libyang could not use is an opaque node, refused here with
// the reason (an unknown element, a value of the wrong type, a list entry
// without its keys). Instances are looked up before they are created, so
// the tree never holds two instances of one list entry or leaf-list value.
class AppliedEdit {
public:
    AppliedEdit(const Model& model, Tree& tree);
    ~AppliedEdit();  // undo(), unless kept
    AppliedEdit(const AppliedEdit&) = delete;
    AppliedEdit& operator=(const AppliedEdit&) = delete;

    // Applies the edit whose first top-level node is `edit` (null: none).
    // After an error the tree is partly edited: undo().
    std::optional<RpcError> apply(const lyd_node* edit, DefaultOperation default_operation);

    // The modules whose data the edit changed or reached (after apply()).
    std::vector<const lys_module*> modules() const;

    // Adds what the edit changed to `changes` (once, after apply()).
    void describe(ChangeSet& changes);

    void undo();  // the tree as it was before apply()
    void keep();  // the edit stays; the removed subtrees are freed

private:
    enum class Op { Merge, Replace, Create, Delete, Remove, None };
    enum class Kind { Root, Reached, Created, Removed, Modified, Replaced };
    struct Touch {
        Kind kind;
        int parent;                   // the touch of the parent node; -1 for the root
        lyd_node* node = nullptr;     // the node in the tree (null: Root, Removed)
        lyd_node* old = nullptr;      // Removed, Replaced: the detached node as it was
        std::string old_value;        // Modified: the value before the edit
        std::vector<int> children;    // in the order the edit reached them
        bool alive = true;
    };
    enum class StepKind { Free, Reattach, Restore };
    struct Step {
        StepKind kind;
        int touch;
        lyd_node* node;
        lyd_node* parent = nullptr;  // Reattach: the parent (null: top level)
        lyd_node* next = nullptr;    // Reattach: the sibling that followed it
        bool done = false;
    };

    bool apply_siblings(const lyd_node* first, lyd_node* parent, int touch, Op inherited, bool fresh);
    bool apply_node(const lyd_node* e, lyd_node* parent, int touch, Op inherited, bool fresh);
    bool create(const lyd_node* e, lyd_node* parent, int touch, Op op, bool fresh, lyd_node** made = nullptr);
    bool descend(const lyd_node* e, lyd_node* target, int touch, Op op, bool fresh);
    bool change_value(const lyd_node* e, lyd_node* leaf, int touch, bool fresh);
    bool none_on_missing(const lyd_node* e, lyd_node* parent, int touch, bool fresh);
    void remove(lyd_node* target, int touch, bool fresh);
    void remove_other_cases(lyd_node* node, lyd_node* parent, int touch);

    const lysc_node* schema_of(const lyd_node* e, const lyd_node* parent, Op op);
    const lysc_node* unusable(const lyd_node* e, const lysc_node* schema);
    bool read_operation(const lyd_node* e, Op& op);
    lyd_node* find(const lyd_node* e, lyd_node* parent, const lysc_node* schema) const;
    bool fail(RpcError error);

    int add_touch(Kind kind, int parent, lyd_node* node);
    int touch_of(const lyd_node* node) const;
    int find_removed(int parent, const lyd_node* e) const;
    bool within(int touch, int ancestor) const;
    void rollback(int touch);
    void undo_step(Step& step);
    void clear_tags();

    void insert(lyd_node* parent, lyd_node* node);
    void detach(lyd_node* node);
    void reattach(lyd_node* node, lyd_node* parent, lyd_node* next);
    void free_node(lyd_node* node);

    bool was_present(int touch) const;
    bool stays_present(int touch) const;
    void describe(ChangeSet& changes, int touch, int parent_change);
    void describe_removal(ChangeSet& changes, int touch, int parent_change);

    const Model& model_;
    Tree& tree_;
    std::vector<Touch> touches_;
    std::vector<Step> steps_;
    std::unordered_multimap<std::uint64_t, int> removed_;  // (parent touch, node hash) -> Removed touch
    std::optional<RpcError> error_;
    bool ended_ = false;
};

}  // namespace tavrik::engine
