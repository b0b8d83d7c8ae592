// Loads the antivirus module the way the server does (dlopen, symbols by
// name) and gives tests small tools: XML trees to hand to callbacks, scripted
// parent operations, and expectations on what the module cached, sent and
// refused.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tavrik/runtime.hpp"

namespace tktest {

using Callback = int (*)(void**, XMLDIFF_OP, xmlNodePtr, nc_err**);
using tavrik::runtime::CachedLine;
using tavrik::runtime::ScriptedParents;

// The module, loaded once per test program.
class Module {
public:
    static Module& get() {
        static Module module;
        return module;
    }
    void* sym(const char* name) const { return dlsym(handle_, name); }
    template <class F>
    F fn(const char* name) const {
        void* p = sym(name);
        EXPECT_NE(p, nullptr) << name << " is not exported";
        return reinterpret_cast<F>(p);
    }
    Callback callback(const char* name) const { return fn<Callback>(name); }
    unsigned char& debug() const { return *static_cast<unsigned char*>(sym("g_ucAvApiDebug")); }

private:
    Module() {
        handle_ = dlopen(TAVRIK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        if (handle_ == nullptr) throw std::runtime_error(dlerror());
    }
    void* handle_ = nullptr;
};

// A parsed XML document; nodes are found by a path of element names from the
// root element ("vsys/profiles/profile/description"); "name[2]" picks the
// second element of that name.
class Tree {
public:
    explicit Tree(const std::string& xml) {
        doc_ = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, XML_PARSE_NOBLANKS);
        if (doc_ == nullptr) throw std::runtime_error("malformed test XML: " + xml);
    }
    ~Tree() { xmlFreeDoc(doc_); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    xmlNodePtr root() const { return xmlDocGetRootElement(doc_); }
    xmlNodePtr at(const std::string& path) const {
        xmlNodePtr node = root();
        size_t start = 0;
        while (node != nullptr && start < path.size()) {
            size_t end = path.find('/', start);
            std::string step = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
            int index = 1;
            if (auto bracket = step.find('['); bracket != std::string::npos) {
                index = std::stoi(step.substr(bracket + 1));
                step.resize(bracket);
            }
            xmlNodePtr found = nullptr;
            for (xmlNodePtr c = node->children; c != nullptr && found == nullptr; c = c->next)
                if (c->type == XML_ELEMENT_NODE && step == reinterpret_cast<const char*>(c->name) && --index == 0)
                    found = c;
            node = found;
            start = end == std::string::npos ? path.size() : end + 1;
        }
        if (node == nullptr) throw std::runtime_error("no node at " + path);
        return node;
    }

private:
    xmlDocPtr doc_;
};

// What one handler call left behind.
struct Line {
    std::string vsys;
    std::string view;
    std::optional<std::string> view_template;
    std::string line;
    unsigned cmd_op;
    std::optional<std::string> origin = std::nullopt;
};

// A configuration tree with one vsys and one profile around `body` (the
// profile's other children); a null key leaves that key leaf out. Nodes below
// the profile are found at "vsys/profiles/profile/...".
inline std::string profileTree(const std::string& body, const char* vsys = "vs1", const char* profile = "p1") {
    auto key = [](const char* name) { return name ? "<name>" + std::string(name) + "</name>" : std::string(); };
    return "<antivirus><vsys>" + key(vsys) + "<profiles><profile>" + key(profile) + body +
           "</profile></profiles></vsys></antivirus>";
}
inline const std::string kInProfile = "vsys/profiles/profile/";
// Beginning of the error paths of the profile-level handlers.
inline const std::string kProfilePath =
    "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile";

// A line of profile p1 in vsys vs1.
inline Line profileLine(const std::string& line, unsigned cmdOp) {
    return {"vs1", "profile-av-p1", "profile-av", line, cmdOp};
}

// What one handler call is to leave behind.
struct Outcome {
    enum Kind { Sent, Dropped, Refused, Quiet } kind;
    Line line{};           // Sent
    std::string message{};  // Refused
    int value = 0;          // Refused: the NC_ERR tag; Quiet: the result
};
inline Outcome sent(const std::string& line, unsigned cmdOp) { return {Outcome::Sent, profileLine(line, cmdOp)}; }
inline Outcome dropped() { return {Outcome::Dropped}; }
inline Outcome refused(const std::string& message, int tag) { return {Outcome::Refused, {}, message, tag}; }
inline Outcome quiet(int result) { return {Outcome::Quiet, {}, {}, result}; }

// One call of a handler on the node at `node` of the tree `tree`.
struct HandlerCase {
    std::string what;
    std::string tree;
    std::string node;
    int op;
    Outcome outcome;
};

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        tavrik::runtime::reset();
        Module::get().debug() = 0;
    }
    void TearDown() override { clearError(); }

