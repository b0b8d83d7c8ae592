// Tools for the engine's tests: configuration texts built from short pieces,
// an engine over the real module and model, and lines in a compact form
// ("vs1/profile-av-p1(profile-av) add: description x").
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "edit_text.hpp"
#include "tavrik/appliance.hpp"
#include "tavrik/engine.hpp"
#include "tavrik/runtime.hpp"

namespace tktest {

using tavrik::engine::ChangeKind;
using tavrik::engine::ChangeView;
using tavrik::engine::DefaultOperation;
using tavrik::engine::EditOptions;
using tavrik::engine::Engine;
using tavrik::engine::ErrorTag;
using tavrik::engine::RpcError;
using tavrik::engine::SentLine;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

inline constexpr const char* kNetconfNs = "urn:ietf:params:xml:ns:netconf:base:1.0";

// <antivirus> in the model's namespace, with the prefix nc for operations.
inline std::string av(const std::string& body) {
    return std::string("<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\" xmlns:nc=\"") +
           kNetconfNs + "\">" + body + "</antivirus>";
}
// An element with its text; `attributes` go into the start tag.
inline std::string leaf(const std::string& name, const std::string& text, const std::string& attributes = "") {
    return "<" + name + (attributes.empty() ? "" : " " + attributes) + ">" + text + "</" + name + ">";
}
inline std::string vsys(const std::string& name, const std::string& body, const std::string& attributes = "") {
    return leaf("vsys", leaf("name", name) + body, attributes);
}
inline std::string profile(const std::string& name, const std::string& body, const std::string& attributes = "") {
    return leaf("profiles", leaf("profile", leaf("name", name) + body, attributes));
}
// vsys vs1 / profile p1 with `body`.
inline std::string p1(const std::string& body) { return av(vsys("vs1", profile("p1", body))); }
inline std::string op(const std::string& operation) { return "nc:operation=\"" + operation + "\""; }

inline std::string brief(const std::string& vsys, const std::string& view, const std::optional<std::string>& tmpl,
                         unsigned cmd_op, const std::string& line) {
    return vsys + "/" + view + (tmpl ? "(" + *tmpl + ")" : "") + (cmd_op == 1 ? " del: " : " add: ") + line;
}
inline std::vector<std::string> brief(const std::vector<SentLine>& lines) {
    std::vector<std::string> out;
    for (const SentLine& l : lines) out.push_back(brief(l.vsys, l.view, l.view_template, l.cmd_op, l.line));
    return out;
}
// What the runtime's recording platform received.
inline std::vector<std::string> delivered() {
    std::vector<std::string> out;
    for (const auto& d : tavrik::runtime::default_platform().deliveries)
        for (const auto& l : d.lines) out.push_back(brief(l.vsys, l.view, l.view_template, d.cmd_op, l.line));
    return out;
}

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override { tavrik::runtime::reset(); }
    void TearDown() override {
        engine_.reset();
        tavrik::runtime::reset();
    }
    // A fresh engine whose running configuration is `running`, serving the
    // data modules named beside the model; the platform has received
    // nothing yet.
    Engine& start(const std::string& running = "", const std::vector<std::string>& data_modules = {}) {
        engine_ = std::make_unique<Engine>(
            tavrik::engine::EngineOptions{TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, running, nullptr, data_modules});
        tavrik::runtime::default_platform().deliveries.clear();
        return *engine_;
    }
    Engine& engine() { return *engine_; }
    tavrik::engine::EditResult edit(const std::string& xml, const tavrik::engine::EditOptions& options = {}) {
        return edit_text(*engine_, xml, options);
    }

private:
    std::unique_ptr<Engine> engine_;
};

// The engine with the simulated appliance behind the channel, both starting
// from the same running configuration.
class ApplianceTest : public EngineTest {
protected:
    Engine& start_with_appliance(const std::string& running, const std::vector<std::string>& data_modules = {}) {
        appliance = tavrik::appliance::Appliance(tavrik::appliance::parse_configuration(running));
        tavrik::runtime::set_platform(&appliance);
        Engine& engine = start(running, data_modules);
        engine.set_vsys_feature(&appliance);
        return engine;
    }
    // What the appliance holds against the engine's running configuration;
    // empty when they agree.
    std::vector<std::string> appliance_differences() {
        return tavrik::appliance::differences(tavrik::appliance::parse_configuration(engine().running_xml()),
                                              appliance.configuration());
    }

    tavrik::appliance::Appliance appliance;  // outlives the engine (TearDown)
};

}  // namespace tktest
