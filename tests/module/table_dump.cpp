// Prints the module's descriptors and callback table as the server reads
// them: the exported numbers, the namespace mapping, the custom data store
// functions by name, then one line a row with its index, priority, exported
// function name and path. The test compares this with callback_table.golden;
// scripts/regen-golden.sh rewrites that file, so that a change shows as a
// diff to review.
#include <dlfcn.h>

#include <cstdio>

#include "module.hpp"

using tktest::symbol;

int main() {
    const auto* table = static_cast<const transapi_data_callbacks*>(symbol("clbks"));
    if (table == nullptr) return 1;
    for (const char* name : {"transapi_version", "callbacks_order", "config_modified", "erropt"})
        std::printf("%s %d\n", name, *static_cast<const int*>(symbol(name)));
    std::printf("rpc_clbks %d\n", static_cast<const transapi_rpc_callbacks*>(symbol("rpc_clbks"))->callbacks_count);
    const auto* ns = static_cast<const ns_pair*>(symbol("namespace_mapping"));
    for (; ns->prefix != nullptr; ++ns) std::printf("namespace %s %s\n", ns->prefix, ns->href);
    std::printf("namespace end, href %s\n", ns->href ? ns->href : "null");
    const auto* funcs = static_cast<void* const*>(symbol("custom_funcs"));
    for (size_t i = 0; i < sizeof(ncds_custom_funcs) / sizeof(void*); ++i) {
        Dl_info info{};
        std::printf("custom_funcs %zu %s\n", i, funcs[i] == nullptr ? "null" : dladdr(funcs[i], &info) && info.dli_sname ? info.dli_sname : "?");
    }
    std::printf("callbacks_count %d, data %s\n", table->callbacks_count, table->data ? "set" : "null");
    for (int i = 0; i < table->callbacks_count; ++i) {
        const clbk& row = table->callbacks[i];
        std::string name = tktest::exportedName(reinterpret_cast<const void*>(row.func));
        std::printf("%3d %2d %s %s%s%s\n", i, row.priority, name.empty() ? "(not exported)" : name.c_str(),
                    row.path ? row.path : "(null)", row.schema_path ? " schema_path " : "",
                    row.schema_path ? row.schema_path : "");
    }
    return 0;
}
