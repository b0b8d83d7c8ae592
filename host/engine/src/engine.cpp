// The engine: the module, its data model and the running configuration, and
// the all-or-nothing edit.
#include "tavrik/engine.hpp"

#include <filesystem>

#include "changes.hpp"
#include "dispatch.hpp"
#include "edit_config.hpp"
#include "module.hpp"
#include "tavrik/runtime.hpp"
#include "tavrik/vsys_feature.hpp"

namespace tavrik::engine {

void DataTreeFree::operator()(lyd_node* tree) const { lyd_free_all(tree); }

namespace {

struct ContextFree {
    void operator()(ly_ctx* ctx) const { ly_ctx_destroy(ctx); }
};
using Context = std::unique_ptr<ly_ctx, ContextFree>;

std::string describe(const RpcError& error) {
    std::string text = error.message;
    if (!error.path.empty()) text += " (" + error.path + ")";
    if (error.line) text += " at line " + std::to_string(error.line);
    return text;
}

Context make_context(const std::string& yang_dir) {
    QuietLibyang quiet;
    ly_ctx* ctx = nullptr;
    if (ly_ctx_new(yang_dir.c_str(), 0, &ctx) != LY_SUCCESS)
        throw EngineError("cannot use the data model directory " + yang_dir);
    return Context(ctx);
}

// Loads every model of `yang_dir` and returns the one of the module's namespace.
const lys_module* load_model(ly_ctx* ctx, const std::string& yang_dir, const Module& module) {
    QuietLibyang quiet;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(yang_dir, ec)) {
        if (entry.path().extension() != ".yang") continue;
        if (lys_parse_path(ctx, entry.path().c_str(), LYS_IN_YANG, nullptr) != LY_SUCCESS)
            throw EngineError("data model " + entry.path().string() + ": " + describe(libyang_error(ctx, "")));
    }
    if (ec) throw EngineError("cannot read the data model directory " + yang_dir + ": " + ec.message());
    if (module.namespaces().empty()) throw EngineError("the module names no namespace");
    const std::string& href = module.namespaces().front().second;
    const lys_module* model = ly_ctx_get_module_implemented_ns(ctx, href.c_str());
    if (!model) throw EngineError("no data model in " + yang_dir + " has the module's namespace " + href);
    return model;
}

std::string print(const lyd_node* tree) {
    if (!tree) return {};
    char* text = nullptr;
    lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS);
    std::string result = text ? text : "";
    std::free(text);
    return result;
}

const char* error_tag(int nc_err_code) {
    switch (nc_err_code) {
        case NC_ERR_MISSING_ELEM: return "missing-element";
        case NC_ERR_BAD_ELEM: return "bad-element";
        case NC_ERR_UNKNOWN_ELEM: return "unknown-element";
        default: return "operation-failed";
    }
}

std::string in_quotes(const std::string& text) { return "\"" + text + "\""; }

// The vsys list of the model, whose entries the server's vsys feature owns;
// null for a model without one.
const lysc_node* vsys_list(const lys_module* model) {
    QuietLibyang quiet;
    return lys_find_path(model->ctx, nullptr, ("/" + std::string(model->name) + ":antivirus/vsys").c_str(), 0);
}

// The value of a list entry's key leaf (the vsys name).
std::string key_of(const lyd_node* entry) {
    for (const lyd_node* child = lyd_child(entry); child; child = child->next)
        if (child->schema->flags & LYS_KEY) return lyd_get_value(child);
    return {};
}

// The runtime as one edit needs it: the delivery mode set per pass and
// restored at the end, the texts handed out during the edit released.
class EditSession {
public:
    EditSession() : mode_(runtime::delivery()) {}
    ~EditSession() {
        runtime::set_delivery(mode_);
        runtime::release_texts();
    }
    EditSession(const EditSession&) = delete;
    EditSession& operator=(const EditSession&) = delete;

    void begin_pass(runtime::Delivery mode) {
        runtime::set_delivery(mode);
        runtime::reset_journal();
    }

