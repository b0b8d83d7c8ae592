// Command line and configuration file of tkav-netconfd.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "tavrik/netconf/options.hpp"

namespace tavrik::netconf {
namespace {

Options parse(std::vector<const char*> args) {
    args.insert(args.begin(), "tkav-netconfd");
    Options defaults;
    defaults.ssh = Endpoint{"127.0.0.1", 8830};
    defaults.state_dir = "/state";
    return parse_options(static_cast<int>(args.size()), args.data(), defaults);
}

TEST(OptionsTest, CommandLine) {
    const Options o = parse({"--ssh", "127.0.0.1:1830", "--unix-socket=/run/x.sock", "--user", "admin:se:cret",
                             "--authorized-key", "alice:/keys/a.pub", "--workers", "4", "--sync", "no",
                             "--boot-from-startup", "yes", "-v", "-v"});
    ASSERT_TRUE(o.ssh);
    EXPECT_EQ(o.ssh->address, "127.0.0.1");
    EXPECT_EQ(o.ssh->port, 1830);
    EXPECT_EQ(o.unix_socket_path(), "/run/x.sock");
    ASSERT_EQ(o.users.size(), 2u);
    EXPECT_EQ(o.users[0].name, "admin");
    EXPECT_EQ(o.users[0].password, "se:cret");
    EXPECT_EQ(o.users[1].authorized_keys, std::vector<std::string>{"/keys/a.pub"});
    EXPECT_EQ(o.workers, 4u);
    EXPECT_FALSE(o.sync_writes);
    EXPECT_TRUE(o.boot_from_startup);
    EXPECT_EQ(o.verbosity, 3);
    EXPECT_EQ(o.host_key_path(), "/state/ssh_host_ecdsa_key");
}

TEST(OptionsTest, DefaultsAndSwitches) {
    const Options o = parse({});
    EXPECT_EQ(o.unix_socket_path(), "/state/netconf.sock");
    EXPECT_TRUE(o.unix_enabled);
    EXPECT_FALSE(o.boot_from_startup);
    const Options off = parse({"--no-ssh", "--no-unix"});
    EXPECT_FALSE(off.ssh);
    EXPECT_FALSE(off.unix_enabled);
    const Options stdio = parse({"--stdio"});
    EXPECT_TRUE(stdio.stdio);
    EXPECT_FALSE(stdio.ssh);  // one session on the streams, no endpoints
    EXPECT_FALSE(stdio.unix_enabled);
    EXPECT_EQ(parse_endpoint("9000").address, "127.0.0.1");
    EXPECT_EQ(parse_endpoint("[::1]:830").address, "::1");
}

TEST(OptionsTest, BadCommandLinesAreNamed) {
    const std::vector<std::pair<std::vector<const char*>, const char*>> cases = {
        {{"--bogus"}, "unknown option \"--bogus\""},
        {{"--ssh"}, "--ssh needs a value"},
        {{"--ssh", "127.0.0.1:99999"}, "the port must be a number from 1 to 65535"},
        {{"--workers", "0"}, "workers must be a number from 1 to 16"},
        {{"--user", "nopassword"}, "--user expects NAME:PASSWORD"},
        {{"--stdio=yes"}, "--stdio takes no value"},
        {{"--sync", "maybe"}, "sync must be yes or no"},
        {{"stray"}, "unexpected argument \"stray\""},
        {{"--config", "/nonexistent/file"}, "cannot read configuration file /nonexistent/file"},
    };
    for (const auto& [args, message] : cases) {
        try {
            parse(args);
            ADD_FAILURE() << "accepted: " << message;
        } catch (const OptionsError& e) {
            EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
        }
    }
}

class ConfigFileTest : public ::testing::Test {
protected:
    std::string write(const std::string& text) {
        std::ofstream(path) << text;
        return path;
    }
    ~ConfigFileTest() override { ::unlink(path.c_str()); }
    // One file per test and process: ctest runs the tests of this suite in parallel.
    std::string path = ::testing::TempDir() + "tkav-netconfd-" +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" +
                       std::to_string(::getpid()) + ".conf";
};

TEST_F(ConfigFileTest, SettingsAndUsersThenTheCommandLineOverrides) {
    write("# daemon settings\n"
          "ssh 127.0.0.1:2830   # the port\n"
          "state-dir /var/tmp/tk\n"
          "user admin password-hash $y$j9T$abc\n"
          "user admin authorized-key /k/admin.pub\n"
          "user bob password two words\n"
          "log-level debug\n"
          "superuser admin\n");
    const Options o = parse({"--config", path.c_str(), "--ssh", "127.0.0.1:3830", "--superuser", "bob"});
    EXPECT_EQ(o.ssh->port, 3830);
    EXPECT_EQ(o.state_dir, "/var/tmp/tk");
    ASSERT_EQ(o.users.size(), 2u);
    EXPECT_EQ(o.users[0].password_hash, "$y$j9T$abc");
    EXPECT_EQ(o.users[0].authorized_keys, std::vector<std::string>{"/k/admin.pub"});
    EXPECT_EQ(o.users[1].password, "two words");
    EXPECT_EQ(o.superusers, (std::vector<std::string>{"admin", "bob"}));
    EXPECT_EQ(o.verbosity, 3);
}

TEST_F(ConfigFileTest, ErrorsNameTheLine) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ssh 127.0.0.1:1\nfrobnicate yes\n", ":2: unknown setting \"frobnicate\""},
        {"stdio\n", ":1: unknown setting \"stdio\""},
        {"user admin secret x\n", ":1: user admin: unknown credential \"secret\""},
        {"state-dir\n", ":1: \"state-dir\" needs a value"},
        {"no-ssh now\n", ":1: \"no-ssh\" takes no value"},
    };
    for (const auto& [text, message] : cases) {
        write(text);
        try {
            parse({"--config", path.c_str()});
            ADD_FAILURE() << "accepted: " << text;
        } catch (const OptionsError& e) {
            EXPECT_NE(std::string(e.what()).find(path + message), std::string::npos) << e.what();
        }
    }
}

}  // namespace
}  // namespace tavrik::netconf
