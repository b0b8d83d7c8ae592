// The exported descriptors, and the rows of the callback table by kind: a
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

TEST(Descriptors, AsTheServerReadsThem) {
    EXPECT_EQ(descriptor<int>("transapi_version"), 4);
    EXPECT_EQ(descriptor<int>("callbacks_order"), TRANSAPI_CLBCKS_ROOT_TO_LEAF);
    EXPECT_EQ(descriptor<int>("config_modified"), 0);
    EXPECT_EQ(descriptor<int>("erropt"), NC_EDIT_ERROPT_NOTSET);
    EXPECT_EQ(descriptor<transapi_rpc_callbacks>("rpc_clbks").callbacks_count, 0);
    const ns_pair* ns = &descriptor<ns_pair>("namespace_mapping");
    EXPECT_STREQ(ns[0].prefix, "tk-antivirus");
    EXPECT_STREQ(ns[0].href, "urn:tavrik:params:xml:ns:yang:tavrik-antivirus");
    EXPECT_EQ(ns[1].prefix, nullptr);
    EXPECT_EQ(ns[1].href, nullptr);
    const ncds_custom_funcs expected = {custom_init,       custom_free,         custom_changed,   custom_rollback,
                                        custom_lock,       custom_unlock,       nullptr,          custom_getconfig,
                                        custom_copyconfig, custom_deleteconfig, custom_editconfig};
    const auto* members = reinterpret_cast<const void* const*>(&descriptor<ncds_custom_funcs>("custom_funcs"));
    for (size_t i = 0; i < sizeof expected / sizeof(void*); ++i)
        EXPECT_EQ(members[i], reinterpret_cast<const void* const*>(&expected)[i]) << "custom_funcs member " << i;
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