    // The lines the module sent in this pass (and any later one).
    static std::vector<SentLine> lines() {
        std::vector<SentLine> lines;
        for (const runtime::Send& send : runtime::journal().sends) {
            if (send.msg_type != API_DP2QMX_CMD_CONFIG) continue;
            for (const runtime::CachedLine& line : send.lines)
                lines.push_back({line.vsys, line.view, line.view_template, send.cmd_op, line.line});
        }
        return lines;
    }

private:
    runtime::Delivery mode_;
};

}  // namespace

struct Engine::Impl {
    Impl(const std::string& module_path, const std::string& yang_dir, std::string_view running_xml)
        : module(module_path),
          ctx(make_context(yang_dir)),
          model(load_model(ctx.get(), yang_dir, module)),
          table(module, ctx.get()),
          vsys_schema(vsys_list(model)),
          name(model->name),
          ns(model->ns) {
        if (auto error = parse_config(model, running_xml, running))
            throw EngineError("initial running configuration: " + describe(*error), error);
        const std::string text = print(running.get());
        XmlDoc doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, 0));
        module.init(doc.get());
    }

    EditResult commit(Tree config, const EditOptions& options);
    RpcError refusal(const ChangeSet& changes, const CallFailure& failure) const;
    std::optional<RpcError> remove_vsys(const ChangeSet& changes) const;

    Module module;  // declared first: closed after everything else is gone
    Context ctx;
    const lys_module* model;
    CallbackTable table;
    const lysc_node* vsys_schema;  // null when the model has no vsys list
    Tree running;
    const std::string name, ns;
};

EditResult Engine::Impl::commit(Tree config, const EditOptions& options) {
    auto failed = [](RpcError error, std::vector<SentLine> lines = {}) {
        return EditResult{false, std::move(lines), std::move(error)};
    };
    if (auto error = validate_tree(model, config)) return failed(*error);
    if (options.test_only) return {true, {}, std::nullopt};

    ChangeSet changes(running.get(), config.get());
    EditSession session;
    // First every callback with a channel that records and delivers nothing:
    // a refusal leaves the platform untouched.
    session.begin_pass(runtime::Delivery::RecordOnly);
    if (auto failure = dispatch(table, changes)) return failed(refusal(changes, *failure));
    if (options.dry_run) return {true, EditSession::lines(), std::nullopt};

    session.begin_pass(runtime::Delivery::Deliver);
    std::vector<char> carried_out(changes.changes().size());
    std::optional<RpcError> error;
    if (auto failure = dispatch(table, changes, &carried_out))
        error = refusal(changes, *failure);
    else
        error = remove_vsys(changes);
    if (error) {
        // Bring the platform back: the module is driven with the reverse of
        // what it already carried out.
        changes.reverse(carried_out);
        if (auto undo = dispatch(table, changes))
            error->message += " Restoring the platform failed as well: " + refusal(changes, *undo).message;
        return failed(std::move(*error), EditSession::lines());
    }
    running = std::move(config);
    return {true, EditSession::lines(), std::nullopt};
}

RpcError Engine::Impl::refusal(const ChangeSet& changes, const CallFailure& failure) const {
    const Change& change = changes.changes()[failure.change];
    const std::string node = path_of(change.node());
    if (failure.error) {
        const nc_err& e = *failure.error;
        return {"application", error_tag(e.tag), e.message, e.path.empty() ? node : e.path, 0, e.tag};
    }
    const auto& sends = runtime::journal().sends;
    for (size_t i = failure.first_send; i < sends.size(); ++i) {
        const runtime::Send& send = sends[i];
        if (!send.delivered || send.result == 0) continue;
        std::string line = send.lines.empty() ? std::string("(no line)") : send.lines.back().line;
        std::string where = send.lines.empty() ? "" : " (vsys " + in_quotes(send.lines.back().vsys) + ", view " +
                                                         in_quotes(send.lines.back().view) + ")";
        return {"application", "operation-failed",
                "The platform refused the line " + in_quotes(line) + where + " with code " +
                    std::to_string(send.result) + "; the configuration is unchanged.",
                node, 0, send.result};
    }
    return {"application", "operation-failed",
            Module::function_name(reinterpret_cast<const void*>(failure.row->func)) + " refused the change of " +
                node + " (result " + std::to_string(failure.result) + ") without giving a reason.",
            node, 0, failure.result};
}

