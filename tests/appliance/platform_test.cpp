// The appliance behind the runtime's channel: messages of several lines,
// refusals, and every injected fault.
#include <gtest/gtest.h>

#include <cstring>

#include "support.hpp"

namespace {

using namespace appliance_test;
namespace av = tavrik::appliance;
namespace rt = tavrik::runtime;

std::vector<CachedLine> lines_of(const std::vector<Line>& lines) {
    std::vector<CachedLine> out;
    for (const auto& l : lines) out.push_back(l.line);
    return out;
}

TEST(AppliancePlatform, MessageIsAllOrNothing) {
    av::Appliance a;
    run_lines(a, {sys("profile type av name p1")});
    const auto before = a.configuration();
    int code = a.deliver(lines_of({pv("description first"), pv("telnet-detect direction both")}), ADD);
    EXPECT_EQ(code, av::kSyntax);
    EXPECT_EQ(a.configuration(), before);  // the accepted first line is gone as well
    ASSERT_TRUE(a.last_refusal());
    EXPECT_EQ(a.last_refusal()->line.line, "telnet-detect direction both");
    EXPECT_EQ(a.last_refusal()->code, av::kSyntax);
    EXPECT_NE(a.last_refusal()->reason, "");
    EXPECT_EQ(a.lines_executed(), 1u);  // the setup line only

    EXPECT_EQ(a.deliver(lines_of({pv("description first"), pv("heuristic-detect enable")}), ADD), 0);
    EXPECT_EQ(a.configuration().vsys.at("vs1").profiles.at("p1").description, "first");
    EXPECT_EQ(a.lines_executed(), 3u);
}

TEST(AppliancePlatform, RefuseTheNthLine) {
    av::Appliance a;
    a.refuse_line(3, 42);
    EXPECT_EQ(a.deliver(lines_of({sys("profile type av name p1")}), ADD), 0);
    EXPECT_EQ(a.deliver(lines_of({pv("description one")}), ADD), 0);
    const auto before = a.configuration();
    EXPECT_EQ(a.deliver(lines_of({pv("heuristic-detect enable")}), ADD), 42);
    EXPECT_EQ(a.configuration(), before);
    EXPECT_EQ(a.last_refusal()->line.line, "heuristic-detect enable");
    // Used once: the same line now passes.
    EXPECT_EQ(a.deliver(lines_of({pv("heuristic-detect enable")}), ADD), 0);
    // Counted across a message's lines, and the message goes as a whole.
    a.refuse_line(2);
    EXPECT_EQ(a.deliver(lines_of({pv("description two"), pv("undo heuristic-detect enable")}), ADD), av::kInjected);
    EXPECT_EQ(a.configuration().vsys.at("vs1").profiles.at("p1").description, "one");
    EXPECT_THROW(a.refuse_line(0), std::invalid_argument);
}

TEST(AppliancePlatform, FailedSendRunsNothing) {
    av::Appliance a;
    a.fail_send(9);
    EXPECT_EQ(a.deliver(lines_of({sys("profile type av name p1")}), ADD), 9);
    EXPECT_TRUE(a.configuration().vsys.empty());
    EXPECT_EQ(a.last_refusal()->line.line, "");
    EXPECT_EQ(a.deliver(lines_of({sys("profile type av name p1")}), ADD), 0);
    // clear_faults disarms everything.
    a.fail_send();
    a.refuse_line(1);
    a.fault_document(API_DP2QMX_GET_CONFIG, av::DocumentFault::NoReply);
    a.clear_faults();
    EXPECT_EQ(a.deliver(lines_of({pv("description x")}), ADD), 0);
    EXPECT_TRUE(a.document(API_DP2QMX_GET_CONFIG).with_reply);
}

// The appliance standing in for the server's vsys feature.
TEST(AppliancePlatform, RemovingVsysDropsEverythingOfThem) {
    av::Appliance a;
    run_lines(a, rich_lines());
    run_lines(a, {root("profile type av name pp")});
    ASSERT_TRUE(a.set_references("vs1", "p1", 3));
    const auto before = a.configuration();

    // A refused removal drops nothing; the fault is used once.
    a.fail_vsys_removal(5);
    EXPECT_EQ(a.remove_vsys({"vs2", "vs1"}), 5);
    EXPECT_EQ(a.configuration(), before);
    EXPECT_EQ(a.references("vs1", "p1"), 3u);
    ASSERT_TRUE(a.last_refusal());
    EXPECT_EQ(a.last_refusal()->line.vsys, "vs2");
    EXPECT_EQ(a.last_refusal()->code, 5);

    // Unknown names are no error; "public" loses its profiles, the global
    // aging time stays.
    EXPECT_EQ(a.remove_vsys({"vs1", "public", "nosuch"}), av::kAccepted);
    EXPECT_EQ(a.configuration().vsys.size(), 1u);
    EXPECT_EQ(a.configuration().vsys.at("vs2"), before.vsys.at("vs2"));
    EXPECT_EQ(a.configuration().aging_hours, 72u);
    // Made again, nothing of the old vsys comes back, references included.
    EXPECT_EQ(a.deliver(lines_of({sys("profile type av name p1")}), ADD), 0);
    EXPECT_EQ(a.configuration().vsys.at("vs1").profiles.at("p1"), av::Profile{});
    EXPECT_EQ(a.references("vs1", "p1"), 0u);
    EXPECT_EQ(a.remove_vsys({}), av::kAccepted);
}

struct FaultCase {
    std::string name;
    unsigned msg_type;
    av::DocumentFault fault;
};

void PrintTo(const FaultCase& c, std::ostream* out) { *out << c.name; }

class DocumentFaults : public testing::TestWithParam<FaultCase> {};

TEST_P(DocumentFaults, AnsweredOnceThenNormal) {
    const auto& c = GetParam();
    av::Appliance a;
    run_lines(a, rich_lines());
    const auto normal = a.document(c.msg_type);
    a.fault_document(c.msg_type, c.fault, 77);
    const auto other = c.msg_type == API_DP2QMX_NC_STATE ? API_DP2QMX_GET_CONFIG : API_DP2QMX_NC_STATE;
    EXPECT_EQ(a.document(other).result, 0);  // the other type is not affected
    const auto faulty = a.document(c.msg_type);
    switch (c.fault) {
        case av::DocumentFault::Malformed:
            EXPECT_EQ(faulty.result, 0);
            EXPECT_TRUE(faulty.with_reply);
            EXPECT_FALSE(faulty.data.empty());
            EXPECT_EQ(faulty.data.back() == '\0', c.msg_type == API_DP2QMX_GET_CONFIG);
            EXPECT_THROW(av::parse_configuration(faulty.data.substr(0, faulty.data.find('\0'))), av::ConfigurationError);
            break;
        case av::DocumentFault::Empty:
            EXPECT_EQ(faulty.result, 0);
            EXPECT_TRUE(faulty.with_reply);
            EXPECT_TRUE(faulty.data.empty());
            break;
        case av::DocumentFault::NoReply:
            EXPECT_EQ(faulty.result, 0);
            EXPECT_FALSE(faulty.with_reply);
            break;
        case av::DocumentFault::Failed:
            EXPECT_EQ(faulty.result, 77);
            EXPECT_TRUE(faulty.with_reply);
            EXPECT_EQ(faulty.data, normal.data);
            break;
    }
    const auto after = a.document(c.msg_type);
    EXPECT_EQ(after.result, 0);
    EXPECT_EQ(after.data, normal.data);
}

INSTANTIATE_TEST_SUITE_P(Appliance, DocumentFaults,
                         testing::Values(FaultCase{"ConfigMalformed", API_DP2QMX_GET_CONFIG, av::DocumentFault::Malformed},
                                         FaultCase{"ConfigEmpty", API_DP2QMX_GET_CONFIG, av::DocumentFault::Empty},
                                         FaultCase{"ConfigNoReply", API_DP2QMX_GET_CONFIG, av::DocumentFault::NoReply},
                                         FaultCase{"ConfigFailed", API_DP2QMX_GET_CONFIG, av::DocumentFault::Failed},
                                         FaultCase{"StateMalformed", API_DP2QMX_NC_STATE, av::DocumentFault::Malformed},
                                         FaultCase{"StateEmpty", API_DP2QMX_NC_STATE, av::DocumentFault::Empty},
                                         FaultCase{"StateNoReply", API_DP2QMX_NC_STATE, av::DocumentFault::NoReply},
                                         FaultCase{"StateFailed", API_DP2QMX_NC_STATE, av::DocumentFault::Failed}),
                         [](const auto& info) { return info.param.name; });

// Through the runtime's channel, as the module reaches the appliance.
class ThroughChannel : public testing::Test {
protected:
    void SetUp() override {
        rt::reset();
        rt::set_platform(&appliance);
    }
    void TearDown() override { rt::reset(); }

