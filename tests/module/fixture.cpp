#include "fixture.hpp"

namespace tktest {

std::string profileTree(const std::string& body, const char* vsys, const char* profile) {
    auto key = [](const char* name) { return name ? element("name", name) : std::string(); };
    return "<antivirus><vsys>" + key(vsys) + "<profiles><profile>" + key(profile) + body +
           "</profile></profiles></vsys></antivirus>";
}

void ModuleTest::SetUp() {
    tavrik::runtime::reset();
    debugSwitch() = 0;
}

void ModuleTest::clearError() {
    tavrik::runtime::free_error(error_);
    error_ = nullptr;
}

int ModuleTest::call(const char* name, xmlNodePtr node, int op, const ScriptedParents& parents) {
    clearError();
    void* handle = const_cast<ScriptedParents*>(&parents);
    return callback(name)(&handle, static_cast<XMLDIFF_OP>(op), node, &error_);
}

void ModuleTest::expectHeader(const tavrik::runtime::Send& send, unsigned msgType) {
    for (size_t i = 0; i < send.header.size(); ++i)
        ASSERT_EQ(send.header[i], i == 4 ? msgType : i == 8 ? API_MODULE_TK_AV : 0) << "header byte " << i;
}

void ModuleTest::expect(int result, const Expected& e) {
    const auto& j = journal();
    EXPECT_EQ(j.clears, e.kind == Expected::Dropped ? 1 : 0);
    EXPECT_EQ(j.refusals.size(), e.kind == Expected::Refused ? 1u : 0u)
        << (j.refusals.empty() ? "" : "refused: " + j.refusals[0].message);
    ASSERT_EQ(j.sends.size(), e.kind == Expected::Sent ? 1u : 0u);
    switch (e.kind) {
        case Expected::Sent:
            EXPECT_EQ(result, 0);
            EXPECT_EQ(j.cached, std::vector<CachedLine>{e.line}) << "one line, cached before the send";
            EXPECT_EQ(j.sends[0].lines, std::vector<CachedLine>{e.line});
            EXPECT_EQ(j.sends[0].cmd_op, e.cmdOp);
            EXPECT_EQ(j.sends[0].origin, e.origin);
            expectHeader(j.sends[0], API_DP2QMX_CMD_CONFIG);
            break;
        case Expected::Refused:
            EXPECT_EQ(result, 1);
            ASSERT_EQ(j.refusals.size(), 1u);
            EXPECT_EQ(j.refusals[0].message, e.message);
            EXPECT_EQ(j.refusals[0].path, e.path);
            EXPECT_EQ(j.refusals[0].flag, 1);
            EXPECT_EQ(j.refusals[0].tag, e.tag);
            ASSERT_NE(error_, nullptr);
            EXPECT_EQ(error_->message, e.message);
            EXPECT_TRUE(j.cached.empty()) << "cached before refusing: " << j.cached[0].line;
            break;
        case Expected::Dropped:
        case Expected::Quiet:
            EXPECT_EQ(result, e.result);
            EXPECT_TRUE(j.cached.empty());
            EXPECT_EQ(error_, nullptr);
            break;
    }
}

}  // namespace tktest
