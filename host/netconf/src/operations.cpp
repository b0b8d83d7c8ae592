// The NETCONF operations of tkav-netconfd.
#include <libyang/libyang.h>
#include <nc_server.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "monitoring.hpp"
#include "service.hpp"
#include "tavrik/netconf/subtree_filter.hpp"
#include "tavrik/netconf/xpath_filter.hpp"

namespace tavrik::netconf::detail {
namespace {

Service* g_service = nullptr;

// ---- libyang helpers -------------------------------------------------------

struct TreeFree {
    void operator()(lyd_node* tree) const { lyd_free_siblings(tree); }
};
using Tree = std::unique_ptr<lyd_node, TreeFree>;

struct CharFree {
    void operator()(char* text) const { std::free(text); }
};
using CString = std::unique_ptr<char, CharFree>;

const lyd_node* find(const lyd_node* rpc, const char* path) {
    lyd_node* node = nullptr;
    return lyd_find_path(rpc, path, 0, &node) == LY_SUCCESS ? node : nullptr;
}

std::string_view value_of(const lyd_node* rpc, const char* path, std::string_view fallback = {}) {
    const lyd_node* node = find(rpc, path);
    const char* value = node ? lyd_get_value(node) : nullptr;
    return value ? std::string_view(value) : fallback;
}

// Identities are written "module:name"; the name is what matters here.
std::string_view identity_name(std::string_view value) {
    const auto colon = value.rfind(':');
    return colon == std::string_view::npos ? value : value.substr(colon + 1);
}

// Adds `more` (top-level siblings, consumed) to `tree`.
void append(Tree& tree, lyd_node* more) {
    if (!more) return;
    if (!tree) {
        tree.reset(more);
        return;
    }
    lyd_node* first = tree.release();
    lyd_insert_sibling(first, more, &first);
    tree.reset(first);
}

// ---- replies ---------------------------------------------------------------

using engine::ErrorTag;
using engine::ErrorType;

// libnetconf2 numbers the tags in RFC 6241's order, as the engine does.
static_assert(NC_ERR_IN_USE == 1 && NC_ERR_MALFORMED_MSG == static_cast<int>(ErrorTag::MalformedMessage) + 1);
NC_ERR nc_tag(ErrorTag tag) { return static_cast<NC_ERR>(engine::number_of(tag)); }

NC_ERR_TYPE nc_type(ErrorType type) {
    switch (type) {
        case ErrorType::Transport: return NC_ERR_TYPE_TRAN;
        case ErrorType::Rpc: return NC_ERR_TYPE_RPC;
        case ErrorType::Protocol: return NC_ERR_TYPE_PROT;
        case ErrorType::Application: break;
    }
    return NC_ERR_TYPE_APP;
}

// Text as XML character data.
std::string xml_escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

// An instance path as libyang prints it (a module name before the first node
// of each module, list keys in predicates) in the form XPath reads in XML,
// where a name without prefix has no namespace: every node and key name with
// the module name as its prefix. `modules` gets the modules used.
std::string qualified_path(std::string_view path, std::vector<std::string>& modules) {
    std::string out;
    std::string module;
    const auto name = [&](std::size_t& i) {  // a node or key name at path[i]
        std::size_t end = i;
        while (end < path.size() && std::string_view("/[]=").find(path[end]) == std::string_view::npos) ++end;
        std::string_view text = path.substr(i, end - i);
        if (const auto colon = text.find(':'); colon != std::string_view::npos) {
            module = text.substr(0, colon);
            text.remove_prefix(colon + 1);
        }
        if (!module.empty()) {
            if (std::find(modules.begin(), modules.end(), module) == modules.end()) modules.push_back(module);
            out += module + ':';
        }
        out += text;
        i = end;
    };
    for (std::size_t i = 0; i < path.size();) {
        const char c = path[i];
        if (c == '/') {
            out += c;
            name(++i);
        } else if (c == '[') {
            out += c;
            ++i;
            const bool key = i < path.size() && path[i] != '.' && !(path[i] >= '0' && path[i] <= '9');
            if (key) name(i);
            // The rest of the predicate verbatim; a quoted value may hold ']'.
            for (char quote = 0; i < path.size(); ++i) {
                out += path[i];
                if (quote) {
                    if (path[i] == quote) quote = 0;
                } else if (path[i] == '\'' || path[i] == '"') {
                    quote = path[i];
                } else if (path[i] == ']') {
                    ++i;
                    break;
                }
            }
        } else {
            out += c;
            ++i;
        }
    }
    return out;
}

// Replaces the error-path libnetconf2 made (a value without namespace
// declarations) with one that declares the prefixes of its path, as
// libyang's XML parser keeps them for an opaque node's value.
void set_error_path(const ly_ctx* ctx, lyd_node* err, const std::string& path) {
    nc_err_set_path(err, path.c_str());
    std::vector<std::string> modules;
    const std::string qualified = qualified_path(path, modules);
    std::string xml = "<error-path xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"";
    for (const std::string& module : modules)
        if (const lys_module* m = ly_ctx_get_module_implemented(ctx, module.c_str()))
            xml += " xmlns:" + module + "=\"" + m->ns + '"';
    xml += '>' + xml_escaped(qualified) + "</error-path>";
    lyd_node* declared = nullptr;
    if (lyd_parse_data_mem(const_cast<ly_ctx*>(ctx), xml.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0,
                           &declared) != LY_SUCCESS)
        return;  // libnetconf2's error-path stays
    for (lyd_node* child = lyd_child(err); child; child = child->next) {
        if (!child->schema && std::string_view(LYD_NAME(child)) == "error-path") {
            lyd_insert_before(child, declared);
            lyd_free_tree(child);
            return;
        }
    }
    lyd_free_tree(declared);
}

// One rpc-error as libnetconf2 builds it, with our message and path; the
// node's name as bad-element and the module's own path string as
// <module-path> of the daemon's namespace in error-info.
lyd_node* make_error(const ly_ctx* ctx, const RpcError& error, std::uint32_t session = 0) {
    const NC_ERR tag = nc_tag(error.tag);
    const NC_ERR_TYPE type = nc_type(error.type);
    const char* element = error.bad_element.c_str();
    lyd_node* err = nullptr;
    switch (tag) {
    case NC_ERR_MISSING_ATTR:
    case NC_ERR_BAD_ATTR:
    case NC_ERR_UNKNOWN_ATTR:
        err = nc_err(ctx, tag, type, "", element);
        break;
    case NC_ERR_MISSING_ELEM:
    case NC_ERR_BAD_ELEM:
    case NC_ERR_UNKNOWN_ELEM:
        err = nc_err(ctx, tag, type, element);
        break;
    case NC_ERR_UNKNOWN_NS:
        err = nc_err(ctx, tag, type, element, "");
        break;
    case NC_ERR_LOCK_DENIED:
        err = nc_err(ctx, tag, session);
        break;
    case NC_ERR_DATA_EXISTS:
    case NC_ERR_DATA_MISSING:
    case NC_ERR_MALFORMED_MSG:
        err = nc_err(ctx, tag);
        break;
    default:
        err = nc_err(ctx, tag, type);
        break;
    }
    if (!err) return nullptr;
    if (!error.message.empty()) nc_err_set_msg(err, error.message.c_str(), "en");
    if (!error.path.empty()) set_error_path(ctx, err, error.path);
    const bool names_element = (tag >= NC_ERR_MISSING_ATTR && tag <= NC_ERR_UNKNOWN_NS);
    if (!names_element && !error.bad_element.empty()) nc_err_add_bad_elem(err, element);
    if (!error.module_path.empty()) {
        const lys_module* daemon = ly_ctx_get_module_implemented(ctx, kDaemonModule);
        lyd_node* info = nullptr;
        if (daemon && lyd_new_opaq2(nullptr, ctx, "module-path", error.module_path.c_str(), nullptr, daemon->ns,
                                    &info) == LY_SUCCESS)
            nc_err_add_info_other(err, info);
    }
    // In the order of RFC 6241 (libnetconf2 appends in the order of its calls).
    for (const std::string_view name : {"error-type", "error-tag", "error-severity", "error-app-tag", "error-path",
                                        "error-message", "error-info"}) {
        for (lyd_node* child = lyd_child(err); child; child = child->next) {
            if (LYD_NAME(child) == name) {
                lyd_unlink_tree(child);
                lyd_insert_child(err, child);
                break;
            }
        }
    }
    return err;
}

nc_server_reply* error_reply(const RpcError& error, std::uint32_t session = 0) {
    return nc_server_reply_err(make_error(g_service->context, error, session));
}

nc_server_reply* failure(ErrorTag tag, std::string message, ErrorType type = ErrorType::Protocol) {
    return error_reply(RpcError(type, tag, std::move(message)));
}

NC_WD_MODE with_defaults(const lyd_node* rpc) {
    const std::string_view mode = value_of(rpc, "ietf-netconf-with-defaults:with-defaults");
    if (mode == "report-all") return NC_WD_ALL;
    if (mode == "report-all-tagged") return NC_WD_ALL_TAG;
    if (mode == "trim") return NC_WD_TRIM;
    return NC_WD_EXPLICIT;
}

// An rpc-reply with <data>: `data` goes into the output of `rpc`.
nc_server_reply* data_reply(const lyd_node* rpc, Tree data, NC_WD_MODE wd = NC_WD_EXPLICIT) {
    lyd_node* reply = nullptr;
    if (lyd_dup_single(rpc, nullptr, 0, &reply) != LY_SUCCESS) return nullptr;
    if (lyd_new_any(reply, nullptr, "data", data.get(), 1, LYD_ANYDATA_DATATREE, 1, nullptr) != LY_SUCCESS) {
        lyd_free_tree(reply);
        return nullptr;
    }
    data.release();
    return nc_server_reply_data(reply, wd, NC_PARAMTYPE_FREE);
}

// Who asks: the session, and what access control (NACM) lets its user do.
// Sessions other than SSH ones are local and bypass access control.
struct Caller {
    std::uint32_t session;
    std::string user;
    bool local;
    NacmPolicy policy;
};

// Runs an operation for the caller that access control lets run it (the
// one place where every operation is checked); an operation that takes a
// Caller makes the read and write checks with its policy. A C++ exception
// becomes an operation-failed rpc-error rather than crossing libnetconf2.
template <typename Operation>
nc_server_reply* guarded(lyd_node* rpc, nc_session* session, Operation operation) {
    try {
        Nacm& nacm = g_service->nacm;
        const std::string user = nc_session_get_username(session) ? nc_session_get_username(session) : "";
        const bool local = nc_session_get_ti(session) != NC_TI_LIBSSH;
        if (!nacm.bypasses(user, local)) nacm.refresh(g_service->datastore, g_service->context);
        const Caller caller{nc_session_get_id(session), user, local, nacm.policy(user, local)};
        if (auto denied = nacm.check_exec(caller.policy, rpc)) return error_reply(*denied);
        if constexpr (std::is_invocable_v<Operation, lyd_node*, const Caller&>)
            return operation(rpc, caller);
        else
            return operation(rpc, caller.session);
    } catch (const std::exception& e) {
        return failure(ErrorTag::OperationFailed, std::string("internal error: ") + e.what(), ErrorType::Application);
    }
}

// ---- inputs ----------------------------------------------------------------

// The error for a missing parameter of `rpc`.
nc_server_reply* missing(const lyd_node* rpc, const char* parameter) {
    const std::string path =
        "/" + std::string(rpc->schema->module->name) + ":" + LYD_NAME(rpc) + "/" + parameter;
    return error_reply(
        RpcError(ErrorType::Protocol, ErrorTag::MissingElement, std::string("<") + parameter + "> is missing", path, parameter));
}

// The content of an anyxml parameter as text.
std::string any_text(const lyd_node* any) {
    char* text = nullptr;
    if (lyd_any_value_str(any, &text) != LY_SUCCESS) throw std::runtime_error("cannot read the XML content");
    CString owned(text);
    return text ? std::string(text) : std::string();
}

// The content of an anyxml parameter as a tree (opaque nodes where the
// model does not know the elements). `owned` keeps a parsed copy alive.
const lyd_node* any_tree(const lyd_node* any, Tree& owned) {
    const auto* node = reinterpret_cast<const lyd_node_any*>(any);
    if (node->value_type == LYD_ANYDATA_DATATREE) return node->value.tree;
    const std::string text = any_text(any);
    lyd_node* tree = nullptr;
    if (!text.empty() &&
        lyd_parse_data_mem(g_service->context, text.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree) !=
            LY_SUCCESS)
        throw std::runtime_error("cannot parse the filter");
    owned.reset(tree);
    return tree;
}

// The <filter> parameter of <get> and <get-config>: subtree or XPath.
class Filter {
public:
    // Reads the filter of `rpc`; returns an error reply when it cannot be
    // served, else null.
    nc_server_reply* read(const lyd_node* rpc) {
        const lyd_node* filter = find(rpc, "filter");
        if (!filter) return nullptr;
        const lyd_meta* type = lyd_find_meta(filter->meta, nullptr, "ietf-netconf:type");
        if (type && std::string_view(lyd_get_meta_value(type)) == "xpath") {
            const lyd_meta* select = lyd_find_meta(filter->meta, nullptr, "ietf-netconf:select");
            if (!select)
                return nc_server_reply_err(nc_err(g_service->context, NC_ERR_MISSING_ATTR, NC_ERR_TYPE_PROT, "select", "filter"));
            kind_ = Kind::XPath;
            select_ = lyd_get_meta_value(select);
            return nullptr;
        }
        kind_ = Kind::Subtree;
        tree_ = any_tree(filter, owned_);
        return nullptr;
    }
    // Whether data of the module with namespace `ns` can be selected.
    bool reaches(std::string_view ns) const {
        switch (kind_) {
        case Kind::Subtree:
            return filter_reaches(tree_, ns);
        case Kind::XPath:
            return xpath_reaches(g_service->context, select_, ns);
        default:
            return true;
        }
    }
    // Whether the filter selects (a part of) a notification, for as long as
    // a subscription lasts: a subtree filter is copied. Empty: no filter.
    // Throws XPathError for an expression libyang cannot evaluate.
    std::function<bool(const lyd_node*)> selector(const lyd_node* probe) const {
        std::function<bool(const lyd_node*)> selects;
        if (kind_ == Kind::Subtree) {
            lyd_node* copy = nullptr;
            if (tree_ && lyd_dup_siblings(tree_, nullptr, LYD_DUP_RECURSIVE, &copy) != LY_SUCCESS)
                throw std::runtime_error("cannot copy the filter");
            std::shared_ptr<lyd_node> filter(copy, lyd_free_siblings);
            selects = [filter](const lyd_node* n) { return Tree(apply_subtree_filter(n, filter.get())) != nullptr; };
        } else if (kind_ == Kind::XPath) {
            selects = [select = select_](const lyd_node* n) { return Tree(apply_xpath_filter(n, select)) != nullptr; };
        }
        if (selects) selects(probe);  // an expression that cannot be evaluated fails here, not later
        return selects;
    }
    // The rpc-reply with what the filter selects of what `caller` may read
    // of `data`.
    nc_server_reply* reply(const lyd_node* rpc, Tree data, const Caller& caller) const {
        lyd_node* readable = data.release();
        caller.policy.prune(readable);
        data.reset(readable);
        try {
            return data_reply(rpc, apply(std::move(data)), with_defaults(rpc));
        } catch (const XPathError& e) {
            return failure(ErrorTag::InvalidValue, e.what());
        }
    }

private:
    enum class Kind { None, Subtree, XPath };
    Tree apply(Tree data) const {
        switch (kind_) {
        case Kind::Subtree:
            return Tree(apply_subtree_filter(data.get(), tree_));
        case Kind::XPath:
            return Tree(apply_xpath_filter(data.get(), select_));
        default:
            return data;
        }
    }

