// The engine: the module, its data model and the running configuration, and
// the all-or-nothing edit.
#include "tavrik/engine.hpp"

#include <libxml/parser.h>

#include <algorithm>
#include <cstdlib>

#include "apply.hpp"
#include "changes.hpp"
#include "dispatch.hpp"
#include "model.hpp"
#include "tavrik/module.hpp"
#include "parse.hpp"
#include "tavrik/runtime.hpp"

namespace tavrik::engine {

void DataTreeFree::operator()(lyd_node* tree) const { lyd_free_all(tree); }

namespace {

const std::string& namespace_of(const Module& module) {
    if (module.namespaces().empty()) throw EngineError("the module names no namespace");
    return module.namespaces().front().second;
}

// The configured data of `tree` as XML text; only `module`'s when given.
std::string print(const lyd_node* tree, const lys_module* module = nullptr) {
    char* printed = nullptr;
    if (!module) {
        lyd_print_mem(&printed, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS);
        return take_text(printed);
    }
    std::string text;
    for (const lyd_node* node = tree; node; node = node->next) {
        if (node->schema->module != module) continue;
        lyd_print_mem(&printed, node, LYD_XML, 0);
        text += take_text(printed);
    }
    return text;
}

// Copies of the top-level nodes of `module` in `tree` (of all when null),
// their implicit nodes still implicit.
Tree copy_of(const lyd_node* tree, const lys_module* module) {
    lyd_node* copy = nullptr;
    for (const lyd_node* node = tree; node; node = node->next) {
        if (module && node->schema->module != module) continue;
        lyd_node* dup = nullptr;
        if (lyd_dup_single(node, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &dup) != LY_SUCCESS ||
            lyd_insert_sibling(copy, dup, &copy) != LY_SUCCESS) {
            lyd_free_all(dup);
            lyd_free_all(copy);
            throw std::bad_alloc();
        }
    }
    return Tree(copy);
}

// Puts `data` in place of the top-level nodes of `module` in `tree` (of all
// when null).
void replace_data(Tree& tree, const lys_module* module, Tree data) {
    lyd_node* first = tree.release();
    for (lyd_node* node = first; node;) {
        lyd_node* next = node->next;
        if (!module || node->schema->module == module) {
            if (node == first) first = next;
            lyd_free_tree(node);
        }
        node = next;
    }
    if (data) lyd_insert_sibling(first, data.release(), &first);
    tree.reset(first);
}

// Validated copies of served data, with libyang's implicit nodes (defaults):
// they take the place of that data once the edit stays.
class Validated {
public:
    // `module`'s data (null: the whole configuration, of the modules named).
    void add(const lys_module* module, Tree copy, std::vector<std::string> modules = {}) {
        if (module) modules.push_back(module->name);
        names.insert(names.end(), modules.begin(), modules.end());
        copies_.emplace_back(module, std::move(copy));
    }
    void install(Tree& tree) {
        for (auto& [module, copy] : copies_) replace_data(tree, module, std::move(copy));
        copies_.clear();
    }

    std::vector<std::string> names;  // the modules validated whole

private:
    std::vector<std::pair<const lys_module*, Tree>> copies_;
};

std::string in_quotes(const std::string& text) { return "\"" + text + "\""; }

// The value of a list entry's key leaf (the vsys name).
std::string key_of(const lyd_node* entry) {
    for (const lyd_node* child = lyd_child(entry); child; child = child->next)
        if (child->schema->flags & LYS_KEY) return lyd_get_value(child);
    return {};
}

EditResult failed(RpcError error, std::vector<SentLine> lines = {}) {
    return EditResult{false, std::move(lines), std::move(error), {}, {}};
}

ChangeKind kind_of(int op) {
    if (op & XMLDIFF_ADD) return ChangeKind::Create;
    if (op & XMLDIFF_REM) return ChangeKind::Delete;
    return ChangeKind::Modify;
}

// The topmost changed nodes: what an added or removed subtree starts with,
// and the modified leaves.
std::vector<ChangedNode> topmost(const ChangeSet& changes) {
    std::vector<ChangedNode> out;
    const auto& list = changes.changes();
    for (size_t i = 0; i < list.size(); ++i) {
        if (list[i].op == XMLDIFF_CHAIN) continue;
        if (list[i].parent >= 0 && list[i].op == list[list[i].parent].op) continue;
        out.push_back({kind_of(list[i].op), changes.path(i)});
    }
    return out;
}

// The lines of the recorded messages (only those delivered, when asked).
std::vector<SentLine> lines_of(runtime::CallRecord& record, bool delivered_only) {
    std::vector<SentLine> lines;
    for (runtime::Message& message : record.messages) {
        if (delivered_only && !message.delivered) continue;
        for (runtime::CachedLine& line : message.lines)
            lines.push_back({std::move(line.vsys), std::move(line.view), std::move(line.view_template),
                             message.cmd_op, std::move(line.line)});
    }
    return lines;
}

// The runtime as one edit needs it: a call record, the delivery mode set
// and restored at the end, the texts handed out during the edit released.
class EditSession {
public:
    EditSession() : mode_(runtime::delivery()), previous_(runtime::call_record()) {
        runtime::set_call_record(&record);
        runtime::set_delivery(runtime::Delivery::RecordOnly);
    }
    ~EditSession() {
        runtime::set_call_record(previous_);
        runtime::set_delivery(mode_);
        runtime::release_texts();
    }
    EditSession(const EditSession&) = delete;
    EditSession& operator=(const EditSession&) = delete;

