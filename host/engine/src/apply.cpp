#include "apply.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace tavrik::engine {
namespace {

constexpr std::string_view kNetconfNs = "urn:ietf:params:xml:ns:netconf:base:1.0";

bool is_term(const lysc_node* schema) { return schema->nodetype & LYD_NODE_TERM; }
bool is_instance(const lysc_node* schema) { return schema->nodetype & (LYS_LIST | LYS_LEAFLIST); }
bool is_np_container(const lysc_node* schema) {
    return schema->nodetype == LYS_CONTAINER && !(schema->flags & LYS_PRESENCE);
}
bool is_blank(const char* text) {
    return !text || std::string_view(text).find_first_not_of(" \t\r\n") == std::string_view::npos;
}
std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

// The same list entry, leaf-list value, or (for other nodes) schema node.
bool same_instance(const lyd_node* a, const lyd_node* b) {
    if (a->schema != b->schema) return false;
    return !is_instance(a->schema) || lyd_compare_single(a, b, 0) == LY_SUCCESS;
}

bool has_content(const lyd_node* node) {
    for (const lyd_node* c = lyd_child(node); c; c = c->next)
        if (!lysc_is_key(c->schema)) return true;
    return false;
}

std::uint64_t removal_key(int parent, const lyd_node* node) {
    return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(parent)) << 32) | node->hash;
}

// The cases of the choices `schema` is in, below its data parent.
std::vector<const lysc_node*> cases_of(const lysc_node* schema) {
    std::vector<const lysc_node*> cases;
    const lysc_node* data_parent = lysc_data_parent(schema);
    for (const lysc_node* s = schema->parent; s && s != data_parent; s = s->parent)
        if (s->nodetype == LYS_CASE) cases.push_back(s);
    return cases;
}

void tag(lyd_node* node, int touch) { node->priv = reinterpret_cast<void*>(static_cast<std::uintptr_t>(touch) + 1); }
void untag(lyd_node* node) { node->priv = nullptr; }

}  // namespace

AppliedEdit::AppliedEdit(const Model& model, Tree& tree) : model_(model), tree_(tree) {
    touches_.push_back(Touch{Kind::Root, -1, nullptr, nullptr, {}, {}});
}

AppliedEdit::~AppliedEdit() {
    if (!ended_) undo();
}

// ---- the edit ---------------------------------------------------------------

std::optional<RpcError> AppliedEdit::apply(const lyd_node* edit, DefaultOperation default_operation) {
    if (edit && LYD_CTX(edit) != model_.context())
        return RpcError(ErrorType::Application, ErrorTag::OperationFailed,
                        "The edit was parsed in another schema context than the engine's.");
    const Op op = default_operation == DefaultOperation::Replace ? Op::Replace
                  : default_operation == DefaultOperation::None  ? Op::None
                                                                 : Op::Merge;
    QuietLibyang quiet;
    if (edit && !apply_siblings(lyd_first_sibling(edit), nullptr, 0, op, false)) return error_;
    return error_;
}

std::vector<const lys_module*> AppliedEdit::modules() const {
    std::vector<const lys_module*> modules;
    for (int own : touches_[0].children) {
        const Touch& t = touches_[own];
        if (!t.alive) continue;  // taken back: its node is gone
        const lys_module* module = (t.node ? t.node : t.old)->schema->module;
        if (std::find(modules.begin(), modules.end(), module) == modules.end()) modules.push_back(module);
    }
    return modules;
}

bool AppliedEdit::apply_siblings(const lyd_node* first, lyd_node* parent, int touch, Op inherited, bool fresh) {
    for (const lyd_node* e = first; e; e = e->next)
        if (!apply_node(e, parent, touch, inherited, fresh)) return false;
    return true;
}