    Kind kind_ = Kind::None;
    const lyd_node* tree_ = nullptr;
    Tree owned_;
    std::string select_;  // libyang's form: module names as prefixes
};

// The content of an anyxml <config> as a tree: as libyang parsed it with
// the request, or (a textual value) read now into `owned`.
const lyd_node* config_tree(const lyd_node* any, engine::ParsedXml& owned) {
    const auto* node = reinterpret_cast<const lyd_node_any*>(any);
    if (node->value_type == LYD_ANYDATA_DATATREE) return node->value.tree;
    owned = g_service->datastore.parse(any_text(any));
    return owned.tree.get();
}

nc_server_reply* urls_not_served() {
    return failure(ErrorTag::OperationNotSupported,
                   "tkav-netconfd serves the running, candidate and startup configurations, not URLs");
}

constexpr std::pair<std::string_view, DatastoreId> kDatastoreNames[] = {
    {"running", DatastoreId::Running}, {"candidate", DatastoreId::Candidate}, {"startup", DatastoreId::Startup}};

// The <target> or <source> of a request: a datastore, or (a source) inline
// <config>. The model of each operation admits only the datastores it can
// name.
struct Named {
    std::optional<DatastoreId> datastore;  // none: inline <config>
    const lyd_node* config = nullptr;      // the content of inline <config>
    engine::ParsedXml owned;