    // Delivers the recorded messages in order; the index of the one the
    // platform refused, or the number of messages.
    size_t deliver() {
        runtime::Platform& platform = runtime::platform();
        for (size_t i = 0; i < record.messages.size(); ++i) {
            runtime::Message& message = record.messages[i];
            message.delivered = true;
            message.result = platform.deliver(message.lines, message.cmd_op);
            if (message.result != 0) return i;
        }
        return record.messages.size();
    }

    runtime::CallRecord record;

private:
    runtime::Delivery mode_;
    runtime::CallRecord* previous_;
};

}  // namespace

ChangeView::ChangeView(const ChangeSet& changes) : changes_(changes) {
    const auto& list = changes.changes();
    for (size_t i = 0; i < list.size(); ++i)
        if (list[i].op != XMLDIFF_CHAIN) index_.push_back(static_cast<std::uint32_t>(i));
}
ChangeKind ChangeView::kind(size_t i) const { return kind_of(changes_.changes()[index_[i]].op); }
const lyd_node* ChangeView::node(size_t i) const { return changes_.changes()[index_[i]].node(); }
std::string ChangeView::path(size_t i) const { return changes_.path(index_[i]); }

struct Engine::Impl {
    explicit Impl(const EngineOptions& options)
        : module(options.module_path),
          model(options.yang_dir, namespace_of(module), options.context, options.data_modules),
          table(module, model.context()),
          name(model.module()->name),
          ns(model.module()->ns) {
        if (auto error = parse_config(options.running_xml, running))
            throw EngineError("initial running configuration: " + describe(*error), error);
        const std::string text = print(running.get(), model.module());
        XmlDoc doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, 0));
        module.init(doc.get());
    }

    std::optional<RpcError> parse_config(std::string_view xml, Tree& tree) const;
    std::optional<RpcError> validate(Tree& tree, const std::vector<const lys_module*>& modules) const;
    std::optional<RpcError> validate_whole(Tree& tree) const;
    std::optional<RpcError> validate_changed(const Tree& tree, const AppliedEdit& applied,
                                             Validated& validated) const;
    std::vector<std::string> served_names() const;
    EditResult commit(Tree config, const EditOptions& options);
    EditResult run(ChangeSet& changes, const EditOptions& options);
    RpcError refusal(const ChangeSet& changes, const CallFailure& failure, const runtime::CallRecord& record) const;
    RpcError platform_refusal(const ChangeSet& changes, size_t change, const runtime::Message& message) const;
    std::optional<RpcError> remove_vsys(const ChangeSet& changes) const;

    Module module;  // declared first: closed after everything else is gone
    Model model;
    CallbackTable table;
    VsysFeature* vsys_feature = nullptr;
    Tree running;
    // What compact() weighs: nodes changed since the last rebuild, and
    // how many the running configuration had then.
    std::size_t changed_since_rebuild = 0;
    std::size_t nodes_at_rebuild = 0;
    const std::string name, ns;
};

// A complete configuration from text: read as an edit that merges into
// nothing, then validated whole.
std::optional<RpcError> Engine::Impl::parse_config(std::string_view xml, Tree& tree) const {
    ParsedXml parsed = parse_xml(model, xml);
    if (parsed.error) return parsed.error;
    AppliedEdit applied(model, tree);
    if (auto error = applied.apply(parsed.tree.get(), DefaultOperation::Merge)) return error;
    applied.keep();
    return validate_whole(tree);
}

