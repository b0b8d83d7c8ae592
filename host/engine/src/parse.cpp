#include "parse.hpp"

#include <cctype>

namespace tavrik::engine {
namespace {

constexpr std::string_view kNetconfNs = "urn:ietf:params:xml:ns:netconf:base:1.0";

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// The start of the root element, after white space, comments and
// processing instructions; the XML declaration is blanked out (it cannot
// stand inside the envelope; its newlines stay).
size_t root_of(std::string& text) {
    size_t at = 0;
    while (true) {
        while (at < text.size() && is_space(text[at])) ++at;
        const std::string_view rest = std::string_view(text).substr(at);
        const bool instruction = rest.starts_with("<?");
        if (!instruction && !rest.starts_with("<!--")) return at;
        const size_t end = text.find(instruction ? "?>" : "-->", at);
        if (end == std::string::npos) return at;  // libyang names the fault
        const size_t after = end + (instruction ? 2 : 3);
        if (instruction && rest.starts_with("<?xml") && (rest.size() < 6 || is_space(rest[5])))
            for (size_t i = at; i < after; ++i)
                if (text[i] != '\n') text[i] = ' ';
        at = after;
    }
}

// The local name of the element starting at `at`.
std::string_view local_name(std::string_view text, size_t at) {
    if (at >= text.size() || text[at] != '<') return {};
    size_t end = at + 1;
    while (end < text.size() && !is_space(text[end]) && text[end] != '>' && text[end] != '/') ++end;
    std::string_view name = text.substr(at + 1, end - at - 1);
    if (auto colon = name.find(':'); colon != std::string_view::npos) name.remove_prefix(colon + 1);
    return name;
}

RpcError parse_error(const ly_ctx* ctx) {
    const ly_err_item* e = ly_err_last(ctx);
    const LY_VECODE code = e ? e->vecode : LYVE_OTHER;
    RpcError error;
    if (code == LYVE_SYNTAX || code == LYVE_SYNTAX_XML) {
        error = libyang_error(ctx, ErrorTag::MalformedMessage, ErrorType::Rpc);
        error.message = "Malformed XML: " + error.message;
    } else if (code == LYVE_REFERENCE) {
        error = libyang_error(ctx, ErrorTag::UnknownAttribute, ErrorType::Protocol);
    } else if (code == LYVE_DATA) {
        error = libyang_error(ctx, ErrorTag::BadAttribute, ErrorType::Protocol);
    } else {
        error = libyang_error(ctx, ErrorTag::InvalidValue);
    }
    // The envelope is not the text's: "/ietf-netconf:edit-config/x:y" is "/x:y".
    if (error.path.starts_with("/ietf-netconf:")) {
        const size_t next = error.path.find('/', 1);
        error.path = next == std::string::npos ? std::string() : error.path.substr(next);
    }
    return error;
}

struct Owned {
    lyd_node* node = nullptr;
    ~Owned() { lyd_free_all(node); }
};

}  // namespace

ParsedXml parse_xml(const Model& model, std::string_view xml) {
    std::string text(xml);
    const size_t root = root_of(text);
    if (root == text.size()) return {};
    const std::string_view name = local_name(text, root);
    const bool reply = name == "data";
    const std::string ns = "xmlns=\"" + std::string(kNetconfNs) + "\" message-id=\"1\">";
    std::string message;
    if (reply) {
        message = "<rpc-reply " + ns + text + "</rpc-reply>";
    } else {
        const bool wrapped = name == "config";
        message = "<rpc " + ns + "<edit-config>" + (wrapped ? "" : "<config>") + text +
                  (wrapped ? "" : "</config>") + "</edit-config></rpc>";
    }

    ly_ctx* ctx = model.context();
    QuietLibyang quiet;
    Owned request, envelope, op;
    if (reply && lyd_new_inner(nullptr, model.netconf(), "get-config", 0, &request.node) != LY_SUCCESS)
        return {nullptr, libyang_error(ctx, ErrorTag::OperationFailed)};
    ly_in* in = nullptr;
    if (ly_in_new_memory(message.c_str(), &in) != LY_SUCCESS) return {nullptr, libyang_error(ctx, ErrorTag::OperationFailed)};
    const LY_ERR err = lyd_parse_op(ctx, request.node, in, LYD_XML, reply ? LYD_TYPE_REPLY_NETCONF : LYD_TYPE_RPC_NETCONF,
                                    &envelope.node, reply ? nullptr : &op.node);
    ly_in_free(in, 0);
    if (err != LY_SUCCESS) return {nullptr, parse_error(ctx)};

    const lyd_node* parent = reply ? request.node : op.node;
    for (lyd_node* child = lyd_child(parent); child; child = child->next) {
        if (!child->schema || !(child->schema->nodetype & LYD_NODE_ANY)) continue;
        auto* any = reinterpret_cast<lyd_node_any*>(child);
        if (any->value_type == LYD_ANYDATA_DATATREE) {
            DataTree tree(any->value.tree);
            any->value.tree = nullptr;
            return {std::move(tree), std::nullopt};
        }
        const char* value = any->value.str;
        if (value && value[0] && std::string_view(value).find_first_not_of(" \t\r\n") != std::string_view::npos)
            return {nullptr, RpcError(ErrorType::Application, ErrorTag::BadElement,
                                      "Unexpected text in element \"" + std::string(LYD_NAME(child)) + "\".")};
        return {};
    }
    return {};
}

}  // namespace tavrik::engine
