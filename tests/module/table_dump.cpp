// Prints the module's callback table as the server reads it: one line a row
// with its index, priority, exported function name and path. The test
// compares this with callback_table.golden; scripts/regen-golden.sh rewrites
// that file, so that a change of the table shows as a diff to review.
#include <cstdio>

#include "module.hpp"

int main() {
    const auto* table = static_cast<const transapi_data_callbacks*>(tktest::symbol("clbks"));
    if (table == nullptr) return 1;
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