// Validates the data of `modules` in `tree` with libyang, which adds their
// implicit nodes.
std::optional<RpcError> Engine::Impl::validate(Tree& tree, const std::vector<const lys_module*>& modules) const {
    QuietLibyang quiet;
    // libyang 2.1's union type ends the calling thread's quiet (it sets the
    // temporary options to none when it has validated a value), so that
    // the errors found after it would be printed: for the validation, the
    // process-wide options are quiet too.
    struct GlobalQuiet {
        uint32_t previous = ly_log_options(LY_LOSTORE_LAST);
        ~GlobalQuiet() { ly_log_options(previous); }
    } global_quiet;
    lyd_node* first = tree.release();
    LY_ERR err = LY_SUCCESS;
    for (size_t i = 0; i < modules.size() && err == LY_SUCCESS; ++i)
        err = lyd_validate_module(&first, modules[i], LYD_VALIDATE_NO_STATE, nullptr);
    tree.reset(first);
    if (err == LY_SUCCESS) return std::nullopt;
    RpcError error = libyang_error(model.context(), ErrorTag::InvalidValue);
    lyd_node* node = nullptr;
    if (!error.path.empty() && lyd_find_path(tree.get(), error.path.c_str(), 0, &node) == LY_SUCCESS)
        error.bad_element = LYD_NAME(node);
    return error;
}

// A whole configuration: data of served modules only, valid.
std::optional<RpcError> Engine::Impl::validate_whole(Tree& tree) const {
    for (const lyd_node* node = tree.get(); node; node = node->next)
        if (!node->schema || !model.served(node->schema->module))
            return error_at(node, ErrorTag::UnknownElement, model.foreign(LYD_NAME(node)));
    std::vector<const lys_module*> modules;
    for (const Model::Served& served : model.served()) modules.push_back(served.module);
    return validate(tree, modules);
}

// The data modules the edit changed whose constraints reach beyond the
// changed entries: their data validated whole, on a copy.
std::optional<RpcError> Engine::Impl::validate_changed(const Tree& tree, const AppliedEdit& applied,
                                                       Validated& validated) const {
    for (const lys_module* module : applied.modules()) {
        if (module == model.module() || model.served(module)->nonlocal.empty()) continue;
        Tree copy = copy_of(tree.get(), module);
        if (auto error = validate(copy, {module})) return error;
        validated.add(module, std::move(copy));
    }
    return std::nullopt;
}

std::vector<std::string> Engine::Impl::served_names() const {
    std::vector<std::string> names;
    for (const Model::Served& served : model.served()) names.push_back(served.module->name);
    return names;
}

EditResult Engine::Impl::commit(Tree config, const EditOptions& options) {
    if (auto error = validate_whole(config)) return failed(*error);
    ChangeSet changes(model);
    changes.compare(running.get(), config.get(), -1);
    EditResult result = run(changes, options);
    result.validated_whole = served_names();
    if (result.ok && !options.test_only && !options.dry_run) running = std::move(config);
    return result;
}

// The module's part of an edit whose change set is `changes`.
EditResult Engine::Impl::run(ChangeSet& changes, const EditOptions& options) {
    if (options.check)
        if (auto error = options.check(ChangeView(changes))) return failed(std::move(*error));
    if (options.test_only) return {true, {}, std::nullopt, topmost(changes), {}};

    changes.render();
    EditSession session;
    // Every callback once, with a channel that records and delivers
    // nothing: a refusal leaves the platform untouched.
    std::vector<Call> calls;
    if (auto failure = dispatch(table, changes, session.record, &calls))
        return failed(refusal(changes, *failure, session.record));
    if (options.dry_run) return {true, lines_of(session.record, false), std::nullopt, topmost(changes), {}};

    // Every callback accepted: the messages go out in order.
    const size_t refused = session.deliver();
    std::vector<char> carried_out(changes.changes().size());
    std::optional<RpcError> error;
    if (refused < session.record.messages.size()) {
        // Carried out: a call that went past its wrapper and whose messages
        // all went out before the refused one.
        for (const Call& call : calls) {
            if (call.end_message <= refused && call.transformed) carried_out[call.change] = 1;
            if (call.first_message <= refused && refused < call.end_message)
                error = platform_refusal(changes, call.change, session.record.messages[refused]);
        }
    } else {
        for (const Call& call : calls)
            if (call.transformed) carried_out[call.change] = 1;
        error = remove_vsys(changes);
    }
    if (error) {
        // Bring the platform back: the module is driven with the reverse of
        // what it already carried out, and its lines are delivered.
        changes.reverse(carried_out);
        runtime::set_delivery(runtime::Delivery::Deliver);
        if (auto undo = dispatch(table, changes, session.record))
            error->message +=
                " Restoring the platform failed as well: " + refusal(changes, *undo, session.record).message;
        return failed(std::move(*error), lines_of(session.record, true));
    }
    changed_since_rebuild += changes.changes().size();
    return {true, lines_of(session.record, true), std::nullopt, topmost(changes), {}};
}

