// rpc-errors: the names of types and tags, the module's codes, libyang's
// errors; the words of default operations.
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <utility>

#include "support.hpp"
#include "transapi.h"

namespace tavrik::engine {

std::string_view name_of(ErrorType type) {
    switch (type) {
        case ErrorType::Transport: return "transport";
        case ErrorType::Rpc: return "rpc";
        case ErrorType::Protocol: return "protocol";
        case ErrorType::Application: break;
    }
    return "application";
}

namespace {

// Every tag in the order of ErrorTag (RFC 6241's order) with its name and,
// where the module refuses with it, the module's code.
struct TagRow {
    ErrorTag tag;
    std::string_view name;
    int module_code = -1;
};
constexpr TagRow kTags[] = {
    {ErrorTag::InUse, "in-use"},
    {ErrorTag::InvalidValue, "invalid-value"},
    {ErrorTag::TooBig, "too-big"},
    {ErrorTag::MissingAttribute, "missing-attribute"},
    {ErrorTag::BadAttribute, "bad-attribute"},
    {ErrorTag::UnknownAttribute, "unknown-attribute"},
    {ErrorTag::MissingElement, "missing-element", NC_ERR_MISSING_ELEM},
    {ErrorTag::BadElement, "bad-element", NC_ERR_BAD_ELEM},
    {ErrorTag::UnknownElement, "unknown-element", NC_ERR_UNKNOWN_ELEM},
    {ErrorTag::UnknownNamespace, "unknown-namespace"},
    {ErrorTag::AccessDenied, "access-denied"},
    {ErrorTag::LockDenied, "lock-denied"},
    {ErrorTag::ResourceDenied, "resource-denied"},
    {ErrorTag::RollbackFailed, "rollback-failed"},
    {ErrorTag::DataExists, "data-exists"},
    {ErrorTag::DataMissing, "data-missing"},
    {ErrorTag::OperationNotSupported, "operation-not-supported"},
    {ErrorTag::OperationFailed, "operation-failed", NC_ERR_OP_FAILED},
    {ErrorTag::MalformedMessage, "malformed-message"},
};
static_assert(std::size(kTags) == static_cast<size_t>(ErrorTag::MalformedMessage) + 1);
constexpr bool in_order() {
    for (size_t i = 0; i < std::size(kTags); ++i)
        if (kTags[i].tag != static_cast<ErrorTag>(i)) return false;
    return true;
}
static_assert(in_order());

constexpr std::pair<std::string_view, DefaultOperation> kDefaultOperations[] = {
    {"merge", DefaultOperation::Merge}, {"replace", DefaultOperation::Replace}, {"none", DefaultOperation::None}};

}  // namespace

std::string_view name_of(ErrorTag tag) { return kTags[static_cast<size_t>(tag)].name; }

int number_of(ErrorTag tag) { return static_cast<int>(tag) + 1; }

ErrorTag tag_of_module_code(int code) {
    for (const TagRow& row : kTags)
        if (row.module_code == code) return row.tag;
    return ErrorTag::OperationFailed;
}

std::optional<DefaultOperation> default_operation_named(std::string_view word) {
    for (const auto& [name, operation] : kDefaultOperations)
        if (name == word) return operation;
    return std::nullopt;
}

RpcError libyang_error(const ly_ctx* ctx, ErrorTag tag, ErrorType type) {
    RpcError error(type, tag, {});
    const ly_err_item* e = ly_err_last(ctx);
    error.message = e && e->msg ? e->msg : "The data model refused the data.";
    const std::string where = e && e->path ? e->path : "";
    // The data node's instance path; else (a node that is missing) its schema path.
    for (const std::string_view location : {"Data location \"", "Schema location \""}) {
        const auto at = where.find(location);
        if (at == std::string::npos) continue;
        const auto start = at + location.size();
        error.path = where.substr(start, where.find('"', start) - start);
        break;
    }
    constexpr std::string_view kLine = "line number ";
    if (auto at = where.find(kLine); at != std::string::npos) error.line = std::atoi(where.c_str() + at + kLine.size());
    return error;
}

std::string take_text(char* text) {
    std::string result = text ? text : "";
    std::free(text);
    return result;
}

std::string path_of(const lyd_node* node) { return take_text(lyd_path(node, LYD_PATH_STD, nullptr, 0)); }

std::string describe(const RpcError& error) {
    std::string text = error.message;
    if (!error.path.empty()) text += " (" + error.path + ")";
    if (error.line) text += " at line " + std::to_string(error.line);
    return text;
}

RpcError error_at(const lyd_node* node, ErrorTag tag, std::string message, ErrorType type) {
    return RpcError(type, tag, std::move(message), path_of(node), LYD_NAME(node));
}

}  // namespace tavrik::engine
