// The host engine: runs a configuration module the way the NETCONF server
// does.
//
// It loads the module (a shared library found by path), keeps the running
// configuration of the module's data model as a libyang tree, applies
// NETCONF edit-config payloads (libyang trees) to it in place, and calls the
// module's callback-table rows for every changed node. Every edit is
// all-or-nothing: the callbacks run once with a channel that records their
// messages; only when every callback accepted are the messages delivered to
// the platform, in order. When the platform refuses one, the engine drives
// the module with the reverse of what was already carried out; on every
// refusal the running configuration is put back exactly as it was.
//
// Beside the model the running configuration may hold the configuration of
// further YANG modules that have no callbacks (EngineOptions::data_modules,
// ietf-netconf-acm for one): edited, validated, compared and reported like
// the model's data, in the same all-or-nothing edits, and never handed to
// the module.
//
// Lines reach the platform that the stand-in runtime currently uses
// (tavrik::runtime::set_platform; the runtime's RecordingPlatform by
// default). A VsysFeature (tavrik/vsys_feature.hpp) handed to the engine
// stands in for the server's vsys feature: the vsys entries an edit removes
// are removed from it once everything else in the edit was carried out.
//
// Threads: an Engine is not thread-safe, and neither is the runtime it
// drives (one set of global channel state per process). Callers serialise
// every call on every Engine of the process and every use of its running
// tree; at most one call runs at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tavrik/vsys_feature.hpp"

struct ly_ctx;
struct lyd_node;

namespace tavrik::engine {

// The layers and tags of NETCONF rpc-errors (RFC 6241, appendix A).
enum class ErrorType { Transport, Rpc, Protocol, Application };
enum class ErrorTag {
    InUse,
    InvalidValue,
    TooBig,
    MissingAttribute,
    BadAttribute,
    UnknownAttribute,
    MissingElement,
    BadElement,
    UnknownElement,
    UnknownNamespace,
    AccessDenied,
    LockDenied,
    ResourceDenied,
    RollbackFailed,
    DataExists,
    DataMissing,
    OperationNotSupported,
    OperationFailed,
    MalformedMessage,
};
// The names as they appear on the wire ("application", "operation-failed").
std::string_view name_of(ErrorType type);
std::string_view name_of(ErrorTag tag);
// The tag's place in RFC 6241's list, from 1 (in-use) to 19
// (malformed-message): libnetconf2's NC_ERR code of the tag.
int number_of(ErrorTag tag);
// The tag of a module refusal: the module's NC_ERR code (fail_nc_err).
ErrorTag tag_of_module_code(int code);

// An rpc-error as a NETCONF server reports it.
struct RpcError {
    RpcError() = default;
    RpcError(ErrorType type, ErrorTag tag, std::string message, std::string path = {}, std::string bad_element = {})
        : type(type), tag(tag), message(std::move(message)), path(std::move(path)), bad_element(std::move(bad_element)) {}