    // Reads `parameter` of `rpc`; an error reply when it is missing or names
    // what the daemon does not serve, else null.
    nc_server_reply* read(const lyd_node* rpc, const char* parameter) {
        const lyd_node* container = find(rpc, parameter);
        if (!container) return missing(rpc, parameter);
        for (const lyd_node* child = lyd_child(container); child; child = child->next) {
            const std::string_view name = LYD_NAME(child);
            for (const auto& [datastore_name, id] : kDatastoreNames) {
                if (name != datastore_name) continue;
                datastore = id;
                return nullptr;
            }
            if (name == "config") {
                config = config_tree(child, owned);
                return owned.error ? error_reply(*owned.error) : nullptr;
            }
        }
        return urls_not_served();
    }
    ConfigSource source() const { return ConfigSource{datastore, config}; }
};

// ---- operations ------------------------------------------------------------

nc_server_reply* op_get_config(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, const Caller& caller) -> nc_server_reply* {
        Named source;
        if (nc_server_reply* error = source.read(rpc, "source")) return error;
        Filter filter;
        if (nc_server_reply* error = filter.read(rpc)) return error;
        ReadRequest request;
        request.source = *source.datastore;
        return filter.reply(rpc, Tree(g_service->datastore.read(g_service->context, request).running), caller);
    });
}

