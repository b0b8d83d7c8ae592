// The rows of the callback table by kind: a
// wrapper lets its half of the operations through to its change handler, an
// accept-and-do-nothing row touches nothing. Rows, paths, names and
// priorities are pinned by callback_table.golden.
#include "fixture.hpp"

namespace tktest {
namespace {

template <class T>
const T& descriptor(const char* name) {
    return *exported<const T*>(name);
}

// The descriptors are pinned by callback_table.golden; the init leaves the
// running document as it is.
TEST(Descriptors, InitLeavesTheRunningDocument) {
    xmlDoc doc{};
    xmlDocPtr running = &doc;
    EXPECT_EQ(exported<int (*)(xmlDocPtr*)>("transapi_init")(&running), 0);
    EXPECT_EQ(running, &doc);
}

using CallbackRows = ModuleTest;

// Every handler refuses a bare node before it looks at the operation: a
// wrapper that lets a change through leaves the same refusal as its handler.
TEST_F(CallbackRows, WrappersLetTheirHalfThroughAndNoOpsTouchNothing) {
    const auto& table = descriptor<transapi_data_callbacks>("clbks");
    Tree bare("<x/>");
    int wrappers = 0;
    for (int i = 0; i < table.callbacks_count; ++i) {
        const std::string name = exportedName(reinterpret_cast<const void*>(table.callbacks[i].func));
        SCOPED_TRACE(name);
        const std::string half = name.substr(name.rfind('_') + 1), handler = name.substr(0, name.rfind('_'));
        const bool wrapper = (half == "ADD" || half == "Delete") && symbol(handler.c_str()) != nullptr;
        wrappers += wrapper;
        for (int op : {REM | ADD, 0, ADD, MOD, CHAIN, ADD | MOD | CHAIN | 16, REM, REM | CHAIN | 32}) {
            SCOPED_TRACE(op);
            tavrik::runtime::reset();
            if (wrapper && ((op & REM) != 0) == (half == "Delete")) {
                const int direct = call(handler.c_str(), bare.root(), op & (ADD | REM | MOD | CHAIN));
                const tavrik::runtime::Refusal refusal = journal().refusals.at(0);
                tavrik::runtime::reset();
                EXPECT_EQ(call(name.c_str(), bare.root(), op), direct);
                EXPECT_EQ(journal().transforms, 1);
                ASSERT_EQ(journal().refusals.size(), 1u);
                EXPECT_EQ(journal().refusals[0].message, refusal.message);
                EXPECT_EQ(journal().refusals[0].path, refusal.path);
            } else {
                expect(call(name.c_str(), bare.root(), op), Expected{});
                EXPECT_EQ(journal().transforms, 0);
            }
            if (!wrapper) break;  // one call of a no-op row
        }
    }
    EXPECT_EQ(wrappers, 46);
}

}  // namespace
}  // namespace tktest