RpcError Engine::Impl::refusal(const ChangeSet& changes, const CallFailure& failure,
                               const runtime::CallRecord& record) const {
    const Change& change = changes.changes()[failure.change];
    const std::string path = changes.path(failure.change);
    if (failure.error) {
        const nc_err& e = *failure.error;
        RpcError error(ErrorType::Application, tag_of_module_code(e.tag), e.message, path, change.schema->name);
        error.module_path = e.path;
        error.app_code = e.tag;
        return error;
    }
    for (size_t i = failure.first_message; i < record.messages.size(); ++i)
        if (record.messages[i].delivered && record.messages[i].result != 0)
            return platform_refusal(changes, failure.change, record.messages[i]);
    RpcError error(ErrorType::Application, ErrorTag::OperationFailed,
                   Module::function_name(reinterpret_cast<const void*>(failure.row->func)) + " refused the change of " +
                       path + " (result " + std::to_string(failure.result) + ") without giving a reason.",
                   path, change.schema->name);
    error.app_code = failure.result;
    return error;
}

RpcError Engine::Impl::platform_refusal(const ChangeSet& changes, size_t change,
                                        const runtime::Message& message) const {
    const std::string line = message.lines.empty() ? std::string("(no line)") : message.lines.back().line;
    const std::string where = message.lines.empty() ? ""
                                                    : " (vsys " + in_quotes(message.lines.back().vsys) + ", view " +
                                                          in_quotes(message.lines.back().view) + ")";
    RpcError error(ErrorType::Application, ErrorTag::OperationFailed,
                   "The platform refused the line " + in_quotes(line) + where + " with code " +
                       std::to_string(message.result) + "; the configuration is unchanged.",
                   changes.path(change), changes.changes()[change].schema->name);
    error.app_code = message.result;
    return error;
}

// The vsys entries the edit removes go from the platform as the server's vsys
// feature would take them, when the platform stands in for that feature.
std::optional<RpcError> Engine::Impl::remove_vsys(const ChangeSet& changes) const {
    if (!vsys_feature || !model.vsys_list()) return std::nullopt;
    std::vector<std::string> names;
    size_t first = 0;
    const auto& list = changes.changes();
    for (size_t i = 0; i < list.size(); ++i) {
        if (list[i].op != XMLDIFF_REM || list[i].schema != model.vsys_list()) continue;
        if (names.empty()) first = i;
        names.push_back(key_of(list[i].node()));
    }
    if (names.empty()) return std::nullopt;
    const int code = vsys_feature->remove_vsys(names);
    if (code == 0) return std::nullopt;
    std::string listed;
    for (const std::string& name : names) listed += (listed.empty() ? "" : ", ") + in_quotes(name);
    RpcError error(ErrorType::Application, ErrorTag::OperationFailed,
                   "The platform refused to remove the vsys " + listed + " with code " + std::to_string(code) +
                       "; the configuration is unchanged.",
                   changes.path(first), model.vsys_list()->name);
    error.app_code = code;
    return error;
}

Engine::Engine(const std::string& module_path, const std::string& yang_dir, std::string_view running_xml,
               ly_ctx* context)
    : Engine(EngineOptions{module_path, yang_dir, std::string(running_xml), context, {}}) {}

Engine::Engine(const EngineOptions& options) : impl_(std::make_unique<Impl>(options)) {}

Engine::~Engine() = default;

ParsedXml Engine::parse(std::string_view xml) const { return parse_xml(impl_->model, xml); }

EditResult Engine::edit(const lyd_node* config, const EditOptions& options) {
    Impl& impl = *impl_;
    if (!impl.model.nonlocal().empty()) {
        // Constraints beyond the changed entries: the edit is made on a copy,
        // which is validated and compared whole.
        Tree copy = copy_running();
        AppliedEdit applied(impl.model, copy);
        if (auto error = applied.apply(config, options.default_operation)) return failed(*error);
        applied.keep();
        return impl.commit(std::move(copy), options);
    }
    AppliedEdit applied(impl.model, impl.running);
    if (auto error = applied.apply(config, options.default_operation)) return failed(*error);
    Validated validated;
    if (auto error = impl.validate_changed(impl.running, applied, validated)) return failed(*error);
    ChangeSet changes(impl.model);
    applied.describe(changes);
    EditResult result = impl.run(changes, options);
    result.validated_whole = validated.names;
    if (result.ok && !options.test_only && !options.dry_run) {
        applied.keep();
        validated.install(impl.running);
    }
    return result;  // otherwise `applied` puts the running configuration back
}

