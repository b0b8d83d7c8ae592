// A configuration module loaded the way the server loads it: by path, with
// every descriptor and entry point found by name.
#pragma once

#include <span>
#include <string>
#include <utility>
#include <vector>

#include "transapi.h"

namespace tavrik::engine {

class Module {
public:
    static constexpr int kInterfaceVersion = 4;

    using GetStateData = xmlDocPtr (*)(xmlDocPtr model, xmlDocPtr running, struct nc_err** error);
    using PerformGetconfig = char* (*)(void* data, NC_DATASTORE target, struct nc_err** error);

    // Loads the library and reads its descriptors; throws EngineError.
    explicit Module(const std::string& path);
    ~Module();  // transapi_close (when init ran), then unload
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    // Calls transapi_init with the running configuration; throws on failure.
    void init(xmlDocPtr running);

    std::span<const clbk> rows() const { return rows_; }
    bool root_to_leaf() const { return order_ == TRANSAPI_CLBCKS_ROOT_TO_LEAF; }
    // Prefix -> namespace pairs of the callback paths.
    const std::vector<std::pair<std::string, std::string>>& namespaces() const { return namespaces_; }
    // The name of the function at `address`, for messages.
    static std::string function_name(const void* address);

    GetStateData get_state_data = nullptr;
    PerformGetconfig perform_getconfig = nullptr;

private:
    void* address(const char* name) const;  // throws when the module lacks it
    template <class T>
    const T& data(const char* name) const {
        return *static_cast<const T*>(address(name));
    }
    template <class F>
    F function(const char* name) const {
        return reinterpret_cast<F>(address(name));
    }

    std::string path_;
    void* handle_ = nullptr;
    std::span<const clbk> rows_;
    TRANSAPI_CLBCKS_ORDER_TYPE order_ = TRANSAPI_CLBCKS_ROOT_TO_LEAF;
    std::vector<std::pair<std::string, std::string>> namespaces_;
    int (*init_)(xmlDocPtr*) = nullptr;
    void (*close_)() = nullptr;
    bool initialised_ = false;
};

}  // namespace tavrik::engine