// `bytes` as XML text: every byte that is not part of a well-formed UTF-8
// character, and every control character XML does not allow, becomes
// U+FFFD. The appliance's lines are bytes (the module cuts a line at its
// buffer's size, possibly inside a character), the reply must be text.
std::string xml_text(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size();) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        std::size_t n = b < 0x80 ? 1 : (b >> 5) == 0x6 ? 2 : (b >> 4) == 0xe ? 3 : (b >> 3) == 0x1e ? 4 : 0;
        std::uint32_t cp = n == 1 ? b : n == 2 ? b & 0x1f : n == 3 ? b & 0x0f : b & 0x07;
        for (std::size_t k = 1; k < n; ++k) {
            const auto c = i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0;
            if ((c & 0xc0) != 0x80) n = 0;
            else cp = cp << 6 | (c & 0x3f);
        }
        static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        const bool valid = n > 0 && cp >= kMin[n] && cp <= 0x10ffff && !(cp >= 0xd800 && cp <= 0xdfff) &&
                           (cp >= 0x20 || cp == '\t' || cp == '\n' || cp == '\r') && cp != 0xfffe && cp != 0xffff;
        if (valid) {
            out.append(bytes.substr(i, n));
            i += n;
        } else {
            out += "\xef\xbf\xbd";
            ++i;
        }
    }
    return out;
}