// `parent` is the node of the tree the edit node `e` applies below (null:
// the top level) and `touch` its touch; `fresh`: the parent was created by
// this edit, so nothing below it needs recording.
bool AppliedEdit::apply_node(const lyd_node* e, lyd_node* parent, int touch, Op inherited, bool fresh) {
    if (e->schema && lysc_is_key(e->schema)) return true;  // keys are the identity of their list entry
    Op op = inherited;
    if (!read_operation(e, op)) return false;
    const lysc_node* schema = schema_of(e, parent, op);
    if (!schema) return false;
    lyd_node* target = find(e, parent, schema);
    if (target && is_term(schema) && (target->flags & LYD_DEFAULT)) {
        // An implicit default is not configured: a value set takes its
        // place, and there is nothing to delete.
        if (op == Op::Merge || op == Op::Replace || op == Op::Create) remove(target, touch, fresh);
        target = nullptr;
    }
    // A non-presence container exists while something in it is configured.
    const bool exists = target && present(target);
    switch (op) {
        case Op::Delete:
            if (!exists)
                return fail(error_at(e, ErrorTag::DataMissing,
                                     "Cannot delete " + quoted(LYD_NAME(e)) + ": it does not exist."));
            remove(target, touch, fresh);
            return true;
        case Op::Remove:
            if (target) remove(target, touch, fresh);
            return true;
        case Op::Create:
            if (exists)
                return fail(error_at(target, ErrorTag::DataExists,
                                     "Cannot create " + quoted(LYD_NAME(e)) + ": it already exists."));
            return target ? descend(e, target, touch, op, fresh) : create(e, parent, touch, op, fresh);
        case Op::Replace:
            if (target) remove(target, touch, fresh);
            return create(e, parent, touch, op, fresh);
        case Op::Merge:
            if (!target) return create(e, parent, touch, op, fresh);
            if (schema->nodetype == LYS_LEAF) return change_value(e, target, touch, fresh);
            return is_term(schema) || descend(e, target, touch, op, fresh);
        case Op::None:
            if (is_term(schema)) return true;
            return target ? descend(e, target, touch, op, fresh) : none_on_missing(e, parent, touch, fresh);
    }
    return true;
}

bool AppliedEdit::create(const lyd_node* e, lyd_node* parent, int touch, Op op, bool fresh, lyd_node** made) {
    lyd_node* node = nullptr;
    if (lyd_dup_single(e, reinterpret_cast<lyd_node_inner*>(parent), LYD_DUP_NO_META, &node) != LY_SUCCESS)
        return fail(libyang_error(model_.context(), ErrorTag::OperationFailed));
    if (!parent) insert(nullptr, node);
    if (made) *made = node;
    int own = -1;
    if (!fresh) {
        // Created where the edit removed the same instance: replaced, and
        // compared with what it replaces.
        own = find_removed(touch, e);
        if (own >= 0) {
            touches_[own].kind = Kind::Replaced;
            touches_[own].node = node;
            tag(node, own);
        } else {
            own = add_touch(Kind::Created, touch, node);
        }
        steps_.push_back(Step{StepKind::Free, own, node});
        remove_other_cases(node, parent, touch);
    }
    if (!node->schema || is_term(node->schema)) return true;
    return apply_siblings(lyd_child(e), node, own, op, true);
}

bool AppliedEdit::descend(const lyd_node* e, lyd_node* target, int touch, Op op, bool fresh) {
    int own = -1;
    if (!fresh) {
        own = touch_of(target);
        if (own < 0)
            own = add_touch(Kind::Reached, touch, target);
        else
            fresh = touches_[own].kind == Kind::Created || touches_[own].kind == Kind::Replaced;
    }
    return apply_siblings(lyd_child(e), target, own, op, fresh);
}

bool AppliedEdit::change_value(const lyd_node* e, lyd_node* leaf, int touch, bool fresh) {
    const char* value = lyd_get_value(e);
    if (std::strcmp(lyd_get_value(leaf), value) == 0) return true;
    if (!fresh && touch_of(leaf) < 0) {
        const int own = add_touch(Kind::Modified, touch, leaf);
        touches_[own].old_value = lyd_get_value(leaf);
        steps_.push_back(Step{StepKind::Restore, own, leaf});
    }
    const LY_ERR err = lyd_change_term(leaf, value);
    if (err == LY_SUCCESS || err == LY_EEXIST || err == LY_ENOT) return true;
    return fail(error_at(e, ErrorTag::InvalidValue, libyang_error(model_.context(), ErrorTag::InvalidValue).message));
}

