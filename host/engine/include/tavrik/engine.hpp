// The host engine: runs a configuration module the way the NETCONF server
// does.
//
// It loads the module (a shared library found by path), keeps the running
// configuration of the module's data model as a libyang tree, applies
// NETCONF edit-config payloads to it, validates the result against the
// model, and calls the module's callback-table rows for every changed node.
// Every edit is all-or-nothing with respect to the module: a first pass runs
// every callback with a channel that records lines and delivers nothing; only
// when every callback accepted does a second pass deliver the lines to the
// platform. When the platform refuses a line in the second pass, the engine
// drives the module with the reverse of what it had already carried out.
//
// Lines reach the platform that the stand-in runtime currently uses
// (tavrik::runtime::set_platform; the runtime's RecordingPlatform by
// default). When that platform also implements VsysFeature
// (tavrik/vsys_feature.hpp), it stands in for the server's vsys feature:
// the vsys entries an edit removes are removed from it once everything else
// in the edit was carried out, all or nothing with the edit.
//
// Threads: an Engine is not thread-safe, and neither is the runtime it
// drives (one set of global channel state per process). Callers serialise
// every call on every Engine of the process; at most one call runs at a
// time. The journal of the runtime (tavrik::runtime::journal()) is reset at
// the start of every edit and read.
#pragma once

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

// An rpc-error as a NETCONF server reports it.
struct RpcError {
    std::string type = "application";  // error-type: "application", "protocol" or "rpc"
    std::string tag;                   // error-tag: "operation-failed", "bad-element", "data-exists", ...
    std::string message;               // error-message
    std::string path;                  // error-path; may be empty
    int line = 0;                      // line of the offending element in the input text; 0: unknown
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

struct EditOptions {
    DefaultOperation default_operation = DefaultOperation::Merge;
    // Apply and validate only: no module callback runs, nothing changes.
    bool test_only = false;
    // Run every callback with the recording channel and return the lines it
    // would send; nothing is delivered and the running configuration stays.
    bool dry_run = false;
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
};

// A libyang data tree owned by its holder (freed with lyd_free_all).
struct DataTreeFree {
    void operator()(lyd_node* tree) const;
};
using DataTree = std::unique_ptr<lyd_node, DataTreeFree>;

// Thrown by the constructor when the module cannot be loaded, the model
// cannot be read, or the initial running configuration is not valid.
class EngineError : public std::runtime_error {
public:
    explicit EngineError(const std::string& what, std::optional<RpcError> detail = std::nullopt)
        : std::runtime_error(what), detail_(std::move(detail)) {}
    // When the initial running configuration was refused: why, with its line.
    const std::optional<RpcError>& detail() const { return detail_; }

private:
    std::optional<RpcError> detail_;
};

class Engine {
public:
    // module_path: the module's shared library. yang_dir: a directory of
    // .yang files; the model whose namespace the module names in its
    // namespace_mapping is served. running_xml:
    // the initial running configuration (XML text; the top-level elements of
    // the model, optionally inside a NETCONF <config> or <data> element); an
    // empty text means an empty configuration. Nothing is sent to the module
    // for the initial configuration: it is taken as what the platform has.
    Engine(const std::string& module_path, const std::string& yang_dir, std::string_view running_xml = {});
    ~Engine();  // calls the module's transapi_close and unloads it
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Applies a NETCONF edit-config payload: the content of <config> (XML
    // text, with or without the <config> element itself). Per-node
    // operations come from the nc:operation attribute (merge, replace,
    // create, delete, remove).
    EditResult edit(std::string_view config_xml, const EditOptions& options = {});

    // Makes `config`, a complete configuration of the model in the engine's
    // context, the running configuration: validates it, then tells the
    // module about every difference, exactly as edit() does. This is
    // edit-config's second half, for callers that build the new tree
    // themselves (copy-config, benchmarks).
    EditResult replace_running(DataTree config, const EditOptions& options = {});
    // A copy of the running configuration (null when empty).
    DataTree copy_running() const;

    // The running configuration as XML text (the model's top-level elements;
    // empty text when the configuration is empty).
    std::string running_xml() const;
    const lyd_node* running_tree() const;  // owned by the engine; null when empty

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

    // The libyang context with the module's data model loaded. Owned by the
    // engine; valid for its lifetime.
    ly_ctx* context() const;

    // Name and namespace of the data model served.
    const std::string& model_name() const;
    const std::string& model_namespace() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tavrik::engine
