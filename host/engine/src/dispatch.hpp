// Calling the module's callback-table rows for the changes of an edit.
#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "changes.hpp"
#include "module.hpp"
#include "tavrik/runtime.hpp"

namespace tavrik::engine {

// The module's callback table, its rows found by schema node.
class CallbackTable {
public:
    // Resolves every row path in the context (throws EngineError when a path
    // names no node of the model).
    CallbackTable(const Module& module, const ly_ctx* ctx);

    using Rows = std::vector<const clbk*>;
    const Rows* rows_for(const lysc_node* schema) const;
    // The priorities of the rows that are called, highest first (rows of
    // priority 0 are never called).
    const std::vector<int>& priorities() const { return priorities_; }
    bool root_to_leaf() const { return root_to_leaf_; }

private:
    std::unordered_map<const lysc_node*, Rows> rows_;
    std::vector<int> priorities_;
    bool root_to_leaf_;
};

// A callback that returned non-zero.
struct CallFailure {
    size_t change = 0;
    const clbk* row = nullptr;
    int result = 0;
    runtime::ErrorPtr error{nullptr, &runtime::free_error};  // the refusal the callback recorded, if any
    size_t first_send = 0;  // index in the runtime journal of the first send of that call
};

// Calls every row matching every active change: all rows of the highest
// priority first, within a priority in document order (reversed when the
// module asks for leaf-to-root). Stops at the first callback that does not
// return 0. `carried_out`, when given, marks the changes one of whose calls
// went past its wrapper (the wrapper converted the operation) and succeeded.
std::optional<CallFailure> dispatch(const CallbackTable& table, const ChangeSet& changes,
                                    std::vector<char>* carried_out = nullptr);

}  // namespace tavrik::engine