// The appliance, in the daemon's own model.
Tree platform_data(const PlatformReading& platform) {
    ly_ctx* ctx = g_service->context;
    const lys_module* module = ly_ctx_get_module_implemented(ctx, kDaemonModule);
    lyd_node* top = nullptr;
    if (lyd_new_inner(nullptr, module, "appliance", 0, &top) != LY_SUCCESS) throw std::bad_alloc();
    Tree tree(top);
    const auto leaf = [&](lyd_node* parent, const char* name, const std::string& value) {
        if (lyd_new_term(parent, module, name, xml_text(value).c_str(), 0, nullptr) != LY_SUCCESS)
            throw std::runtime_error(std::string("cannot report ") + name);
    };
    static constexpr const char* kOps[] = {"add", "delete", "modify"};
    if (platform.configuration) leaf(top, "running-configuration", *platform.configuration);
    leaf(top, "lines-received", std::to_string(platform.received));
    leaf(top, "lines-refused", std::to_string(platform.refused));
    for (const ReceivedLine& line : platform.recent) {
        lyd_node* entry = nullptr;
        if (lyd_new_list(top, module, "received-line", 0, &entry, std::to_string(line.sequence).c_str()) != LY_SUCCESS)
            throw std::runtime_error("cannot report a received line");
        leaf(entry, "vsys", line.vsys);
        leaf(entry, "view", line.view);
        if (line.view_template) leaf(entry, "view-template", *line.view_template);
        if (line.cmd_op < 3) leaf(entry, "command-op", kOps[line.cmd_op]);
        leaf(entry, "line", line.line);
        leaf(entry, "result", std::to_string(line.result));
    }
    return tree;
}

