#include "dispatch.hpp"

#include <algorithm>
#include <string_view>

#include "tavrik/engine.hpp"

namespace tavrik::engine {
namespace {

// Resolves a callback path ("/prefix:name/prefix:name...") to its schema node.
const lysc_node* resolve(const ly_ctx* ctx, const Module& module, std::string_view path) {
    const lysc_node* node = nullptr;
    const lys_module* model = nullptr;
    while (!path.empty()) {
        path.remove_prefix(path.front() == '/' ? 1 : 0);
        const std::string_view step = path.substr(0, path.find('/'));
        path.remove_prefix(step.size());
        std::string_view name = step;
        if (auto colon = step.find(':'); colon != std::string_view::npos) {
            const std::string_view prefix = step.substr(0, colon);
            name = step.substr(colon + 1);
            model = nullptr;
            for (const auto& [known, href] : module.namespaces())
                if (known == prefix) model = ly_ctx_get_module_implemented_ns(ctx, href.c_str());
        }
        if (!model) return nullptr;
        node = lys_find_child(node, model, name.data(), name.size(), 0, 0);
        if (!node) return nullptr;
    }
    return node;
}

class ChangeContext final : public runtime::EditContext {
public:
    ChangeContext(const ChangeSet& changes, size_t index) : changes_(changes), index_(index) {}
    int parentOp(int level) const override { return changes_.parent_op(index_, level); }

private:
    const ChangeSet& changes_;
    size_t index_;
};

}  // namespace

CallbackTable::CallbackTable(const Module& module, const ly_ctx* ctx) : root_to_leaf_(module.root_to_leaf()) {
    size_t row = 0;
    for (const clbk& entry : module.rows()) {
        const std::string path = entry.path ? entry.path : "";
        const lysc_node* schema = resolve(ctx, module, path);
        if (!schema)
            throw EngineError("callback table row " + std::to_string(row) + ": \"" + path +
                              "\" names no node of the data model");
        ++row;
        if (entry.priority <= CLBCKS_PRIORITY_FUNC_DISABLE || !entry.func) continue;
        rows_[schema].push_back(&entry);
        if (std::find(priorities_.begin(), priorities_.end(), entry.priority) == priorities_.end())
            priorities_.push_back(entry.priority);
    }
    std::sort(priorities_.begin(), priorities_.end(), std::greater<>());
}

const CallbackTable::Rows* CallbackTable::rows_for(const lysc_node* schema) const {
    auto found = rows_.find(schema);
    return found == rows_.end() ? nullptr : &found->second;
}

std::optional<CallFailure> dispatch(const CallbackTable& table, const ChangeSet& changes,
                                    const runtime::CallRecord& record, std::vector<Call>* calls) {
    const auto& list = changes.changes();
    std::vector<const CallbackTable::Rows*> rows(list.size());
    for (size_t i = 0; i < list.size(); ++i) rows[i] = list[i].active ? table.rows_for(list[i].schema) : nullptr;

    for (int priority : table.priorities()) {
        for (size_t n = 0; n < list.size(); ++n) {
            const size_t i = table.root_to_leaf() ? n : list.size() - 1 - n;
            if (!rows[i]) continue;
            const Change& change = list[i];
            for (const clbk* row : *rows[i]) {
                if (row->priority != priority) continue;
                ChangeContext context(changes, i);
                void* handle = &context;
                nc_err* error = nullptr;
                const int transforms = record.transforms;
                const size_t first = record.messages.size();
                const int result = row->func(&handle, static_cast<XMLDIFF_OP>(change.op), change.element(), &error);
                runtime::ErrorPtr owned = runtime::take_error(error);
                if (result != 0) return CallFailure{i, row, result, std::move(owned), first};
                if (calls) calls->push_back({i, first, record.messages.size(), record.transforms != transforms});
            }
        }
    }
    return std::nullopt;
}

}  // namespace tavrik::engine