    void clearError() {
        tavrik::runtime::free_error(error_);
        error_ = nullptr;
    }

    // Calls the exported callback `name` as the server would.
    int call(const char* name, xmlNodePtr node, int op, const ScriptedParents& parents = {}) {
        clearError();
        void* handle = const_cast<ScriptedParents*>(&parents);
        return Module::get().callback(name)(&handle, static_cast<XMLDIFF_OP>(op), node, &error_);
    }

    static const tavrik::runtime::Journal& journal() { return tavrik::runtime::journal(); }

    // Exactly one line was cached and sent, with a header that is zero but
    // for the message type and module identifier.
    void expectSent(const Line& expected) {
        const auto& j = journal();
        ASSERT_EQ(j.refusals.size(), 0u) << "refused: " << j.refusals[0].message;
        ASSERT_EQ(j.sends.size(), 1u);
        const auto& send = j.sends[0];
        ASSERT_EQ(send.lines.size(), 1u) << "one cached line per send";
        EXPECT_EQ(send.lines[0],
                  (CachedLine{expected.vsys, expected.view, expected.view_template, expected.line}));
        EXPECT_EQ(send.cmd_op, expected.cmd_op);
        EXPECT_EQ(send.origin, expected.origin);
        expectConfigHeader(send);
        EXPECT_EQ(error_, nullptr);
    }

    static void expectConfigHeader(const tavrik::runtime::Send& send) {
        for (size_t i = 0; i < send.header.size(); ++i) {
            uint8_t want = i == 4 ? API_DP2QMX_CMD_CONFIG : i == 8 ? API_MODULE_TK_AV : 0;
            ASSERT_EQ(send.header[i], want) << "header byte " << i;
        }
    }

    // The change was refused: the error record carries message, path and
    // tag, and nothing was cached or sent.
    void expectRefused(int result, const std::string& message, const std::string& path, int tag) {
        EXPECT_EQ(result, 1);
        const auto& j = journal();
        ASSERT_EQ(j.refusals.size(), 1u);
        EXPECT_EQ(j.refusals[0].message, message);
        EXPECT_EQ(j.refusals[0].path, path);
        EXPECT_EQ(j.refusals[0].flag, 1);
        EXPECT_EQ(j.refusals[0].tag, tag);
        ASSERT_NE(error_, nullptr);
        EXPECT_EQ(error_->message, message);
        EXPECT_EQ(error_->tag, tag);
        EXPECT_TRUE(j.cached.empty()) << "cached before refusing: " << j.cached[0].line;
        EXPECT_TRUE(j.sends.empty());
    }

    // Nothing cached, sent, cleared or refused.
    void expectQuiet(int result, int expectedResult = 0) {
        EXPECT_EQ(result, expectedResult);
        const auto& j = journal();
        EXPECT_TRUE(j.cached.empty());
        EXPECT_TRUE(j.sends.empty());
        EXPECT_TRUE(j.refusals.empty());
        EXPECT_EQ(j.clears, 0);
        EXPECT_EQ(error_, nullptr);
    }

    // The change was dropped: the cache cleared, nothing sent.
    void expectDropped(int result) {
        EXPECT_EQ(result, 0);
        const auto& j = journal();
        EXPECT_EQ(j.clears, 1);
        EXPECT_TRUE(j.cached.empty());
        EXPECT_TRUE(j.sends.empty());
        EXPECT_TRUE(j.refusals.empty());
    }

    void expectOutcome(int result, const Outcome& o, const std::string& path) {
        switch (o.kind) {
            case Outcome::Sent:
                EXPECT_EQ(result, 0);
                expectSent(o.line);
                break;
            case Outcome::Dropped: expectDropped(result); break;
            case Outcome::Refused: expectRefused(result, o.message, path, o.value); break;
            case Outcome::Quiet: expectQuiet(result, o.value); break;
        }
    }

    // Runs each case from a fresh runtime; `path` is the handler's error path.
    void run(const char* handler, const std::string& path, const std::vector<HandlerCase>& cases) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what);
            tavrik::runtime::reset();
            Tree tree(c.tree);
            expectOutcome(call(handler, tree.at(c.node), c.op), c.outcome, path);
        }
    }

    nc_err* error_ = nullptr;
};

inline constexpr int ADD = XMLDIFF_ADD;
inline constexpr int REM = XMLDIFF_REM;
inline constexpr int MOD = XMLDIFF_MOD;
inline constexpr int CHAIN = XMLDIFF_CHAIN;

}  // namespace tktest
