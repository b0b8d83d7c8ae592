// Calling the module's callback-table rows for the changes of an edit.
#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "changes.hpp"
#include "tavrik/module.hpp"
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

// One callback call: its change, the messages it sent (indices into the
// call record) and whether its wrapper let the change through (called
// transapi_transform_op).
struct Call {
    size_t change = 0;
    size_t first_message = 0, end_message = 0;
    bool transformed = false;
};

// A callback that returned non-zero.
struct CallFailure {
    size_t change = 0;
    const clbk* row = nullptr;
    int result = 0;
    runtime::ErrorPtr error{nullptr, &runtime::free_error};  // the refusal the callback recorded, if any
    size_t first_message = 0;  // in the call record, the first message of that call
};

// Calls every row matching every active change: all rows of the highest
// priority first, within a priority in document order (reversed when the
// module asks for leaf-to-root). Stops at the first callback that does not
// return 0. What the callbacks send is appended to `record`, which the
// caller has installed in the runtime; every successful call is listed in
// `calls`, when given.
std::optional<CallFailure> dispatch(const CallbackTable& table, const ChangeSet& changes,
                                    const runtime::CallRecord& record, std::vector<Call>* calls = nullptr);

}  // namespace tavrik::engine
