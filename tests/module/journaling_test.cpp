// The runtime with journaling off (for benchmarks): the module's lines still
// reach the platform and its verdict comes back, refusals still make their
// error record, and nothing at all is journaled; reset() turns it back on.
#include "module_fixture.hpp"

namespace tktest {
namespace {

namespace rt = tavrik::runtime;

class CountingPlatform final : public rt::Platform {
public:
    int deliver(const std::vector<CachedLine>& lines, unsigned cmdOp) override {
        for (const CachedLine& line : lines) received.push_back(line.line + (cmdOp == CMD_DEL ? " (del)" : ""));
        return verdict;
    }
    rt::DocumentReply document(unsigned) override { return {}; }

    std::vector<std::string> received;
    int verdict = 0;
};

class JournalingTest : public ModuleTest {
protected:
    void TearDown() override {
        ModuleTest::TearDown();
        rt::reset();  // the platform below goes out of scope
    }

    void expectNothingJournaled() {
        const rt::Journal& j = journal();
        EXPECT_TRUE(j.cached.empty());
        EXPECT_TRUE(j.sends.empty());
        EXPECT_TRUE(j.refusals.empty());
        EXPECT_EQ(j.clears, 0);
        EXPECT_EQ(j.transforms, 0);
        EXPECT_TRUE(rt::pending_lines().empty());
    }

    CountingPlatform platform_;
};

TEST_F(JournalingTest, OffDeliversLinesAndVerdictsWithoutJournal) {
    rt::set_journaling(false);
    rt::set_platform(&platform_);
    platform_.verdict = 5;
    Tree tree(profileTree("<description>office</description>"));
    EXPECT_EQ(call("callback_AV_ProfileDescription_ADD", tree.at(kInProfile + "description"), ADD), 5);
    EXPECT_EQ(call("callback_AV_ProfileDescription_Delete", tree.at(kInProfile + "description"), REM), 5);
    EXPECT_EQ(platform_.received, (std::vector<std::string>{"description office", "undo description (del)"}));
    expectNothingJournaled();
}

TEST_F(JournalingTest, OffKeepsRefusalsAndDropsAndRecordOnly) {
    rt::set_journaling(false);
    rt::set_platform(&platform_);
    Tree refused(profileTree("<description>a?b</description>"));
    EXPECT_EQ(call("callback_AV_ProfileDescription_ADD", refused.at(kInProfile + "description"), ADD), 1);
    ASSERT_NE(error_, nullptr);
    EXPECT_EQ(error_->message, "The profile description has '?'.");
    EXPECT_EQ(error_->tag, NC_ERR_BAD_ELEM);

    Tree detect(profileTree("<detect><protocol-type>http</protocol-type></detect>"));
    EXPECT_EQ(call("callback_AV_ProfileDetect_ADD", detect.at(kInProfile + "detect"), ADD), 0);  // dropped

    rt::set_delivery(rt::Delivery::RecordOnly);
    platform_.verdict = 7;
    Tree tree(profileTree("<description>office</description>"));
    EXPECT_EQ(call("callback_AV_ProfileDescription_ADD", tree.at(kInProfile + "description"), ADD), 0);
    EXPECT_TRUE(platform_.received.empty());
    expectNothingJournaled();
}

TEST_F(JournalingTest, ResetTurnsJournalingBackOn) {
    rt::set_journaling(false);
    EXPECT_FALSE(rt::journaling());
    rt::reset();
    EXPECT_TRUE(rt::journaling());
    Tree tree(profileTree("<description>office</description>"));
    EXPECT_EQ(call("callback_AV_ProfileDescription_ADD", tree.at(kInProfile + "description"), ADD), 0);
    expectSent(profileLine("description office", CMD_ADD));
    EXPECT_EQ(journal().transforms, 1);
}

}  // namespace
}  // namespace tktest