nc_server_reply* op_get(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, const Caller& caller) -> nc_server_reply* {
        ly_ctx* ctx = g_service->context;
        Filter filter;
        if (nc_server_reply* error = filter.read(rpc)) return error;
        const auto reaches = [&](const char* module) {
            const lys_module* m = ly_ctx_get_module_implemented(ctx, module);
            return m && filter.reaches(m->ns);
        };
        const bool state = reaches(g_service->datastore.model_name().c_str());
        Reading reading = g_service->datastore.read(ctx, ReadRequest{state, reaches(kDaemonModule)});
        Tree data(reading.running);
        if (state) {
            if (!reading.state)
                return failure(ErrorTag::OperationFailed, "the state data could not be read from the platform",
                               ErrorType::Application);
            lyd_node* tree = nullptr;
            if (!reading.state->empty() &&
                lyd_parse_data_mem(ctx, reading.state->c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree) !=
                    LY_SUCCESS)
                return failure(ErrorTag::OperationFailed,
                               std::string("the platform's state data does not fit the data model: ") +
                                   (ly_errmsg(ctx) ? ly_errmsg(ctx) : "unknown error"),
                               ErrorType::Application);
            append(data, tree);
        }
        if (reaches(kDaemonModule)) append(data, platform_data(reading.platform).release());
        if (reaches("ietf-yang-library")) append(data, library_data(*g_service));
        if (reaches("ietf-netconf-monitoring")) append(data, monitoring_data(*g_service));
        if (reaches(kNacmModule)) {
            lyd_node* tree = data.release();
            g_service->nacm.report_counters(ctx, tree);
            data.reset(tree);
        }
        if (reaches("nc-notifications")) append(data, streams_data(*g_service));
        return filter.reply(rpc, std::move(data), caller);
    });
}

engine::DefaultOperation default_operation(const lyd_node* rpc) {
    return engine::default_operation_named(value_of(rpc, "default-operation", "merge"))
        .value_or(engine::DefaultOperation::Merge);
}

TestOption test_option(const lyd_node* rpc) {
    const std::string_view option = value_of(rpc, "test-option", "test-then-set");
    if (option == "test-only") return TestOption::TestOnly;
    if (option == "set") return TestOption::Set;
    return TestOption::TestThenSet;
}

nc_server_reply* edit_reply(const std::optional<RpcError>& error) {
    return error ? error_reply(*error) : nc_server_reply_ok();
}

nc_server_reply* op_edit_config(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, const Caller& caller) -> nc_server_reply* {
        Named target;
        if (nc_server_reply* error = target.read(rpc, "target")) return error;
        if (find(rpc, "url")) return urls_not_served();
        const lyd_node* config = find(rpc, "config");
        if (!config) return missing(rpc, "config");
        engine::ParsedXml owned;
        const lyd_node* tree = config_tree(config, owned);
        if (owned.error) return error_reply(*owned.error);
        return edit_reply(g_service->datastore.edit(
            caller.session, EditRequest{tree, default_operation(rpc), test_option(rpc), *target.datastore,
                                        g_service->nacm.write_check(caller.policy)}));
    });
}

nc_server_reply* op_copy_config(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, const Caller& caller) -> nc_server_reply* {
        Named target, source;
        if (nc_server_reply* error = target.read(rpc, "target")) return error;
        if (nc_server_reply* error = source.read(rpc, "source")) return error;
        return edit_reply(g_service->datastore.copy(caller.session, *target.datastore, source.source(),
                                                    g_service->nacm.write_check(caller.policy)));
    });
}

nc_server_reply* op_delete_config(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t sid) -> nc_server_reply* {
        Named target;  // the startup configuration: the only one the model admits
        if (nc_server_reply* error = target.read(rpc, "target")) return error;
        return edit_reply(g_service->datastore.delete_startup(sid));
    });
}

nc_server_reply* op_validate(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t) -> nc_server_reply* {
        Named source;
        if (nc_server_reply* error = source.read(rpc, "source")) return error;
        return edit_reply(g_service->datastore.validate(source.source()));
    });
}

nc_server_reply* op_lock(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t sid) -> nc_server_reply* {
        Named target;
        if (nc_server_reply* error = target.read(rpc, "target")) return error;
        const auto refusal = g_service->datastore.lock(sid, *target.datastore);
        if (!refusal) return nc_server_reply_ok();
        return error_reply(RpcError(ErrorType::Protocol, ErrorTag::LockDenied, refusal->message), refusal->session);
    });
}

nc_server_reply* op_unlock(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t sid) -> nc_server_reply* {
        Named target;
        if (nc_server_reply* error = target.read(rpc, "target")) return error;
        if (g_service->datastore.unlock(sid, *target.datastore)) return nc_server_reply_ok();
        return failure(ErrorTag::OperationFailed,
                       "this session does not hold the lock of the " + std::string(name_of(*target.datastore)) +
                           " configuration");
    });
}