// "none" on a node that does not exist: the node comes into being only if
// an operation below it creates something.
bool AppliedEdit::none_on_missing(const lyd_node* e, lyd_node* parent, int touch, bool fresh) {
    lyd_node* shell = nullptr;
    if (!create(e, parent, touch, Op::None, fresh, &shell)) return false;
    if (!has_content(shell)) remove(shell, touch, fresh);
    return true;
}

void AppliedEdit::remove(lyd_node* target, int touch, bool fresh) {
    if (fresh) {  // inside a subtree this edit created: goes with it on undo
        free_node(target);
        return;
    }
    int own = touch_of(target);
    if (own >= 0) {
        // The edit already changed the node: first take that back, so that
        // what goes is the node as it was.
        rollback(own);
        Touch& t = touches_[own];
        if (t.kind == Kind::Created) {
            t.alive = false;
            return;
        }
        if (t.kind == Kind::Replaced) {
            t.kind = Kind::Removed;
            t.node = nullptr;
            return;
        }
    }
    lyd_node* parent = lyd_parent(target);
    lyd_node* next = target->next;
    detach(target);
    if (own < 0) {
        own = add_touch(Kind::Removed, touch, nullptr);
    } else {
        touches_[own].kind = Kind::Removed;
        touches_[own].node = nullptr;
    }
    touches_[own].old = target;
    tag(target, own);
    removed_.emplace(removal_key(touch, target), own);
    steps_.push_back(Step{StepKind::Reattach, own, target, parent, next});
}

// A node created in one case of a choice removes what is configured in the
// other cases (what this edit created there stays, for the model to refuse).
void AppliedEdit::remove_other_cases(lyd_node* node, lyd_node* parent, int touch) {
    const std::vector<const lysc_node*> cases = cases_of(node->schema);
    if (cases.empty()) return;
    const auto other_case = [&](const lyd_node* sibling) {
        if (sibling == node || !sibling->schema) return false;
        for (const lysc_node* c : cases_of(sibling->schema))
            for (const lysc_node* mine : cases)
                if (c != mine && c->parent == mine->parent) return true;
        return false;
    };
    std::vector<lyd_node*> others;
    for (lyd_node* sibling = parent ? lyd_child(parent) : tree_.get(); sibling; sibling = sibling->next) {
        const int own = touch_of(sibling);
        const bool created = own >= 0 && (touches_[own].kind == Kind::Created || touches_[own].kind == Kind::Replaced);
        if (!created && other_case(sibling)) others.push_back(sibling);
    }
    for (lyd_node* other : others) remove(other, touch, false);
}

// ---- edit nodes ---------------------------------------------------------------

const lysc_node* AppliedEdit::schema_of(const lyd_node* e, const lyd_node* parent, Op op) {
    const std::string name = LYD_NAME(e);
    const auto refuse = [&](ErrorTag tag, std::string message) -> const lysc_node* {
        fail(error_at(e, tag, std::move(message)));
        return nullptr;
    };
    const lysc_node* schema = e->schema;
    if (!schema) {
        if (const Model::Served* served = model_.served_ns(reinterpret_cast<const lyd_node_opaq*>(e)->name.module_ns)) {
            schema = lys_find_child(parent ? parent->schema : nullptr, served->module, name.c_str(), 0, 0, 0);
            if (!schema)
                return refuse(ErrorTag::UnknownElement,
                              "Unknown element " + quoted(name) + " " +
                                  (parent ? "in " + quoted(LYD_NAME(parent)) : "at the top level") + ".");
        }
    }
    if (!schema || !model_.served(schema->module))
        return refuse(ErrorTag::UnknownElement, model_.foreign(name));
    if (!(schema->flags & LYS_CONFIG_W))
        return refuse(ErrorTag::InvalidValue, quoted(name) + " is state data; it cannot be configured.");
    if (e->schema) return schema;
    // A leaf that goes needs no value.
    if (schema->nodetype == LYS_LEAF && (op == Op::Delete || op == Op::Remove)) return schema;
    return unusable(e, schema);
}