EditResult Engine::replace_running(DataTree config, const EditOptions& options) {
    return impl_->commit(std::move(config), options);
}

EditResult Engine::apply(DataTree& tree, const lyd_node* edit, DefaultOperation default_operation,
                         const ChangeCheck& check) const {
    const Impl& impl = *impl_;
    AppliedEdit applied(impl.model, tree);
    if (auto error = applied.apply(edit, default_operation)) return failed(*error);
    Validated validated;
    if (!impl.model.nonlocal().empty()) {
        Tree whole = copy_of(tree.get(), nullptr);
        if (auto error = impl.validate_whole(whole)) return failed(*error);
        validated.add(nullptr, std::move(whole), impl.served_names());
    } else if (auto error = impl.validate_changed(tree, applied, validated)) {
        return failed(*error);
    }
    ChangeSet changes(impl.model);
    applied.describe(changes);
    if (check)
        if (auto error = check(ChangeView(changes))) return failed(std::move(*error));
    EditResult result{true, {}, std::nullopt, topmost(changes), validated.names};
    applied.keep();
    validated.install(tree);
    return result;
}

std::optional<RpcError> Engine::check_changes(const lyd_node* old_tree, const lyd_node* new_tree,
                                              const ChangeCheck& check) const {
    ChangeSet changes(impl_->model);
    changes.compare(old_tree, new_tree, -1);
    return check(ChangeView(changes));
}

DataTree Engine::copy_running() const { return copy_of(impl_->running.get(), nullptr); }

std::string Engine::running_xml() const { return print(impl_->running.get()); }

const lyd_node* Engine::running_tree() const { return impl_->running.get(); }

bool Engine::compact() {
    constexpr std::size_t kFewestChanges = 4096;
    Impl& impl = *impl_;
    if (impl.changed_since_rebuild < std::max(impl.nodes_at_rebuild / 2, kFewestChanges)) return false;
    impl.changed_since_rebuild = 0;
    impl.nodes_at_rebuild = 0;
    if (!impl.running) return true;
    // As XML: this libyang's LYB printer can read past a union value's bytes
    // (seen with a notification's source-host; the access-control rules of
    // the running configuration have unions too).
    char* bytes = nullptr;
    if (lyd_print_mem(&bytes, impl.running.get(), LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK) != LY_SUCCESS)
        return false;
    const std::unique_ptr<char, decltype(&std::free)> text(bytes, &std::free);
    impl.running.reset();  // the strings only the configuration held leave the dictionary
    lyd_node* tree = nullptr;
    if (lyd_parse_data_mem(impl.model.context(), text.get(), LYD_XML, LYD_PARSE_STRICT | LYD_PARSE_ONLY, 0, &tree) !=
        LY_SUCCESS)
        throw EngineError("the running configuration could not be rebuilt in memory");
    impl.running.reset(tree);
    if (auto error = impl.validate_whole(impl.running))
        throw EngineError("the rebuilt running configuration is not valid: " + describe(*error), error);

    for (const lyd_node* top = tree; top; top = top->next) {
        const lyd_node* node;
        LYD_TREE_DFS_BEGIN(top, node) { ++impl.nodes_at_rebuild; LYD_TREE_DFS_END(top, node); }
    }
    return true;
}

std::optional<RpcError> Engine::validate(std::string_view config_xml) const {
    Tree config;
    return impl_->parse_config(config_xml, config);
}

std::optional<std::string> Engine::module_config() {
    nc_err* error = nullptr;
    char* text = impl_->module.perform_getconfig(nullptr, NC_DATASTORE_RUNNING, &error);
    runtime::take_error(error);
    if (!text) return std::nullopt;
    return take_text(text);
}

std::optional<std::string> Engine::module_state() {
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

void Engine::set_vsys_feature(VsysFeature* feature) { impl_->vsys_feature = feature; }
ly_ctx* Engine::context() const { return impl_->model.context(); }
const std::string& Engine::model_name() const { return impl_->name; }
const std::string& Engine::model_namespace() const { return impl_->ns; }
const std::vector<std::string>& Engine::nonlocal_constraints() const { return impl_->model.nonlocal(); }

std::vector<std::string> Engine::data_modules() const {
    std::vector<std::string> names = impl_->served_names();
    names.erase(names.begin());
    return names;
}

const std::vector<std::string>& Engine::nonlocal_constraints(std::string_view module) const {
    for (const Model::Served& served : impl_->model.served())
        if (module == served.module->name) return served.nonlocal;
    throw std::out_of_range("the engine does not serve the YANG module " + std::string(module));
}

}  // namespace tavrik::engine
