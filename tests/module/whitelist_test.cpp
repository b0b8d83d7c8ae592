// Whitelists of a profile: URL and host match rules with their match types,
// and single addresses and address ranges.
#include "module_fixture.hpp"

namespace {

using namespace tktest;

// ---- match types -------------------------------------------------------

using MatchType = ModuleTest;

TEST_F(MatchType, FirstAndLastCharacterDecide) {
    auto typeOf = [](std::string value) {
        unsigned type = 99;
        Module::get().fn<void (*)(char*, unsigned*)>("AV_GetInputMatchType")(value.data(), &type);
        return type;
    };
    const std::vector<std::pair<std::string, unsigned>> cases = {
        {"www.a.*", 0}, {"a*", 0}, {"*.a.com", 1}, {"*a", 1}, {"*a*", 2}, {"*", 2},
        {"**", 2},      {"a*b", 3}, {"www.a.com", 3}, {"a", 3}, {"a**b", 3}};
    for (const auto& [value, type] : cases) EXPECT_EQ(typeOf(value), type) << value;

    const auto* keywords = static_cast<const char* const*>(Module::get().sym("g_acAvMatchType"));
    ASSERT_NE(keywords, nullptr);
    const char* expected[] = {"prefix", "suffix", "fuzzy", "exact"};
    for (int i = 0; i < 4; ++i) EXPECT_STREQ(keywords[i], expected[i]) << i;
}

TEST_F(MatchType, DeclaredKeywordMustBeExact) {
    auto correct = Module::get().fn<unsigned (*)(char*, char*)>("AV_MatchTypeCorrect");
    const std::vector<std::tuple<std::string, std::string, unsigned>> cases = {
        {"a*", "prefix", 0},  {"*a", "suffix", 0},  {"*a*", "fuzzy", 0},  {"*", "fuzzy", 0},   {"a*b", "exact", 0},
        {"a*", "suffix", 1},  {"*a", "prefix", 1},  {"*a*", "exact", 1},  {"ab", "fuzzy", 1},  {"ab", "Exact", 1},
        {"a*", " prefix", 1}, {"a*", "prefix ", 1}, {"ab", "regex", 1},   {"ab", "", 1}};
    for (auto [value, type, result] : cases)
        EXPECT_EQ(correct(value.data(), type.data()), result) << value << " / '" << type << "'";
    char value[] = "a", type[] = "exact";
    EXPECT_EQ(correct(nullptr, type), 1u);
    EXPECT_EQ(correct(value, nullptr), 1u);
}

// ---- match-rule value ---------------------------------------------------

const std::string kValue = kInProfile + "whitelists/match-rules/match-rule/value";
const std::string kSpaces = "av remove spaces failed.";

// A rule with the given leaves (null: absent) and a value leaf.
std::string rule(const char* scope, const char* type, const std::string& value) {
    std::string leaves;
    if (scope) leaves += "<scope>" + std::string(scope) + "</scope>";
    if (type) leaves += "<type>" + std::string(type) + "</type>";
    return profileTree("<whitelists><match-rules><match-rule>" + leaves + "<value>" + value +
                       "</value></match-rule></match-rules></whitelists>");
}

using WhitelistTest = ModuleTest;

TEST_F(WhitelistTest, MatchRuleValueLine) {
    const std::string u127(127, 'u'), u128(128, 'u');
    const std::string fitsQuoted = std::string(62, 'q') + "\"" + std::string(62, 'q');  // 125 + 2 = 127
    const std::string overQuoted = std::string(62, 'q') + "\"" + std::string(63, 'q');  // 126 + 2 = 128
    const std::string rewritten = std::string(62, 'q') + "%22" + std::string(62, 'q');
    run("callback_AV_ProfileWhitelistMatchRuleValue", kProfilePath + "/match-rule/value", {
        {"exact", rule("url", "exact", "www.a.com"), kValue, ADD, sent("whitelist url www.a.com", 0)},
        {"removal", rule("url", "exact", "www.a.com"), kValue, REM, sent("undo whitelist url www.a.com", 1)},
        {"removal with addition bit", rule("host", "exact", "h"), kValue, REM | ADD, sent("undo whitelist host h", 1)},
        {"prefix", rule("url", "prefix", "www.a.*"), kValue, MOD, sent("whitelist url www.a.*", 0)},
        {"suffix", rule("url", "suffix", "*.a.com"), kValue, ADD, sent("whitelist url *.a.com", 0)},
        {"fuzzy", rule("url", "fuzzy", "*a*"), kValue, ADD, sent("whitelist url *a*", 0)},
        {"single asterisk", rule("host", "fuzzy", "*"), kValue, ADD, sent("whitelist host *", 0)},
        {"inner asterisk", rule("url", "exact", "a*b"), kValue, ADD, sent("whitelist url a*b", 0)},
        {"trimmed before the type", rule("url", "prefix", " www.a.*  "), kValue, ADD, sent("whitelist url www.a.*", 0)},
        {"question mark", rule("url", "exact", "a?b"), kValue, ADD, sent("whitelist url \"a?b\"", 0)},
        {"blank", rule("url", "exact", "a b"), kValue, ADD, sent("whitelist url \"a b\"", 0)},
        {"quote", rule("url", "exact", "a\"b"), kValue, ADD, sent("whitelist url a%22b", 0)},
        {"quotes and blank", rule("url", "exact", "\"a b\""), kValue, ADD, sent("whitelist url \"%22a b%22\"", 0)},
        {"quote removed", rule("url", "exact", "a\"b"), kValue, REM, sent("undo whitelist url a%22b", 1)},
        {"host unquoted", rule("host", "exact", "a b"), kValue, ADD, sent("whitelist host a b", 0)},
        {"host unrewritten", rule("host", "exact", "a\"b?"), kValue, REM, sent("undo whitelist host a\"b?", 1)},
        {"127 characters", rule("url", "exact", " " + u127 + " "), kValue, ADD, sent("whitelist url " + u127, 0)},
        {"127 with quotes, host", rule("host", "exact", std::string(127, '"')), kValue, ADD,
         sent("whitelist host " + std::string(127, '"'), 0)},
        {"rewritten to 127", rule("url", "exact", fitsQuoted), kValue, ADD, sent("whitelist url " + rewritten, 0)},
        {"rewritten to 128", rule("url", "exact", overQuoted), kValue, ADD, refused(kSpaces, 9)},
        {"many quotes", rule("url", "exact", std::string(60, '"')), kValue, REM, refused(kSpaces, 9)},
        {"128 characters", rule("host", "exact", u128), kValue, ADD, refused(kSpaces, 9)},
        {"blank value", rule("url", "exact", "   "), kValue, ADD, refused(kSpaces, 9)},
        {"no value text", rule("url", "exact", ""), kValue, ADD, refused("av whitelist url is null.", 8)},
        {"type disagrees", rule("url", "suffix", "www.a.*"), kValue, ADD, quiet(1)},
        {"type disagrees, removal", rule("url", "prefix", "*.a.com"), kValue, REM, quiet(1)},
        {"type in capitals", rule("url", "Exact", "a"), kValue, ADD, quiet(1)},
        {"type with a blank", rule("url", " exact", "a"), kValue, ADD, quiet(1)},
        {"unknown type", rule("url", "regex", "a"), kValue, ADD, quiet(1)},
        {"type before scope", rule("ip", "prefix", "a"), kValue, ADD, quiet(1)},
        {"scope in capitals", rule("URL", "exact", "a"), kValue, ADD, refused("Av whitelist match scope is error.", 9)},
        {"scope with a blank", rule(" url", "exact", "a"), kValue, REM, refused("Av whitelist match scope is error.", 9)},
        {"no scope", rule(nullptr, nullptr, "a"), kValue, ADD, refused("The profile match rule scope node is NULL.", 8)},
        {"no type", rule("url", nullptr, "a"), kValue, ADD, refused("The profile match rule type node is NULL.", 8)},
        {"keys before value", rule(nullptr, "exact", ""), kValue, ADD, refused("The profile match rule scope node is NULL.", 8)},
        {"value before type", rule("url", "suffix", "  "), kValue, ADD, refused(kSpaces, 9)},
        {"chain", rule("url", "exact", "a"), kValue, CHAIN, refused("Unknown op.", 1)},
    });
}

// ---- addresses ---------------------------------------------------------

struct AddressKind {
    const char* handler;
    std::string node;
    bool range;
    std::string words;  // the line after "undo "
    std::string path;   // below the profile's error path
    std::string missing;
};
const std::vector<AddressKind> kAddressKinds = {
    {"callback_AV_ProfileWhitelistsourceAddress", "source-address", false, "whitelist source-address",
     "/whitelist/sourceAddress", "av whitelist url is null."},
    {"callback_AV_ProfileWhitelistdestinationAddress", "destination-address", false, "whitelist destination-address",
     "/whitelist/destinationAddress", "av destination address is null."},
    {"callback_AV_ProfileWhitelistsourceAddressRange", "source-address-range", true, "whitelist source-address range",
     "/whitelist/sourceAddressRange", "Av source address range is null."},
    {"callback_AV_ProfileWhitelistdestinationAddressRange", "destination-address-range", true,
     "whitelist destination-address range", "/whitelist/destinationAddressRange", "Av destination address range is null."},
};

TEST_F(WhitelistTest, AddressLines) {
    const std::string a31(31, 'a'), a32(32, 'a'), a127(127, 'a'), a128(128, 'a');
    for (const auto& k : kAddressKinds) {
        SCOPED_TRACE(k.handler);
        const std::string n = kInProfile + "whitelists/" + k.node;
        auto tree = [&](const std::string& content) {
            return profileTree("<whitelists><" + k.node + ">" + content + "</" + k.node + "></whitelists>");
        };
        auto ends = [&](const std::string& start, const std::string& end) {
            return tree("<start-address>" + start + "</start-address><end-address>" + end + "</end-address>");
        };
        const std::string add = k.words + " ", undo = "undo " + k.words + " ";
        std::vector<HandlerCase> cases;
        if (!k.range) {
            cases = {
                {"add", tree(" 10.1.1.1\t"), n, ADD, sent(add + "10.1.1.1", 0)},
                {"modify", tree("2001:db8::1"), n, MOD, sent(add + "2001:db8::1", 0)},
                {"removal", tree("10.1.1.1"), n, REM, sent(undo + "10.1.1.1", 1)},
                {"removal with addition bit", tree("10.1.1.1"), n, REM | ADD, sent(undo + "10.1.1.1", 1)},
                {"any word", tree("some word"), n, ADD, sent(add + "some word", 0)},
                {"127 characters", tree(" " + a127 + " "), n, ADD, sent(add + a127, 0)},
                {"128 characters", tree(a128), n, ADD, refused(kSpaces, 9)},
                {"blank", tree("  "), n, REM, refused(kSpaces, 9)},
                {"no text", tree(""), n, ADD, refused(k.missing, 8)},
                {"chain", tree("10.1.1.1"), n, CHAIN, refused("Unknown op.", 1)},
            };
        } else {
            cases = {
                {"add", ends("10.0.0.1", "10.0.0.9"), n, ADD, sent(add + "10.0.0.1 10.0.0.9", 0)},
                {"end first", tree("<end-address> 10.0.0.9</end-address><start-address>10.0.0.1 </start-address>"), n, MOD,
                 sent(add + "10.0.0.1 10.0.0.9", 0)},
                {"unknown child", tree("<foo>x</foo><start-address>a</start-address><bar/><end-address>b</end-address>"), n,
                 ADD, sent(add + "a b", 0)},
                {"removal", ends("10.0.0.1", "10.0.0.9"), n, REM, sent(undo + "10.0.0.1 10.0.0.9", 1)},
                {"ends of 31", ends(a31, " " + a31 + " "), n, ADD, sent(add + a31 + " " + a31, 0)},
                {"end of 32", ends("a", a32), n, ADD, refused(k.missing, 8)},
                {"start of 32", ends(a32, "b"), n, REM, refused(k.missing, 8)},
                {"blank end", ends("a", "  "), n, ADD, refused(k.missing, 8)},
                {"end without text", ends("a", ""), n, ADD, refused(k.missing, 8)},
                {"no end", tree("<start-address>a</start-address>"), n, REM, refused(k.missing, 8)},
                {"no start", tree("<end-address>b</end-address>"), n, ADD, refused(k.missing, 8)},
                {"chain", ends("a", "b"), n, CHAIN, refused("Unknown op.", 1)},
            };
        }
        run(k.handler, kProfilePath + k.path, cases);
    }
}

}  // namespace
