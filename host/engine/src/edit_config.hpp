// Applying a NETCONF edit-config payload to a libyang configuration tree.
#pragma once

#include <optional>
#include <string_view>

#include "support.hpp"

namespace tavrik::engine {

// Applies `xml` (the content of <config>, with or without the <config> or
// <data> element itself) to `tree`, a configuration of `model`. Operations
// per element come from the NETCONF operation attribute (merge, replace,
// create, delete, remove, none), else from the parent, else from
// `default_operation`. Values are checked against their types as nodes are
// created; the tree as a whole is not validated here. On error `tree` is
// left partly edited (callers edit a copy) and the error names the line of
// the offending element.
std::optional<RpcError> apply_edit(const lys_module* model, std::string_view xml,
                                   DefaultOperation default_operation, Tree& tree);

// Validates a whole configuration tree against the model (adding implicit
// nodes as libyang does).
std::optional<RpcError> validate_tree(const lys_module* model, Tree& tree);

// A configuration from XML text (see apply_edit), validated.
std::optional<RpcError> parse_config(const lys_module* model, std::string_view xml, Tree& tree);

}  // namespace tavrik::engine