std::optional<std::string> optional_value(const lyd_node* rpc, const char* path) {
    if (!find(rpc, path)) return std::nullopt;
    return std::string(value_of(rpc, path));
}

nc_server_reply* op_commit(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t sid) -> nc_server_reply* {
        CommitRequest request;
        request.confirmed = find(rpc, "confirmed") != nullptr;
        // uint32, 1..max, default 600: the model has checked it.
        const std::string timeout(value_of(rpc, "confirm-timeout", "600"));
        request.timeout = std::chrono::seconds(std::strtoul(timeout.c_str(), nullptr, 10));
        request.persist = optional_value(rpc, "persist");
        request.persist_id = optional_value(rpc, "persist-id");
        return edit_reply(g_service->datastore.commit(sid, request));
    });
}

nc_server_reply* op_cancel_commit(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t sid) -> nc_server_reply* {
        return edit_reply(g_service->datastore.cancel_commit(sid, optional_value(rpc, "persist-id")));
    });
}

nc_server_reply* op_discard_changes(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node*, std::uint32_t sid) -> nc_server_reply* {
        return edit_reply(g_service->datastore.discard_changes(sid));
    });
}

nc_server_reply* op_kill_session(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t sid) -> nc_server_reply* {
        if (!find(rpc, "session-id")) return missing(rpc, "session-id");
        const std::string id_text(value_of(rpc, "session-id"));
        const auto id = static_cast<std::uint32_t>(std::strtoul(id_text.c_str(), nullptr, 10));
        if (id == sid) return failure(ErrorTag::InvalidValue, "a session cannot kill itself; use <close-session>");
        if (!g_service->sessions.kill(id, sid)) return failure(ErrorTag::InvalidValue, "there is no session " + id_text);
        g_service->datastore.session_ended(id);
        if (g_service->wake) g_service->wake();
        return nc_server_reply_ok();
    });
}

// A yang:date-and-time parameter of `rpc`; nullopt when absent.
std::optional<std::chrono::system_clock::time_point> time_of(const lyd_node* rpc, const char* path) {
    const lyd_node* node = find(rpc, path);
    timespec ts{};
    if (!node || ly_time_str2ts(lyd_get_value(node), &ts) != LY_SUCCESS) return std::nullopt;
    using Clock = std::chrono::system_clock;
    // Beyond what the clock can count (the year 2262): as late as it can.
    if (ts.tv_sec >= std::chrono::duration_cast<std::chrono::seconds>(Clock::duration::max()).count())
        return Clock::time_point::max();
    return std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(
        std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec)));
}

// <create-subscription> (RFC 5277) on the NETCONF stream.
nc_server_reply* op_create_subscription(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [session](lyd_node* rpc, const Caller& caller) -> nc_server_reply* {
        const std::string_view stream = value_of(rpc, "stream", "NETCONF");
        if (stream != "NETCONF")
            return error_reply(RpcError(ErrorType::Application, ErrorTag::InvalidValue,
                                        "tkav-netconfd has one event stream, NETCONF, not " + std::string(stream),
                                        "/notifications:create-subscription/stream", "stream"));
        Filter filter;
        if (nc_server_reply* error = filter.read(rpc)) return error;
        SubscriptionRequest request;
        try {
            request.selects = filter.selector(rpc);
        } catch (const XPathError& e) {
            return failure(ErrorTag::InvalidValue, std::string("the filter cannot be evaluated: ") + e.what());
        }
        request.may_receive = [user = caller.user, local = caller.local](const lyd_node* event) {
            return g_service->nacm.may_receive(g_service->datastore, user, local, event);
        };
        request.session = session;
        request.session_id = caller.session;
        request.start = time_of(rpc, "startTime");
        request.stop = time_of(rpc, "stopTime");
        if (const auto error = g_service->notifications.subscribe(std::move(request))) return error_reply(*error);
        return nc_server_reply_ok();
    });
}