    ErrorType type = ErrorType::Application;
    ErrorTag tag = ErrorTag::OperationFailed;
    std::string message;      // error-message
    std::string path;         // instance path of the node (libyang's notation, keys included); may be empty
    std::string bad_element;  // the node's name; may be empty
    std::string module_path;  // a module refusal: the module's own path string
    int line = 0;             // line in the input text, where the parser names one; 0: none
    // Code of the party that refused: the NC_ERR value of a module refusal,
    // the platform's result for a refused line, 0 otherwise.
    int app_code = 0;
};

// One line as the module cached it and sent it to the platform.
struct SentLine {
    std::string vsys;
    std::string view;                          // view instance
    std::optional<std::string> view_template;  // none: the module gave no template
    unsigned cmd_op = 0;                       // CMD_ADD 0, CMD_DEL 1
    std::string line;
    bool operator==(const SentLine&) const = default;
};

enum class DefaultOperation { Merge, Replace, None };
// The default operation a word names ("merge", "replace", "none"); nullopt
// for any other word.
std::optional<DefaultOperation> default_operation_named(std::string_view word);

enum class ChangeKind { Create, Delete, Modify };

// One changed node of an edit.
struct ChangedNode {
    ChangeKind kind;
    std::string path;  // instance path
};

class ChangeSet;

// Every node an edit creates, deletes or modifies (the ancestors of changes
// are not listed), for checks made before the module is called.
class ChangeView {
public:
    explicit ChangeView(const ChangeSet& changes);
    size_t size() const { return index_.size(); }
    ChangeKind kind(size_t i) const;
    // The node; for a deletion the node as it was (detached from the tree:
    // ask path() for its place).
    const lyd_node* node(size_t i) const;
    std::string path(size_t i) const;

private:
    const ChangeSet& changes_;
    std::vector<std::uint32_t> index_;
};

// A check of an edit's changes before the module hears of them (access
// control): an error refuses the edit, which is then undone.
using ChangeCheck = std::function<std::optional<RpcError>(const ChangeView&)>;

struct EditOptions {
    DefaultOperation default_operation = DefaultOperation::Merge;
    // Apply and validate only (and run `check`): no module callback runs,
    // nothing changes.
    bool test_only = false;
    // Run every callback with the recording channel and return the lines it
    // would send; nothing is delivered and the running configuration stays.
    bool dry_run = false;
    ChangeCheck check = {};  // optional
};

struct EditResult {
    bool ok = false;
    // In order: the lines sent to the platform (real run), the lines the
    // module would send (dry run), none (test-only, a refusal by the model
    // or the module). When the platform refuses a line: every line that
    // reached the platform, the refused line and the restoring lines
    // included.
    std::vector<SentLine> lines;
    std::optional<RpcError> error;  // set exactly when !ok
    // The topmost changed nodes (a created or deleted subtree once, a
    // modified leaf) in document order: what a netconf-config-change
    // notification lists. Set when ok.
    std::vector<ChangedNode> changes;
    // The served modules whose data libyang validated as a whole for this
    // edit: every module when the model asks for it or the configuration is
    // replaced whole, else the data modules with constraints beyond the
    // changed entries that the edit changed. Empty: the edit was validated
    // where it changed the configuration.
    std::vector<std::string> validated_whole;
};

// A libyang data tree owned by its holder (freed with lyd_free_all).
struct DataTreeFree {
    void operator()(lyd_node* tree) const;
};
using DataTree = std::unique_ptr<lyd_node, DataTreeFree>;

// XML text read with libyang: the top-level nodes, or why it cannot be read.
struct ParsedXml {
    DataTree tree;                  // null when empty or on error
    std::optional<RpcError> error;  // set when the text cannot be read
};

// Thrown by the constructor when the module cannot be loaded, the model
// cannot be read, or the initial running configuration is not valid.
class EngineError : public std::runtime_error {
public:
    explicit EngineError(const std::string& what, std::optional<RpcError> detail = std::nullopt)
        : std::runtime_error(what), detail_(std::move(detail)) {}
    // When the initial running configuration was refused: why.
    const std::optional<RpcError>& detail() const { return detail_; }

private:
    std::optional<RpcError> detail_;
};

// What an engine serves; see the constructor.
struct EngineOptions {
    std::string module_path;
    std::string yang_dir;
    std::string running_xml;
    ly_ctx* context = nullptr;
    // YANG modules whose configuration the running configuration holds as
    // plain data beside the model's: no callback is ever called for it.
    // Implemented in the context, or loaded from its search directories (an
    // engine's own context searches yang_dir and the IETF module directory).
    std::vector<std::string> data_modules;
};

class Engine {
public:
    // module_path: the module's shared library. yang_dir: a directory of
    // .yang files; the model whose namespace the module names in its
    // namespace_mapping is served. running_xml: the initial running
    // configuration (see parse()); an empty text means an empty
    // configuration. Nothing is sent to the module for it: it is taken as
    // what the platform has.
    //
    // context: a libyang context of the host (a NETCONF server's, with the
    // IETF NETCONF modules); the engine serves the model of the module's
    // namespace in it, loading yang_dir's models into it when it is not
    // there yet, and the host keeps the context alive longer than the
    // engine. Without one the engine makes its own, with ietf-netconf from
    // the IETF module directory of this build.
    Engine(const std::string& module_path, const std::string& yang_dir, std::string_view running_xml = {},
           ly_ctx* context = nullptr);
    explicit Engine(const EngineOptions& options);
    ~Engine();  // calls the module's transapi_close and unloads it
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // XML text as a NETCONF server reads it with libyang: the content of an
    // edit-config's <config> (the served top-level elements, with the
    // operation attribute of ietf-netconf), with or without the <config>
    // element itself, or a <data> element. Unknown elements and values of
    // the wrong type become opaque nodes that edit() refuses.
    ParsedXml parse(std::string_view xml) const;

