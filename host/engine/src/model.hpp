// The data model the engine serves, in its libyang context.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "support.hpp"

namespace tavrik::engine {

// The data the engine serves, in its libyang context: the model of the
// module's namespace and the plain data modules beside it (configuration
// without callbacks, ietf-netconf-acm's).
class Model {
public:
    // The model of namespace `ns` from yang_dir, in `host` (loaded there
    // when missing) or in a context of its own, and the modules named in
    // `data_modules` (loaded from the context's search directories when
    // missing). Throws EngineError.
    Model(const std::string& yang_dir, const std::string& ns, ly_ctx* host,
          const std::vector<std::string>& data_modules = {});
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
    const std::vector<std::string>& nonlocal() const { return served_.front().nonlocal; }

    // A module whose data is served: the model or a data module.
    struct Served {
        const lys_module* module;
        // Its constraints beyond the changed entries; for a data module: its
        // data is validated whole when an edit changes it.
        std::vector<std::string> nonlocal;
    };
    // The model first, then the data modules in the order named.
    const std::vector<Served>& served() const { return served_; }
    const Served* served(const lys_module* module) const;
    const Served* served_ns(const char* ns) const;  // by namespace; null: not served
    // The refusal of an element in no served namespace.
    std::string foreign(const std::string& element) const;

    // The position of a schema node among its siblings: the order of data
    // nodes (libyang keeps siblings in schema order, and top-level nodes by
    // the name of their module first).
    int order(const lysc_node* schema) const;

private:
    ly_ctx* ctx_ = nullptr;
    bool owned_ = false;
    const lys_module* module_ = nullptr;
    const lys_module* netconf_ = nullptr;
    const lysc_node* vsys_ = nullptr;
    std::vector<Served> served_;
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