// Why libyang could not make a data node of `e`: its value, its keys, text
// where elements belong.
const lysc_node* AppliedEdit::unusable(const lyd_node* e, const lysc_node* schema) {
    const auto* opaque = reinterpret_cast<const lyd_node_opaq*>(e);
    const auto refuse = [&](const lyd_node* at, ErrorTag tag, std::string message) -> const lysc_node* {
        fail(error_at(at, tag, std::move(message)));
        return nullptr;
    };
    // libyang's own message for a value of the wrong type.
    const auto bad_value = [&](const lysc_node* s, const char* value, const lyd_node* at) {
        lyd_value_validate(model_.context(), s, value, value ? std::strlen(value) : 0, nullptr, nullptr, nullptr);
        return refuse(at, ErrorTag::InvalidValue, libyang_error(model_.context(), ErrorTag::InvalidValue).message);
    };
    if (is_term(schema)) return bad_value(schema, opaque->value, e);
    if (schema->nodetype == LYS_LIST) {
        for (const lysc_node* key = lysc_node_child(schema); key && lysc_is_key(key); key = key->next) {
            const lyd_node* found = nullptr;
            for (const lyd_node* c = opaque->child; c && !found; c = c->next)
                if (std::strcmp(LYD_NAME(c), key->name) == 0) found = c;
            if (!found)
                return refuse(e, ErrorTag::MissingElement,
                              "List entry " + quoted(LYD_NAME(e)) + " has no key " + quoted(key->name) + ".");
            if (!found->schema) return bad_value(key, reinterpret_cast<const lyd_node_opaq*>(found)->value, found);
        }
    }
    if (!is_blank(opaque->value))
        return refuse(e, ErrorTag::BadElement, "Unexpected text in element " + quoted(LYD_NAME(e)) + ".");
    return refuse(e, ErrorTag::InvalidValue, quoted(LYD_NAME(e)) + " does not fit the data model.");
}

bool AppliedEdit::read_operation(const lyd_node* e, Op& op) {
    const char* value = nullptr;
    if (e->schema) {
        for (const lyd_meta* meta = e->meta; meta && !value; meta = meta->next)
            if (meta->annotation && meta->annotation->module == model_.netconf() && std::strcmp(meta->name, "operation") == 0)
                value = lyd_get_meta_value(meta);
    } else {
        for (const lyd_attr* a = reinterpret_cast<const lyd_node_opaq*>(e)->attr; a && !value; a = a->next)
            if (std::strcmp(a->name.name, "operation") == 0 && a->name.module_ns && a->name.module_ns == kNetconfNs)
                value = a->value;
    }
    if (!value) return true;
    static constexpr std::pair<std::string_view, Op> kOperations[] = {
        {"merge", Op::Merge},   {"replace", Op::Replace}, {"create", Op::Create},
        {"delete", Op::Delete}, {"remove", Op::Remove},
    };
    for (const auto& [word, operation] : kOperations) {
        if (word == value) {
            op = operation;
            return true;
        }
    }
    return fail(error_at(e, ErrorTag::BadAttribute,
                         "Unknown operation " + quoted(value) + " on " + quoted(LYD_NAME(e)) +
                             " (merge, replace, create, delete or remove).",
                         ErrorType::Protocol));
}

lyd_node* AppliedEdit::find(const lyd_node* e, lyd_node* parent, const lysc_node* schema) const {
    const lyd_node* siblings = parent ? lyd_child(parent) : tree_.get();
    if (!siblings) return nullptr;
    lyd_node* match = nullptr;
    if (!is_instance(schema))
        lyd_find_sibling_val(siblings, schema, nullptr, 0, &match);
    else if (e->schema)  // an opaque instance (a leaf-list value that goes) names no instance
        lyd_find_sibling_first(siblings, e, &match);
    return match;
}

bool AppliedEdit::fail(RpcError error) {
    if (!error_) error_ = std::move(error);
    return false;
}

// ---- the record -----------------------------------------------------------------

int AppliedEdit::add_touch(Kind kind, int parent, lyd_node* node) {
    const int index = static_cast<int>(touches_.size());
    touches_.push_back(Touch{kind, parent, node, nullptr, {}, {}});
    touches_[parent].children.push_back(index);
    if (node) tag(node, index);
    return index;
}

int AppliedEdit::touch_of(const lyd_node* node) const {
    return static_cast<int>(reinterpret_cast<std::uintptr_t>(node->priv)) - 1;
}

