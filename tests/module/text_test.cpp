// Trimming, quoting and number conversion of node text.
#include "module_fixture.hpp"

namespace {

using namespace tktest;

struct TextFunctions {
    char* (*strip)(const char*, char*, int) = Module::get().fn<decltype(strip)>("AV_Strstrip");
    int (*removePrefix)(char*, int, char*, int) = Module::get().fn<decltype(removePrefix)>("AV_remove_prefix");
    unsigned (*hasSpaces)(const char*) = Module::get().fn<decltype(hasSpaces)>("AV_IsContainedSpaces");
    unsigned (*hasSpacesMarks)(char*) = Module::get().fn<decltype(hasSpacesMarks)>("AV_IsContainedSpacesMarks");
    unsigned (*checkName)(const char*, char*, char*, unsigned) =
        Module::get().fn<decltype(checkName)>("AV_netconf_checkNodeName");
    unsigned (*atoi)(unsigned char*, unsigned) = Module::get().fn<decltype(atoi)>("AV_ApiAtoi");
};

const TextFunctions& fns() {
    static TextFunctions f;
    return f;
}

// Runs AV_Strstrip into a 128-byte destination pre-filled with a marker.
std::optional<std::string> strip(const std::string& in, int size = 128) {
    char dst[256];
    std::memset(dst, 'Z', sizeof dst);
    dst[sizeof dst - 1] = '\0';
    char* r = fns().strip(in.c_str(), dst, size);
    if (r == nullptr) {
        EXPECT_EQ(dst[0], 'Z') << "destination touched on failure";
        return std::nullopt;
    }
    EXPECT_EQ(r, dst);
    return std::string(dst);
}

TEST(Strstrip, TrimsBothEndsAndKeepsInnerWhiteSpace) {
    EXPECT_EQ(strip("  a b "), "a b");
    EXPECT_EQ(strip("\t\r\n\v\fx\f"), "x");
    EXPECT_EQ(strip("p1"), "p1");
    EXPECT_EQ(strip("\xa0p\xa0"), "\xa0p\xa0") << "bytes above 127 are not white space";
}

TEST(Strstrip, RefusesEmptyBlankAndTooLong) {
    EXPECT_EQ(strip(""), std::nullopt);
    EXPECT_EQ(strip("   "), std::nullopt);
    EXPECT_EQ(strip("\t\r\t\r"), std::nullopt);
    EXPECT_EQ(strip(std::string(127, 'a')), std::string(127, 'a'));
    EXPECT_EQ(strip("  " + std::string(127, 'a') + "\t "), std::string(127, 'a'));
    EXPECT_EQ(strip(std::string(128, 'a')), std::nullopt);
    EXPECT_EQ(strip("ab", 2), std::nullopt) << "the value must be shorter than the destination";
    EXPECT_EQ(strip("a", 0), std::nullopt);
    EXPECT_EQ(strip("a", -5), std::nullopt);
    char dst[4];
    EXPECT_EQ(fns().strip(nullptr, dst, 4), nullptr);
    EXPECT_EQ(fns().strip("a", nullptr, 4), nullptr);
}

TEST(RemovePrefix, KeepsTheKeywordBehindTheFirstColon) {
    struct Case {
        std::string in;
        std::string out;
    } cases[] = {
        {"x:http", "http"},
        {"http", "http"},
        {":http", "http"},
        {"x:", ""},
        {"a:b:c", "bc"},
        {"tk-antivirus:pop3", "pop3"},
        {"p:" + std::string(40, 'k'), std::string(31, 'k')},
        {std::string(31, 'u'), std::string(31, 'u')},
        {std::string(32, 'u'), ""},
        {std::string(50, 'u'), ""},
    };
    for (const auto& c : cases) {
        char dst[32] = {};
        std::string in = c.in;
        EXPECT_EQ(fns().removePrefix(in.data(), static_cast<int>(in.size()), dst, sizeof dst), 0) << c.in;
        EXPECT_EQ(std::string(dst), c.out) << c.in;
    }
}

TEST(RemovePrefix, LengthLimitsTheScanAndNullsAreRefused) {
    char dst[32] = {};
    char in[] = "x:http";
    EXPECT_EQ(fns().removePrefix(in, 0, dst, sizeof dst), 0);
    EXPECT_EQ(std::string(dst), "");
    EXPECT_EQ(fns().removePrefix(in, 4, dst, sizeof dst), 0);
    EXPECT_EQ(std::string(dst), "ht");
    EXPECT_EQ(fns().removePrefix(nullptr, 3, dst, sizeof dst), 1);
    EXPECT_EQ(fns().removePrefix(in, 6, nullptr, 32), 1);
    char guard[4] = {'G', 'G', 'G', 'G'};
    EXPECT_EQ(fns().removePrefix(in, 6, guard + 1, 0), 0);
    EXPECT_EQ(std::string(guard, 4), "GGGG") << "no room: nothing written";
}

TEST(ContainedSpaces, AnyOfTheSixWhiteSpaceBytes) {
    EXPECT_EQ(fns().hasSpaces("ab"), 1u);
    EXPECT_EQ(fns().hasSpaces("a b"), 0u);
    EXPECT_EQ(fns().hasSpaces("a\tb"), 0u);
    EXPECT_EQ(fns().hasSpaces("a\vb"), 0u);
    EXPECT_EQ(fns().hasSpaces(""), 1u);
    EXPECT_EQ(fns().hasSpaces(nullptr), 1u);
}

TEST(ContainedSpacesMarks, RewritesQuotesAndFlagsBlanksAndQuestionMarks) {
    struct Case {
        std::string in;
        unsigned result;
        std::string out;
    } cases[] = {
        {"a?b", 0, "a?b"},
        {"a\"b", 1, "a%22b"},
        {"\"a \"", 0, "%22a %22"},
        {"plain", 1, "plain"},
        {"\"\"", 1, "%22%22"},
        {"", 1, ""},
    };
    for (const auto& c : cases) {
        char buf[128] = {};
        std::memcpy(buf, c.in.data(), c.in.size());
        EXPECT_EQ(fns().hasSpacesMarks(buf), c.result) << c.in;
        EXPECT_EQ(std::string(buf), c.out) << c.in;
    }
    EXPECT_EQ(fns().hasSpacesMarks(nullptr), 1u);
}

TEST(ContainedSpacesMarks, LongValuesGrowInTheCallersBuffer) {
    // 200 characters with a quote near the front: the tail moves intact.
    std::string in = "a\"" + std::string(198, 'b');
    std::vector<char> buf(in.size() + 3, '\0');
    std::memcpy(buf.data(), in.data(), in.size());
    EXPECT_EQ(fns().hasSpacesMarks(buf.data()), 1u);
    EXPECT_EQ(std::string(buf.data()), "a%22" + std::string(198, 'b'));
}

TEST(CheckNodeName, TrimsAndQuotesNamesWithWhiteSpace) {
    struct Case {
        std::string in;
        unsigned result;
        std::string out;
    } cases[] = {
        {" p1 ", 0, "p1"},
        {"my profile", 0, "\"my profile\""},
        {"a\tb", 0, "\"a\tb\""},
        {"   ", 1, "untouched"},
        {"", 1, "untouched"},
        {std::string(128, 'x'), 1, "untouched"},
        {std::string(125, 'x') + " y", 0, "\"" + std::string(125, 'x') + " "},  // 127 chars: last one lost too
        {std::string(125, 'x') + " ", 0, std::string(125, 'x')},
        {std::string(124, 'x') + " y", 0, "\"" + std::string(124, 'x') + " y"},  // 126 chars: closing quote lost
        {std::string(123, 'x') + " y", 0, "\"" + std::string(123, 'x') + " y\""},
        {std::string(126, 'x') + " y", 1, "untouched"},  // 128 characters
    };
    for (const auto& c : cases) {
        char tmp[128] = {}, out[128] = "untouched";
        EXPECT_EQ(fns().checkName(c.in.c_str(), tmp, out, 128), c.result) << c.in;
        EXPECT_EQ(std::string(out), c.out) << c.in;
    }
}

TEST(ApiAtoi, DecimalDigitsOnlyWithSilentWrap) {
    struct Case {
        std::string in;
        unsigned len;
        unsigned value;
    } cases[] = {
        {"0", 1, 0},
        {"007", 3, 7},
        {"168", 3, 168},
        {"12a", 3, 0xFFFFFFFFu},
        {"-1", 2, 0xFFFFFFFFu},
        {" 1", 2, 0xFFFFFFFFu},
        {"5", 0, 0xFFFFFFFFu},
        {"4294967296", 10, 0},
        {"4294967295", 10, 0xFFFFFFFFu},
        {"4294967297", 10, 1},
        {"123", 2, 12},
        {std::string("1\0" "2", 3), 3, 0xFFFFFFFFu},
    };
    for (const auto& c : cases) {
        std::string s = c.in;
        EXPECT_EQ(fns().atoi(reinterpret_cast<unsigned char*>(s.data()), c.len), c.value) << c.in;
    }
    EXPECT_EQ(fns().atoi(nullptr, 3), 0xFFFFFFFFu);
}

}  // namespace
