// A configuration module loaded the way the server loads it: by path, with
// every descriptor and entry point found by name. The engine runs modules
// through it; tests, fuzz targets and benchmarks load the module with it too
// and find any other exported symbol by name (symbol()).
//
// Loading reads transapi_version (which must be kInterfaceVersion), clbks,
// callbacks_order, namespace_mapping, transapi_init, transapi_close,
// get_state_data and perform_getconfig; a module that lacks one of them is
// refused with tavrik::engine::EngineError (tavrik/engine.hpp).
//
// The module names the server runtime (ietf-interfaces.so) as a needed
// library; linking this loader (CMake target tavrik-module) makes the runtime
// a needed library of the program, loaded before any module.
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
    const std::string& path() const { return path_; }

    // The exported symbol `name`, or null when the module does not export it.
    void* symbol(const char* name) const;
    // The exported symbol `name`; throws EngineError when there is none.
    void* address(const char* name) const;
    template <class F>
    F function(const char* name) const {
        return reinterpret_cast<F>(address(name));
    }
    template <class T>
    T& data(const char* name) const {
        return *static_cast<T*>(address(name));
    }

    // The name of the function at `address`, for messages ("a callback" when
    // no symbol is known there).
    static std::string function_name(const void* address);
    // The name of the exported symbol that starts at `address`, else "".
    static std::string exported_name(const void* address);

    GetStateData get_state_data = nullptr;
    PerformGetconfig perform_getconfig = nullptr;

private:
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