// The Removed touch below `parent` of the instance `e` names.
int AppliedEdit::find_removed(int parent, const lyd_node* e) const {
    if (!e->schema) return -1;
    auto [first, last] = removed_.equal_range(removal_key(parent, e));
    for (auto it = first; it != last; ++it) {
        const Touch& t = touches_[it->second];
        if (t.alive && t.kind == Kind::Removed && same_instance(t.old, e)) return it->second;
    }
    return -1;
}

bool AppliedEdit::within(int touch, int ancestor) const {
    for (int at = touch; at >= 0; at = touches_[at].parent)
        if (at == ancestor) return true;
    return false;
}

// Takes back what the edit did at `touch` and below, newest first, except
// that a replaced node stays detached.
void AppliedEdit::rollback(int touch) {
    for (size_t i = steps_.size(); i-- > 0;) {
        Step& step = steps_[i];
        if (step.done || !within(step.touch, touch)) continue;
        if (step.kind == StepKind::Reattach && step.touch == touch) continue;
        if (step.kind == StepKind::Free) {
            // Steps that reattach before the node reattach before its successor now.
            for (Step& other : steps_)
                if (!other.done && other.next == step.node) other.next = step.node->next;
        }
        undo_step(step);
    }
    std::vector<int> below = touches_[touch].children;
    while (!below.empty()) {
        Touch& t = touches_[below.back()];
        below.pop_back();
        if (!t.alive) continue;
        t.alive = false;
        below.insert(below.end(), t.children.begin(), t.children.end());
        if (t.kind == Kind::Reached || t.kind == Kind::Modified) untag(t.node);
        if (t.kind == Kind::Removed) untag(t.old);  // back in the tree
    }
    touches_[touch].children.clear();
}

void AppliedEdit::undo_step(Step& step) {
    step.done = true;
    switch (step.kind) {
        case StepKind::Free: free_node(step.node); break;
        case StepKind::Reattach: reattach(step.node, step.parent, step.next); break;
        case StepKind::Restore: lyd_change_term(step.node, touches_[step.touch].old_value.c_str()); break;
    }
}

void AppliedEdit::clear_tags() {
    for (Touch& t : touches_) {
        if (!t.alive) continue;
        if (t.node) untag(t.node);
        if (t.old) untag(t.old);
    }
}

void AppliedEdit::undo() {
    if (ended_) return;
    ended_ = true;
    clear_tags();
    for (size_t i = steps_.size(); i-- > 0;)
        if (!steps_[i].done) undo_step(steps_[i]);
}

void AppliedEdit::keep() {
    if (ended_) return;
    ended_ = true;
    clear_tags();
    for (Touch& t : touches_)
        if (t.alive && t.old) lyd_free_tree(t.old);
}

// ---- the tree -----------------------------------------------------------------

void AppliedEdit::insert(lyd_node* parent, lyd_node* node) {
    if (parent) {
        lyd_insert_child(parent, node);
        return;
    }
    lyd_node* first = tree_.release();
    lyd_insert_sibling(first, node, &first);
    tree_.reset(first);
}

void AppliedEdit::detach(lyd_node* node) {
    if (lyd_parent(node)) {
        lyd_unlink_tree(node);
        return;
    }
    lyd_node* first = tree_.release();
    if (first == node) first = node->next;
    lyd_unlink_tree(node);
    tree_.reset(first);
}

// Puts a detached node back where it was: libyang inserts it behind the
// last instance of its schema node, so the instances that followed it move
// behind it again.
void AppliedEdit::reattach(lyd_node* node, lyd_node* parent, lyd_node* next) {
    insert(parent, node);
    std::vector<lyd_node*> followers;
    for (lyd_node* n = next; n && n != node && n->schema == node->schema; n = n->next) followers.push_back(n);
    for (lyd_node* n : followers) {
        detach(n);
        insert(parent, n);
    }
}

void AppliedEdit::free_node(lyd_node* node) {
    detach(node);
    lyd_free_tree(node);
}

// ---- the change set ----------------------------------------------------------------