    // Applies a NETCONF edit-config payload to the running configuration:
    // `config` is the first top-level node of the content of <config> as
    // libyang parsed it, in context() (null: an empty edit). Per-node
    // operations come from the ietf-netconf:operation metadata (merge,
    // replace, create, delete, remove).
    EditResult edit(const lyd_node* config, const EditOptions& options = {});

    // Makes `config`, a complete configuration of the model in context(),
    // the running configuration: validates it, compares it with the running
    // one, and tells the module about every difference, as edit() does.
    // For commits of a whole new configuration.
    EditResult replace_running(DataTree config, const EditOptions& options = {});

    // Applies `edit` to `tree` (a configuration of the model in context();
    // null: empty) and validates the result, without the module: for a
    // datastore other than the running one. On error `tree` is exactly as
    // before. The result lists the changes; it has no lines.
    // `check`, when given, sees the changes before anything is kept.
    EditResult apply(DataTree& tree, const lyd_node* edit,
                     DefaultOperation default_operation = DefaultOperation::Merge,
                     const ChangeCheck& check = {}) const;

    // Shows `check` the changes that make `old_tree` into `new_tree`
    // (complete configurations in context(); null: empty): for a
    // configuration replaced whole other than the running one.
    std::optional<RpcError> check_changes(const lyd_node* old_tree, const lyd_node* new_tree,
                                          const ChangeCheck& check) const;

    // A copy of the running configuration (null when empty).
    DataTree copy_running() const;

    // The running configuration as XML text (the served top-level elements,
    // without implicit defaults; empty text when nothing is configured).
    std::string running_xml() const;
    const lyd_node* running_tree() const;  // owned by the engine; null when empty

    // Rebuilds the running configuration in memory of its own once the
    // edits since the last rebuild changed at least half as many nodes as it
    // then held (and a few thousand at least), so that rebuilding costs a
    // bounded amount per changed node. A large edit's nodes and strings lie
    // among those of the request they came from; when the request is freed
    // the pages they share stay with the process. Call it when no other
    // tree of the context holds the edit's strings (after the reply).
    // Returns whether it rebuilt. Throws EngineError when the rebuilt
    // configuration cannot be read back (out of memory).
    bool compact();

    // Validates a complete configuration (same format as running_xml)
    // against the model. nullopt: valid.
    std::optional<RpcError> validate(std::string_view config_xml) const;

    // Module reads. Text as the module returns it from perform_getconfig;
    // nullopt when the module returns null.
    std::optional<std::string> module_config();
    // get_state_data's document serialised as XML text (no XML declaration);
    // nullopt when the module returns null. A document without a root
    // element gives an empty text.
    std::optional<std::string> module_state();

    // The platform's stand-in for the server's vsys feature; null: none.
    // Not owned; it must outlive its use by the engine.
    void set_vsys_feature(VsysFeature* feature);

    // The libyang context with the module's data model loaded: the host's,
    // or owned by the engine and valid for its lifetime.
    ly_ctx* context() const;

    // Name and namespace of the data model served.
    const std::string& model_name() const;
    const std::string& model_namespace() const;

    // Why edits are validated as a whole configuration: the constraints of
    // the model that reach beyond the changed entries (must, when, leafref,
    // unique, list sizes, ...). Empty: every edit is validated where it
    // changes the configuration.
    const std::vector<std::string>& nonlocal_constraints() const;

    // The data modules served beside the model, as named in EngineOptions.
    std::vector<std::string> data_modules() const;
    // The constraints of a served module (the model or a data module) that
    // reach beyond the changed entries; for a data module, why an edit that
    // changes its data validates that data whole. Throws std::out_of_range
    // for a module not served.
    const std::vector<std::string>& nonlocal_constraints(std::string_view module) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tavrik::engine