    static msg_dp_qmx_head_t header(unsigned type) {
        msg_dp_qmx_head_t h;
        std::memset(&h, 0, sizeof h);
        h.msg_type = type;
        h.model_type = API_MODULE_TK_AV;
        return h;
    }
    av::Appliance appliance;
};

TEST_F(ThroughChannel, CachedLinesReachTheAppliance) {
    api_script_cache_lines("vs1", "system", nullptr, "profile type av name p1");
    EXPECT_EQ(transapi_comm_with_qmx(header(API_DP2QMX_CMD_CONFIG), CMD_ADD, nullptr, nullptr, nullptr), 0);
    api_script_cache_lines("vs1", "profile-av-p1", "profile-av", "frobnicate");
    EXPECT_EQ(transapi_comm_with_qmx(header(API_DP2QMX_CMD_CONFIG), CMD_ADD, nullptr, nullptr, nullptr), av::kSyntax);
    EXPECT_EQ(av::describe(appliance.configuration()), std::vector<std::string>{"vsys[vs1]/profile[p1]"});
}

TEST_F(ThroughChannel, ConfigurationReplyCountsTheNul) {
    run_lines(appliance, rich_lines());
    msg_to_dp_t* reply = nullptr;
    ASSERT_EQ(transapi_comm_with_qmx(header(API_DP2QMX_GET_CONFIG), CMD_ADD, &reply, nullptr, nullptr), 0);
    ASSERT_NE(reply, nullptr);
    const std::string expected = appliance.running_config_xml();
    EXPECT_EQ(reply->msg_length, expected.size() + 1);
    EXPECT_EQ(std::string(reply->data, reply->msg_length), expected + '\0');
    SOS_Free(reinterpret_cast<void**>(&reply), __FILE__, __LINE__);

    appliance.fault_document(API_DP2QMX_GET_CONFIG, av::DocumentFault::Empty);
    ASSERT_EQ(transapi_comm_with_qmx(header(API_DP2QMX_GET_CONFIG), CMD_ADD, &reply, nullptr, nullptr), 0);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->msg_length, 0u);
    SOS_Free(reinterpret_cast<void**>(&reply), __FILE__, __LINE__);

    appliance.fault_document(API_DP2QMX_GET_CONFIG, av::DocumentFault::NoReply);
    EXPECT_EQ(transapi_comm_with_qmx(header(API_DP2QMX_GET_CONFIG), CMD_ADD, &reply, nullptr, nullptr), 0);
    EXPECT_EQ(reply, nullptr);
}

}  // namespace