// Whether the non-presence container of `touch` was configured before the
// edit: whether one of its children was.
bool AppliedEdit::was_present(int touch) const {
    const Touch& t = touches_[touch];
    for (const lyd_node* child = lyd_child(t.node); child; child = child->next) {
        const int own = touch_of(child);
        if (own < 0) {
            if (present(child)) return true;
            continue;
        }
        const Touch& c = touches_[own];
        switch (c.kind) {
            case Kind::Created: break;
            case Kind::Replaced:
                if (present(c.old)) return true;
                break;
            case Kind::Reached:
                if (!is_np_container(c.node->schema) || was_present(own)) return true;
                break;
            default: return true;  // a leaf the edit changed
        }
    }
    for (int own : t.children)
        if (touches_[own].alive && touches_[own].kind == Kind::Removed && present(touches_[own].old)) return true;
    return false;
}

// Whether something the edit reached below the node of `touch` is
// configured before and after it (an entry it changed, which makes a
// container present on both sides without looking at the others).
bool AppliedEdit::stays_present(int touch) const {
    for (int own : touches_[touch].children) {
        const Touch& c = touches_[own];
        if (c.alive && c.kind == Kind::Reached && !is_np_container(c.node->schema) && present(c.node)) return true;
    }
    return false;
}

void AppliedEdit::describe(ChangeSet& changes) {
    describe(changes, 0, -1);
    clear_tags();
}

void AppliedEdit::describe(ChangeSet& changes, int touch, int parent_change) {
    // Document order: schema order, the entries that were there before the
    // new ones, the removed ones after every remaining sibling.
    std::vector<int> order;
    for (int own : touches_[touch].children)
        if (touches_[own].alive) order.push_back(own);
    const auto rank = [&](int own) {
        const Touch& t = touches_[own];
        const lyd_node* node = t.node ? t.node : t.old;
        const bool fresh = t.kind == Kind::Created || t.kind == Kind::Replaced;
        return std::tuple(t.kind == Kind::Removed, model_.order(node->schema), fresh);
    };
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return rank(a) < rank(b); });

    const lyd_node* parent_node = touches_[touch].node;
    for (int own : order) {
        const Touch& t = touches_[own];
        switch (t.kind) {
            case Kind::Created:
                if (present(t.node)) changes.subtree(t.node, New, XMLDIFF_ADD, parent_change);
                break;
            case Kind::Removed:
                changes.detached(t.old, parent_node);
                if (present(t.old)) changes.subtree(t.old, Old, XMLDIFF_REM, parent_change);
                break;
            case Kind::Modified:
                if (t.old_value != lyd_get_value(t.node))
                    changes.add(XMLDIFF_MOD, parent_change, t.node, t.node, t.old_value.c_str());
                break;
            case Kind::Replaced:
                changes.detached(t.old, parent_node);
                changes.compare_pair(t.old, t.node, parent_change);
                break;
            case Kind::Reached: {
                const bool stays = stays_present(own);
                const bool after = stays || present(t.node);
                const bool before = stays || !is_np_container(t.node->schema) ? after : was_present(own);
                if (before && !after) {
                    describe_removal(changes, own, parent_change);
                } else if (!before && after) {
                    changes.subtree(t.node, New, XMLDIFF_ADD, parent_change);
                } else if (before) {
                    const int chain = changes.add(XMLDIFF_CHAIN, parent_change, t.node, t.node);
                    describe(changes, own, chain);
                    changes.drop_if_last(chain);
                }
                break;
            }
            case Kind::Root: break;
        }
    }
}

// A non-presence container the edit emptied: it goes, with what it held.
void AppliedEdit::describe_removal(ChangeSet& changes, int touch, int parent_change) {
    const Touch& t = touches_[touch];
    const int index = changes.add(XMLDIFF_REM, parent_change, t.node, nullptr);
    for (int own : t.children) {
        const Touch& c = touches_[own];
        if (!c.alive) continue;
        if ((c.kind == Kind::Removed || c.kind == Kind::Replaced) && present(c.old)) {
            changes.detached(c.old, t.node);
            changes.subtree(c.old, Old, XMLDIFF_REM, index);
        } else if (c.kind == Kind::Reached && is_np_container(c.node->schema) && was_present(own)) {
            describe_removal(changes, own, index);
        }
    }
}

}  // namespace tavrik::engine
