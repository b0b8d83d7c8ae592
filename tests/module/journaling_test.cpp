// The runtime with journaling off (for benchmarks of the module): lines still
// reach the platform and its verdict comes back, refusals still make their
// error record, nothing is journaled; reset() turns journaling on.
#include "fixture.hpp"

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

class Journaling : public ModuleTest {
protected:
    void TearDown() override {
        ModuleTest::TearDown();
        rt::reset();  // the platform below goes out of scope
    }
    CountingPlatform platform_;
};

TEST_F(Journaling, OffDeliversAndRefusesWithoutJournal) {
    rt::set_journaling(false);
    rt::set_platform(&platform_);
    platform_.verdict = 5;
    Tree tree(profileTree("<description>office</description><detect><protocol-type>http</protocol-type></detect>"));
    Tree refused(profileTree("<description>a?b</description>"));
    EXPECT_EQ(call("callback_AV_ProfileDescription_ADD", tree.at(kInProfile + "description"), ADD), 5);
    EXPECT_EQ(call("callback_AV_ProfileDescription_Delete", tree.at(kInProfile + "description"), REM), 5);
    EXPECT_EQ(call("callback_AV_ProfileDetect_ADD", tree.at(kInProfile + "detect"), ADD), 0);  // dropped
    EXPECT_EQ(platform_.received, (std::vector<std::string>{"description office", "undo description (del)"}));
    EXPECT_EQ(call("callback_AV_ProfileDescription_ADD", refused.at(kInProfile + "description"), ADD), 1);
    ASSERT_NE(error_, nullptr);
    EXPECT_EQ(error_->tag, NC_ERR_BAD_ELEM);
    rt::set_delivery(rt::Delivery::RecordOnly);
    EXPECT_EQ(call("callback_AV_ProfileDescription_ADD", tree.at(kInProfile + "description"), ADD), 0);
    EXPECT_EQ(platform_.received.size(), 2u) << "recorded only, not delivered";
    const rt::Journal& j = journal();
    EXPECT_TRUE(j.cached.empty() && j.sends.empty() && j.refusals.empty() && rt::pending_lines().empty());
    EXPECT_EQ(j.clears + j.transforms, 0);
    rt::reset();
    EXPECT_TRUE(rt::journaling());
}

}  // namespace
}  // namespace tktest
