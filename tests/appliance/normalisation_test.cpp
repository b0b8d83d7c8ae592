// Reading a running configuration as a NETCONF server keeps it, and the
// normalisations under which it compares with what the appliance shows.
#include <gtest/gtest.h>

#include "support.hpp"

namespace {

namespace av = tavrik::appliance;

const std::string kOpen = "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\">";

// Profile content of vs1/p1, as a configuration text.
std::string profile(const std::string& inner) {
    return kOpen + "<vsys><name>vs1</name><profiles><profile><name>p1</name>" + inner +
           "</profile></profiles></vsys></antivirus>";
}

struct Case {
    std::string name;
    std::string xml;
    std::vector<std::string> expected;  // describe() of the comparison form
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class Normalisation : public testing::TestWithParam<Case> {};

TEST_P(Normalisation, ComparisonForm) {
    EXPECT_EQ(av::describe(av::comparable(av::parse_configuration(GetParam().xml))), GetParam().expected);
}

const std::string P = "vsys[vs1]/profile[p1]";

// clang-format off
const Case kCases[] = {
    {"Empty", "", {}},
    {"InsideConfig", "<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + profile("") + "</config>", {P}},
    {"EmptyVsysDropped", kOpen + "<vsys><name>vs1</name></vsys></antivirus>", {}},
    {"TrimmedKeysAndValues", kOpen + "<vsys><name>vs1</name><profiles><profile><name> p1 </name><description>  d  </description>"
        "<heuristic-detect-enable> true </heuristic-detect-enable></profile></profiles></vsys></antivirus>",
        {P, P + "/description = \"d\"", P + "/heuristic-detect-enable = true"}},
    {"DaysAsHours", kOpen + "<global><file-reputation-age-time>7</file-reputation-age-time></global></antivirus>",
        {"global/file-reputation-age-time-hour = 168"}},
    {"HoursWinOverDays", kOpen + "<global><file-reputation-age-time>7</file-reputation-age-time>"
        "<file-reputation-age-time-hour>36</file-reputation-age-time-hour></global></antivirus>",
        {"global/file-reputation-age-time-hour = 36"}},
    {"ProtocolPrefix", profile("<detect><protocol-type>tk-antivirus:http</protocol-type><detect-configuration>"
        "<direction> both </direction></detect-configuration></detect>"),
        {P, P + "/detect[http]", P + "/detect[http]/direction = both"}},
    {"DetectWithoutSettingsDropped", profile("<detect><protocol-type>ftp</protocol-type></detect>"), {P}},
    {"NfsActionDropped", profile("<detect><protocol-type>nfs</protocol-type><detect-configuration>"
        "<direction>both</direction><action>alert</action></detect-configuration></detect>"),
        {P, P + "/detect[nfs]", P + "/detect[nfs]/direction = both"}},
    {"NoneDropsAction", profile("<detect><protocol-type>http</protocol-type><detect-configuration>"
        "<direction>none</direction><action>block</action></detect-configuration></detect>"),
        {P, P + "/detect[http]", P + "/detect[http]/direction = none"}},
    {"MailDirectionImplied", profile("<detect><protocol-type>pop3</protocol-type><detect-configuration>"
        "<action>alert</action></detect-configuration></detect>"),
        {P, P + "/detect[pop3]", P + "/detect[pop3]/action = alert", P + "/detect[pop3]/direction = download"}},
    {"SignatureFormsMerged", profile("<exception-signature-id> 7 </exception-signature-id>"
        "<exception-signature><id>8</id></exception-signature>"
        "<exception-signature><id>9</id><action>allow</action><timeout>5</timeout></exception-signature>"
        "<exception-signature><id>10</id><action>block-source-ip</action><timeout>5</timeout></exception-signature>"),
        {P, P + "/exception-signature[10]", P + "/exception-signature[10]/action = block-source-ip",
         P + "/exception-signature[10]/timeout = 5", P + "/exception-signature[7]", P + "/exception-signature[8]",
         P + "/exception-signature[9]", P + "/exception-signature[9]/action = allow"}},
    {"MatchTypeImpliedAndQuoteDecoded", profile("<whitelists><match-rules><match-rule><scope>url</scope><type>exact</type>"
        "<value> a%22b.com </value></match-rule></match-rules></whitelists>"),
        {P, P + "/match-rule[url \"a\"b.com\"]"}},
    {"AddressesTrimmed", profile("<whitelists><source-address> 10.0.0.1 </source-address><destination-address-range>"
        "<start-address> ::1</start-address><end-address>::2 </end-address></destination-address-range></whitelists>"),
        {P, P + "/destination-address-range[::1 ::2]", P + "/source-address[10.0.0.1]"}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Appliance, Normalisation, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

TEST(Normalisation, DaysConversionFollowsTheModule) {
    auto hours = [](const std::string& days) {
        auto config = av::parse_configuration(
            kOpen + "<global><file-reputation-age-time>" + days + "</file-reputation-age-time></global></antivirus>");
        return config.aging_hours.value_or(0);
    };
    EXPECT_EQ(hours("0"), 0u);
    EXPECT_EQ(hours(" 2 "), 48u);
    EXPECT_EQ(hours("1.5"), 24u);           // not a plain number: one day
    EXPECT_EQ(hours("4294967295"), 24u);   // the conversion's failure value
    EXPECT_EQ(hours("178956971"), 178956971u * 24u);  // wraps in 32 bits
}

TEST(Normalisation, UnreadableConfigurationsAreReported) {
    const std::string bad[] = {
        "<antivirus xmlns=\"urn:other\"/>",
        kOpen + "<vsys><name>vs1</name><colour>red</colour></vsys></antivirus>",
        kOpen + "<vsys><antivirus-enable>true</antivirus-enable></vsys></antivirus>",
        kOpen + "<vsys><name>vs1</name><antivirus-enable>yes</antivirus-enable></vsys></antivirus>",
        profile("<exception-signature-id>7</exception-signature-id><exception-signature><id> 7</id></exception-signature>"),
        kOpen + "<global><file-reputation-age-time-hour>x</file-reputation-age-time-hour></global></antivirus>",
        kOpen + "<vsys>",
    };
    for (const auto& xml : bad) EXPECT_THROW(av::parse_configuration(xml), av::ConfigurationError) << xml;
}

TEST(Normalisation, DifferencesNameTheItems) {
    auto a = av::parse_configuration(profile("<description>x</description>"));
    auto b = av::parse_configuration(profile("<description>y</description>"));
    EXPECT_EQ(av::differences(a, b),
              (std::vector<std::string>{"missing: " + P + "/description = \"x\"", "unexpected: " + P + "/description = \"y\""}));
    EXPECT_TRUE(av::differences(a, av::parse_configuration(profile("<description> x </description>"))).empty());
}

}  // namespace
