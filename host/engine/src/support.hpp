// Small helpers shared by the engine's parts: owners for libyang and libxml2
// objects, libyang errors as rpc-errors, instance paths.
#pragma once

#include <libxml/tree.h>
#include <libyang/libyang.h>

#include <memory>
#include <string>

#include "tavrik/engine.hpp"

namespace tavrik::engine {

using Tree = DataTree;

struct XmlDocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using XmlDoc = std::unique_ptr<xmlDoc, XmlDocFree>;

// While alive, libyang stores its last error in the context and prints
// nothing (on this thread).
class QuietLibyang {
public:
    QuietLibyang() { ly_temp_log_options(&options_); }
    ~QuietLibyang() { ly_temp_log_options(nullptr); }
    QuietLibyang(const QuietLibyang&) = delete;
    QuietLibyang& operator=(const QuietLibyang&) = delete;

private:
    uint32_t options_ = LY_LOSTORE_LAST;
};

inline std::string text_of(const xmlChar* text) { return text ? reinterpret_cast<const char*>(text) : ""; }

// The last libyang error of `ctx` as an rpc-error with `tag`; the data path
// and the line libyang reports go to path and line.
RpcError libyang_error(const ly_ctx* ctx, ErrorTag tag, ErrorType type = ErrorType::Application);

// A text libyang allocated, freed.
std::string take_text(char* text);

// The instance path of a node (libyang's notation, with keys).
std::string path_of(const lyd_node* node);

// The error in one line, for exceptions: message (path) at line N.
std::string describe(const RpcError& error);

// An rpc-error about `node`: its instance path and name.
RpcError error_at(const lyd_node* node, ErrorTag tag, std::string message, ErrorType type = ErrorType::Application);

}  // namespace tavrik::engine
