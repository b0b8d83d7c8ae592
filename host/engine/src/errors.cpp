// rpc-errors: the names of types and tags, the module's codes, libyang's
// errors.
#include <cstdlib>
#include <string_view>

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

std::string_view name_of(ErrorTag tag) {
    static constexpr std::string_view kNames[] = {
        "in-use",          "invalid-value",   "too-big",          "missing-attribute",       "bad-attribute",
        "unknown-attribute", "missing-element", "bad-element",    "unknown-element",         "unknown-namespace",
        "access-denied",   "lock-denied",     "resource-denied",  "rollback-failed",         "data-exists",
        "data-missing",    "operation-not-supported", "operation-failed", "malformed-message",
    };
    static_assert(std::size(kNames) == static_cast<size_t>(ErrorTag::MalformedMessage) + 1);
    return kNames[static_cast<size_t>(tag)];
}

ErrorTag tag_of_module_code(int code) {
    switch (code) {
        case NC_ERR_MISSING_ELEM: return ErrorTag::MissingElement;
        case NC_ERR_BAD_ELEM: return ErrorTag::BadElement;
        case NC_ERR_UNKNOWN_ELEM: return ErrorTag::UnknownElement;
        default: return ErrorTag::OperationFailed;
    }
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