// The vsys entries the edit removes go from the platform as the server's vsys
// feature would take them, when the platform stands in for that feature.
std::optional<RpcError> Engine::Impl::remove_vsys(const ChangeSet& changes) const {
    auto* feature = dynamic_cast<VsysFeature*>(&runtime::platform());
    if (!feature || !vsys_schema) return std::nullopt;
    std::vector<std::string> names;
    const lyd_node* first = nullptr;
    for (const Change& change : changes.changes()) {
        if (change.op != XMLDIFF_REM || change.schema != vsys_schema) continue;
        names.push_back(key_of(change.node()));
        if (!first) first = change.node();
    }
    if (names.empty()) return std::nullopt;
    const int code = feature->remove_vsys(names);
    if (code == 0) return std::nullopt;
    std::string listed;
    for (const std::string& name : names) listed += (listed.empty() ? "" : ", ") + in_quotes(name);
    return RpcError{"application", "operation-failed",
                    "The platform refused to remove the vsys " + listed + " with code " + std::to_string(code) +
                        "; the configuration is unchanged.",
                    path_of(first), 0, code};
}

Engine::Engine(const std::string& module_path, const std::string& yang_dir, std::string_view running_xml)
    : impl_(std::make_unique<Impl>(module_path, yang_dir, running_xml)) {}

Engine::~Engine() = default;

EditResult Engine::edit(std::string_view config_xml, const EditOptions& options) {
    Tree config = copy_running();
    if (auto error = apply_edit(impl_->model, config_xml, options.default_operation, config))
        return {false, {}, std::move(error)};
    return impl_->commit(std::move(config), options);
}

EditResult Engine::replace_running(DataTree config, const EditOptions& options) {
    return impl_->commit(std::move(config), options);
}

DataTree Engine::copy_running() const {
    lyd_node* copy = nullptr;
    if (impl_->running) lyd_dup_siblings(impl_->running.get(), nullptr, LYD_DUP_RECURSIVE, &copy);
    return DataTree(copy);
}

std::string Engine::running_xml() const { return print(impl_->running.get()); }

const lyd_node* Engine::running_tree() const { return impl_->running.get(); }

std::optional<RpcError> Engine::validate(std::string_view config_xml) const {
    Tree config;
    return parse_config(impl_->model, config_xml, config);
}

std::optional<std::string> Engine::module_config() {
    runtime::reset_journal();
    nc_err* error = nullptr;
    char* text = impl_->module.perform_getconfig(nullptr, NC_DATASTORE_RUNNING, &error);
    runtime::take_error(error);
    if (!text) return std::nullopt;
    std::string result = text;
    std::free(text);
    return result;
}

std::optional<std::string> Engine::module_state() {
    runtime::reset_journal();
    nc_err* error = nullptr;
    XmlDoc doc(impl_->module.get_state_data(nullptr, nullptr, &error));
    runtime::take_error(error);
    if (!doc) return std::nullopt;
    xmlNode* root = xmlDocGetRootElement(doc.get());
    if (!root) return std::string();
    std::unique_ptr<xmlBuffer, void (*)(xmlBufferPtr)> buffer(xmlBufferCreate(), xmlBufferFree);
    xmlNodeDump(buffer.get(), doc.get(), root, 0, 1);
    return std::string(reinterpret_cast<const char*>(xmlBufferContent(buffer.get())), xmlBufferLength(buffer.get()));
}

ly_ctx* Engine::context() const { return impl_->ctx.get(); }
const std::string& Engine::model_name() const { return impl_->name; }
const std::string& Engine::model_namespace() const { return impl_->ns; }

}  // namespace tavrik::engine
