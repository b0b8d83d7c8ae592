// The value rules, called by name, from the table cases/values.cases: the
// inputs of a row go to the function, its outputs are compared with the rest.
#include <cstring>
#include <functional>

#include "cases.hpp"
#include "fixture.hpp"

namespace tktest {
namespace {

// A row's inputs, decoded, each with room to grow in place; "-" is null.
struct Inputs {
    std::vector<std::string> raw, value;
    char* text(size_t i) { return raw.at(i) == "-" ? nullptr : value[i].data(); }
    int number(size_t i) const { return std::stoi(value.at(i)); }
};
using Outputs = std::vector<std::string>;
const std::string kDirections[] = {"none", "both", "upload", "download", "", "Upload", "upload ", "NONE"};
const std::string kActions[] = {"alert", "block", "declare", "delete-attachment", "", "Alert", "block ", "quarantine"};

// Calls the exported C function `name` with `args` as its parameters.
template <class R, class... Args>
R invoke(const char* name, Args... args) {
    return exported<R (*)(Args...)>(name)(args...);
}
std::string number(unsigned n) { return std::to_string(n); }

// Per table: the call, from the inputs to the outputs.
const std::map<std::string, std::function<Outputs(Inputs&)>> kFunctions = {
    {"AV_Strstrip",
     [](Inputs& in) {
         char dst[256];
         std::memset(dst, 'Z', sizeof dst - 1);
         dst[sizeof dst - 1] = '\0';
         char* trimmed = invoke<char*, const char*, char*, int>("AV_Strstrip", in.text(0), dst, in.number(1));
         EXPECT_TRUE(trimmed == dst || dst[0] == 'Z') << "destination touched on failure";
         return Outputs{trimmed == dst ? std::string(dst) : "-"};
     }},
    {"AV_remove_prefix",
     [](Inputs& in) {
         char dst[32] = {};
         return Outputs{number(invoke<int, char*, int, char*, int>("AV_remove_prefix", in.text(0), in.number(1), dst, 32)), dst};
     }},
    {"AV_IsContainedSpaces",
     [](Inputs& in) { return Outputs{number(invoke<unsigned, const char*>("AV_IsContainedSpaces", in.text(0)))}; }},
    {"AV_IsContainedSpacesMarks",
     [](Inputs& in) {
         in.value[0].resize(in.value[0].size() * 3 + 1, '\0');
         unsigned r = invoke<unsigned, char*>("AV_IsContainedSpacesMarks", in.text(0));
         return Outputs{number(r), in.value[0].c_str()};
     }},
    {"AV_netconf_checkNodeName",
     [](Inputs& in) {
         char tmp[128] = {}, name[128] = "untouched";
         unsigned r = invoke<unsigned, const char*, char*, char*, unsigned>("AV_netconf_checkNodeName", in.text(0), tmp, name, 128u);
         return Outputs{number(r), name};
     }},
    {"AV_ApiAtoi",
     [](Inputs& in) {
         auto* digits = reinterpret_cast<unsigned char*>(in.text(0));
         return Outputs{number(invoke<unsigned, unsigned char*, unsigned>("AV_ApiAtoi", digits, in.number(1)))};
     }},
    {"AV_CheckProtocolAndGetValid",
     [](Inputs& in) {
         char dst[32] = "-";
         unsigned r = invoke<unsigned, const char*, char*, unsigned>("AV_CheckProtocolAndGetValid", in.text(0), dst, 32u);
         return Outputs{number(r), r == 0 ? dst : "-"};
     }},
    // Each direction and action admitted or not; both together only when each is.
    {"detection matrix",
     [](Inputs& in) {
         Outputs admitted(2);
         for (std::string d : kDirections)
             admitted[0] += invoke<unsigned, char*, char*>("AV_CheckDetectDirConfig", d.data(), in.text(0)) ? 'N' : 'Y';
         for (std::string a : kActions)
             admitted[1] += invoke<unsigned, char*, char*>("AV_CheckDetectActionConfig", a.data(), in.text(0)) ? 'N' : 'Y';
         for (size_t d = 0; d < std::size(kDirections); ++d)
             for (size_t a = 0; a < std::size(kActions); ++a) {
                 std::string dir = kDirections[d], act = kActions[a];
                 EXPECT_EQ(invoke<unsigned>("AV_CheckDetectConfig", dir.data(), act.data(), in.text(0)),
                           admitted[0][d] == 'Y' && admitted[1][a] == 'Y' ? 0u : 1u) << dir << " / " << act;
             }
         return admitted;
     }},
    {"AV_GetInputMatchType",
     [](Inputs& in) {
         unsigned type = 99;
         invoke<void>("AV_GetInputMatchType", in.text(0), &type);
         return Outputs{number(type)};
     }},
    {"AV_MatchTypeCorrect",
     [](Inputs& in) { return Outputs{number(invoke<unsigned>("AV_MatchTypeCorrect", in.text(0), in.text(1)))}; }},
    {"child readers",
     [](Inputs& in) {
         std::string xml = in.value[3];
         for (size_t at; (at = xml.find("$1")) != std::string::npos;) xml.replace(at, 2, in.value[1]);
         for (size_t at; (at = xml.find("$2")) != std::string::npos;) xml.replace(at, 2, in.value[2]);
         Tree tree(xml);
         char first[32] = "old", second[32] = "old";
         invoke<void, xmlNodePtr, char*, unsigned, char*, unsigned>(in.value[0].c_str(), tree.root(), first, 32u, second, 32u);
         return Outputs{first, second};
     }},
};

TEST(ValueRules, AsTheTablesSay) {
    for (const CaseSection& section : readCases(std::string(TKTEST_CASES_DIR) + "/values.cases", "function")) {
        const auto& function = kFunctions.at(section.title);
        const size_t inputs = std::stoul(section.cases.at(0).setting("inputs"));
        for (const Case& c : section.cases) {
            SCOPED_TRACE(c.where);
            Inputs in;
            Outputs expected;
            for (size_t i = 0; i < c.columns.size(); ++i) {
                const bool null = c.columns[i] == "-";
                if (i < inputs) {
                    in.raw.push_back(c.columns[i]);
                    in.value.push_back(null ? "" : decode(c.columns[i]));
                } else {
                    expected.push_back(null ? "-" : decode(c.columns[i]));
                }
            }
            EXPECT_EQ(function(in), expected);
        }
    }
}

TEST(ValueRules, NullDestinationsAreRefusedAndNoRoomWritesNothing) {
    char in[] = "x:http", guard[4] = {'G', 'G', 'G', 'G'}, http[] = "http", alert[] = "alert", small[4];
    EXPECT_EQ((invoke<char*, const char*, char*, int>("AV_Strstrip", "a", nullptr, 4)), nullptr);
    EXPECT_EQ((invoke<int, char*, int, char*, int>("AV_remove_prefix", in, 6, nullptr, 32)), 1);
    EXPECT_EQ((invoke<int, char*, int, char*, int>("AV_remove_prefix", in, 6, guard + 1, 0)), 0);
    EXPECT_EQ(std::string(guard, 4), "GGGG");
    EXPECT_EQ((invoke<unsigned, char*, char*, char*>("AV_CheckDetectConfig", nullptr, alert, http)), 1u);
    EXPECT_EQ((invoke<unsigned, char*, char*, char*>("AV_CheckDetectConfig", http, nullptr, http)), 1u);
    auto protocol = exported<unsigned (*)(const char*, char*, unsigned)>("AV_CheckProtocolAndGetValid");
    EXPECT_EQ(protocol("smtp", small, sizeof small), 1u) << "must be shorter than the destination";
    EXPECT_EQ(protocol("nfs", small, sizeof small), 0u);
    EXPECT_EQ(protocol("http", nullptr, 32), 1u);
    const auto* keywords = static_cast<const char* const*>(symbol("g_acAvMatchType"));
    ASSERT_NE(keywords, nullptr);
    EXPECT_EQ(std::vector<std::string>(keywords, keywords + 4),
              (std::vector<std::string>{"prefix", "suffix", "fuzzy", "exact"}));
}

}  // namespace
}  // namespace tktest
