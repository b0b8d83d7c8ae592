#include "tavrik/module.hpp"

#include <dlfcn.h>

#include "tavrik/engine.hpp"
#include "tavrik/runtime.hpp"

namespace tavrik::engine {

void* Module::symbol(const char* name) const { return dlsym(handle_, name); }

void* Module::address(const char* name) const {
    void* address = symbol(name);
    if (!address) throw EngineError("module " + path_ + " does not export \"" + name + "\"");
    return address;
}

Module::Module(const std::string& path) : path_(path) {
    // The module calls the runtime's functions: referring to the runtime
    // keeps it a needed library of every program that loads modules.
    void (*volatile runtime)() = &tavrik::runtime::reset;
    static_cast<void>(runtime);
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* why = dlerror();
        throw EngineError("cannot load module " + path + ": " + (why ? why : "unknown error"));
    }
    try {
        const int version = data<const int>("transapi_version");
        if (version != kInterfaceVersion)
            throw EngineError("module " + path + " is built for plug-in interface version " + std::to_string(version) +
                              "; this server speaks version " + std::to_string(kInterfaceVersion));
        const auto& table = data<const transapi_data_callbacks>("clbks");
        rows_ = {table.callbacks, static_cast<size_t>(table.callbacks_count)};
        order_ = data<const TRANSAPI_CLBCKS_ORDER_TYPE>("callbacks_order");
        for (const ns_pair* pair = &data<const ns_pair>("namespace_mapping"); pair->prefix; ++pair)
            namespaces_.emplace_back(pair->prefix, pair->href ? pair->href : "");
        init_ = function<decltype(init_)>("transapi_init");
        close_ = function<decltype(close_)>("transapi_close");
        get_state_data = function<GetStateData>("get_state_data");
        perform_getconfig = function<PerformGetconfig>("perform_getconfig");
    } catch (...) {
        dlclose(handle_);
        throw;
    }
}

Module::~Module() {
    if (initialised_) close_();
    dlclose(handle_);
}

void Module::init(xmlDocPtr running) {
    if (int result = init_(&running); result != 0)
        throw EngineError("module " + path_ + ": transapi_init failed with " + std::to_string(result));
    initialised_ = true;
}

std::string Module::function_name(const void* address) {
    Dl_info info{};
    if (dladdr(address, &info) && info.dli_sname) return info.dli_sname;
    return "a callback";
}

std::string Module::exported_name(const void* address) {
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_sname == nullptr || info.dli_saddr != address) return "";
    return info.dli_sname;
}

}  // namespace tavrik::engine