// <get-schema>: the module or submodule text, as YANG or YIN.
nc_server_reply* op_get_schema(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t) -> nc_server_reply* {
        ly_ctx* ctx = g_service->context;
        if (!find(rpc, "identifier")) return missing(rpc, "identifier");
        const std::string identifier(value_of(rpc, "identifier"));
        const std::string version(value_of(rpc, "version"));
        const std::string_view format = identity_name(value_of(rpc, "format", "yang"));
        if (format != "yang" && format != "yin")
            return failure(ErrorTag::InvalidValue, "the schema format must be yang or yin", ErrorType::Application);
        const LYS_OUTFORMAT out_format = format == "yin" ? LYS_OUT_YIN : LYS_OUT_YANG;

        const lys_module* module = nullptr;
        const lysp_submodule* submodule = nullptr;
        int found = 0;
        uint32_t index = 0;
        while (const lys_module* m = ly_ctx_get_module_iter(ctx, &index)) {
            if (identifier == m->name && (version.empty() || version == (m->revision ? m->revision : ""))) {
                module = m;
                ++found;
            }
        }
        if (!module) {
            submodule = ly_ctx_get_submodule(ctx, identifier.c_str(), version.empty() ? nullptr : version.c_str());
            found = submodule ? 1 : 0;
        }
        if (found > 1) {
            RpcError error(ErrorType::Application, ErrorTag::OperationFailed,
                           "more than one version of " + identifier + " is served; name the version");
            lyd_node* err = make_error(ctx, error);
            nc_err_set_app_tag(err, "data-not-unique");
            return nc_server_reply_err(err);
        }
        if (!found)
            return failure(ErrorTag::InvalidValue, "no schema " + identifier + (version.empty() ? "" : "@" + version),
                           ErrorType::Application);

        char* text = nullptr;
        if (module) {
            if (lys_print_mem(&text, module, out_format, 0) != LY_SUCCESS) text = nullptr;
        } else {
            ly_out* out = nullptr;
            if (ly_out_new_memory(&text, 0, &out) == LY_SUCCESS) {
                if (lys_print_submodule(out, submodule, out_format, 0, 0) != LY_SUCCESS) {
                    std::free(text);
                    text = nullptr;
                }
                ly_out_free(out, nullptr, 0);
            }
        }
        CString owned(text);
        if (!text) return failure(ErrorTag::OperationFailed, "cannot print schema " + identifier, ErrorType::Application);

        lyd_node* reply = nullptr;
        if (lyd_dup_single(rpc, nullptr, 0, &reply) != LY_SUCCESS) return nullptr;
        if (lyd_new_any(reply, nullptr, "data", text, 0, LYD_ANYDATA_STRING, 1, nullptr) != LY_SUCCESS) {
            lyd_free_tree(reply);
            return nullptr;
        }
        return nc_server_reply_data(reply, NC_WD_EXPLICIT, NC_PARAMTYPE_FREE);
    });
}

nc_server_reply* op_not_supported(lyd_node* rpc, nc_session* session) {
    return guarded(rpc, session, [](lyd_node* rpc, std::uint32_t) -> nc_server_reply* {
        return failure(ErrorTag::OperationNotSupported, "tkav-netconfd does not implement <" + std::string(LYD_NAME(rpc)) + ">");
    });
}

struct Handler {
    const char* path;
    nc_rpc_clb callback;
};

constexpr Handler kHandlers[] = {
    {"/ietf-netconf:get-config", op_get_config},
    {"/ietf-netconf:get", op_get},
    {"/ietf-netconf:edit-config", op_edit_config},
    {"/ietf-netconf:copy-config", op_copy_config},
    {"/ietf-netconf:delete-config", op_delete_config},
    {"/ietf-netconf:validate", op_validate},
    {"/ietf-netconf:commit", op_commit},
    {"/ietf-netconf:cancel-commit", op_cancel_commit},
    {"/ietf-netconf:discard-changes", op_discard_changes},
    {"/ietf-netconf:lock", op_lock},
    {"/ietf-netconf:unlock", op_unlock},
    {"/ietf-netconf:kill-session", op_kill_session},
    {"/ietf-netconf-monitoring:get-schema", op_get_schema},
    {"/notifications:create-subscription", op_create_subscription},
};

}  // namespace

void install_operations(Service& service) {
    g_service = &service;
    for (const auto& handler : kHandlers) {
        const lysc_node* node = lys_find_path(service.context, nullptr, handler.path, 0);
        if (!node) throw std::runtime_error(std::string("the schema context lacks ") + handler.path);
        nc_set_rpc_callback(const_cast<lysc_node*>(node), reinterpret_cast<void*>(handler.callback));
    }
}

void refuse_unserved_operations(Service& service) {
    const lys_module* module = ly_ctx_get_module_implemented(service.context, "ietf-netconf");
    for (lysc_node* rpc = &module->compiled->rpcs->node; rpc; rpc = rpc->next)
        if (!rpc->priv) nc_set_rpc_callback(rpc, reinterpret_cast<void*>(op_not_supported));
}

}  // namespace tavrik::netconf::detail
