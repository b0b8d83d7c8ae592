// The data model the engine serves, in its libyang context.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "support.hpp"

namespace tavrik::engine {

class Model {
public:
    // The model of namespace `ns` from yang_dir, in `host` (loaded there
    // when missing) or in a context of its own. Throws EngineError.
    Model(const std::string& yang_dir, const std::string& ns, ly_ctx* host);
    ~Model();
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    ly_ctx* context() const { return ctx_; }
    const lys_module* module() const { return module_; }
    const lys_module* netconf() const { return netconf_; }  // ietf-netconf: the operation metadata
    // The vsys list, whose entries the server's vsys feature owns; null for
    // a model without one.
    const lysc_node* vsys_list() const { return vsys_; }
    // Why edits need a validation of the whole configuration; empty: the
    // checks made while applying an edit are all the model asks for.
    const std::vector<std::string>& nonlocal() const { return nonlocal_; }
    // The position of a schema node among its siblings: the order of data
    // nodes (libyang keeps siblings in schema order).
    int order(const lysc_node* schema) const;

private:
    ly_ctx* ctx_ = nullptr;
    bool owned_ = false;
    const lys_module* module_ = nullptr;
    const lys_module* netconf_ = nullptr;
    const lysc_node* vsys_ = nullptr;
    std::vector<std::string> nonlocal_;
    mutable std::unordered_map<const lysc_node*, int> order_;
};

// The constraints of `module`'s configuration that a check of the changed
// entries alone cannot see, as "what at schema-path": must, when, leafref
// and instance-identifier (also in unions), unique, min- and max-elements,
// mandatory, choice (a new case removes the others), default (implicit
// nodes), anydata.
std::vector<std::string> nonlocal_constraints(const lys_module* module);

// Whether a data node is configured: not an implicit default, and a
// non-presence container only while something in it is configured.
bool present(const lyd_node* node);

}  // namespace tavrik::engine
