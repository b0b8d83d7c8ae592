// The journal and snapshot of the running configuration and the appliance,
// atomic replacement, and the datastore built on them.
#include <gtest/gtest.h>
#include <libyang/libyang.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <csignal>
#include <fstream>

#include "print_tree.hpp"
#include "tavrik/atomic_file.hpp"
#include "journal.hpp"
#include "tavrik/netconf/datastore.hpp"

namespace tavrik::netconf {
namespace {

class FileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tkav-netconf-unit-XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::string dir;
};

// The file is replaced whole, with its mode; a write that fails leaves the old one.
TEST_F(FileTest, AtomicWriteReplacesTheFileOrLeavesIt) {
    const std::string path = dir + "/file";
    for (const bool sync : {true, false}) write_file_atomically(path, sync ? "first" : "second", 0600, sync);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    std::filesystem::create_directory(path + ".new");  // the temporary file cannot be made
    EXPECT_THROW(write_file_atomically(path, "lost", 0600, false), std::system_error);
    EXPECT_EQ(read_file(path), "second");
    EXPECT_EQ(read_file(dir + "/absent"), std::nullopt);
}

// A record whose appliance lines hold every byte value, a line cut inside a
// UTF-8 character ("\xc3" without its second byte) among them.
Record byte_record(int n) {
    std::string every;
    for (int b = 0; b < 256; ++b) every += static_cast<char>(b);
    Record r{Record::Running::Edit, engine::DefaultOperation::Replace, "<edit n=\"" + std::to_string(n) + "\"/>", {}};
    const std::vector<ApplianceStep> steps{
        {{"vs1", "profile-av-p1", "profile-av", "description " + std::string(498, 'a') + "\xc3"}, 0, {}},
        {{every, std::string("\0\n", 2), std::nullopt, every}, 1, {}},
        {{}, 0, {"vs1", "vs\xff"}},
    };
    for (const ApplianceStep& step : steps) {
        if (step.removed_vsys.empty()) r.appliance.add_line(step.line, step.cmd_op);
        else r.appliance.add_removal(step.removed_vsys);
    }
    EXPECT_EQ(r.appliance.decode(), steps);
    return r;
}

const auto no_snapshot = [] { return Record{Record::Running::Whole, {}, "", {}}; };

std::vector<Record> records_of(const StoredState& state) {
    std::vector<Record> out;
    for (const StoredRecord& stored : state.journal) out.push_back(stored.record);
    return out;
}

std::string file_text(const std::string& path) { return read_file(path).value_or(""); }

TEST_F(FileTest, RecordsRoundTripEveryByteAndATornLastRecordIsCutOff) {
    {
        StateStore store(dir, false);
        EXPECT_TRUE(store.load().journal.empty());
        for (int n = 0; n < 3; ++n) store.commit(byte_record(n), no_snapshot);
    }
    const std::vector<Record> written{byte_record(0), byte_record(1), byte_record(2)};
    StateStore store(dir, false);
    EXPECT_EQ(records_of(store.load()), written);

    // Killed while the fourth record was written: the file ends inside it,
    // anywhere from its header to its last byte.
    const std::string path = store.journal_path();
    const auto whole = std::filesystem::file_size(path);
    const std::size_t size = encode_record(byte_record(3)).size();
    for (const std::size_t cut : {std::size_t(3), std::size_t(16), size / 2, size - 1}) {
        SCOPED_TRACE(cut);
        store.commit(byte_record(3), no_snapshot);
        std::filesystem::resize_file(path, whole + cut);
        const StoredState state = store.load();
        EXPECT_EQ(records_of(state), written);
        ASSERT_EQ(state.warnings.size(), 1u);
        EXPECT_NE(state.warnings[0].find("journal: offset " + std::to_string(whole) + ": the last record"),
                  std::string::npos) << state.warnings[0];
        EXPECT_EQ(std::filesystem::file_size(path), whole);  // cut off: the next record follows the last whole one
    }
}

TEST_F(FileTest, CompactionStartsAJournalThatBelongsToTheNewSnapshot) {
    StateStore store(dir, true);
    store.load();
    const Record whole{Record::Running::Whole, {}, "<whole/>", byte_record(0).appliance};
    store.commit(byte_record(1), [&] { return whole; });
    Record large = byte_record(2);
    large.running_xml.assign(StateStore::kCompactionFloor, 'x');
    store.commit(large, [&] { return whole; });  // the journal would outgrow the floor
    store.commit(byte_record(3), no_snapshot);

    StoredState state = StateStore(dir, false).load();
    EXPECT_EQ(state.snapshot.record, whole);
    EXPECT_EQ(records_of(state), std::vector<Record>{byte_record(3)});

    // Killed between the new snapshot and the new journal: the journal of
    // the older generation is ignored, its records are in the snapshot.
    const std::string old_journal = file_text(store.journal_path());
    store.commit({Record::Running::Whole, {}, {}, {}}, [&] { return whole; });
    write_file_atomically(store.journal_path(), old_journal, 0600, false);
    state = StateStore(dir, false).load();
    EXPECT_EQ(state.snapshot.record, whole);
    EXPECT_TRUE(state.journal.empty());
}

// Anything but a torn last record stops the load with the file and the
// offset named, and leaves every file as it is.
TEST_F(FileTest, AStateThatDoesNotReadIsNamedAndKept) {
    const std::size_t second = 16 + encode_record(byte_record(0)).size();
    struct Case {
        const char* name;
        const char* file;
        std::function<void(std::string&)> damage;
        std::string offset;
    };
    const Case cases[] = {
        {"a record's checksum", "journal", [](std::string& t) { t[100] ^= 1; }, "offset 16: a record's checksum"},
        {"a record's length", "journal", [&](std::string& t) { t[second] ^= 1; },
         "offset " + std::to_string(second) + ": a record's header"},
        {"the journal's header", "journal", [](std::string& t) { t[0] = 'x'; }, "offset 0: this is not a state file"},
        {"a newer journal", "journal", [](std::string& t) { t[8] = 9; }, "offset 8: the journal is newer"},
        {"the snapshot", "snapshot", [](std::string& t) { t[t.size() - 1] ^= 1; }, "offset 16: the snapshot's checksum"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(dir);
        std::filesystem::create_directory(dir);
        const std::string path = dir + "/" + c.file;
        StateStore store(dir, false);
        store.load();
        store.commit({Record::Running::Whole, {}, {}, {}},
                     [] { return Record{Record::Running::Whole, {}, "<whole/>", byte_record(9).appliance}; });
        for (int n = 0; n < 2; ++n) store.commit(byte_record(n), no_snapshot);
        std::string text = file_text(path);
        c.damage(text);
        write_file_atomically(path, text, 0600, false);
        const std::string before = file_text(path);
        try {
            StateStore(dir, false).load();
            ADD_FAILURE() << "loaded";
        } catch (const StateError& e) {
            EXPECT_NE(std::string(e.what()).find(path + ": " + c.offset), std::string::npos) << e.what();
        }
        EXPECT_EQ(file_text(path), before);
    }
}

class DatastoreTest : public FileTest {
protected:
    DatastoreOptions options() const {
        DatastoreOptions options;
        options.module_path = TKAV_MODULE;
        options.yang_dir = TKAV_YANG_DIR;
        options.state_dir = dir;
        return options;
    }
    // An edit-config merging `config` (text, read by the store as the server
    // reads <config>).
    static std::optional<RpcError> edit(Datastore& store, std::string_view config) {
        const engine::ParsedXml parsed = store.parse(config);
        if (parsed.error) return parsed.error;
        return store.edit(1, {parsed.tree.get(), engine::DefaultOperation::Merge, TestOption::TestThenSet,
                              DatastoreId::Running});
    }
    static std::string profile(std::string_view description) {
        return "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"><vsys><name>vs1</name><profiles>"
               "<profile><name>p1</name><description>" +
               std::string(description) + "</description></profile></profiles></vsys></antivirus>";
    }
    static inline const std::string kProfile = profile("kept");
};

std::string running_text(Datastore& store) {
    ly_ctx* ctx = nullptr;
    ly_ctx_new(TKAV_YANG_DIR, 0, &ctx);
    ly_ctx_load_module(ctx, "tavrik-antivirus", nullptr, nullptr);
    lyd_node* tree = store.read(ctx).running;
    std::string out = tktest::print_tree(tree, LYD_PRINT_SHRINK);
    lyd_free_siblings(tree);
    ly_ctx_destroy(ctx);
    return out;
}

// The journal cannot grow (a file size limit): the edit is undone, in the
// running configuration and on the appliance, and the journal is as before.
TEST_F(DatastoreTest, AnEditThatCannotBeSavedIsUndone) {
    Datastore store(options());
    ASSERT_EQ(edit(store, kProfile), std::nullopt);
    const std::string before = running_text(store);
    const std::string journal = file_text(dir + "/journal");
    std::string changed(kProfile);
    changed.replace(changed.find("kept"), 4, "lost");
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit lowered{journal.size() + 8, limit.rlim_max};
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &lowered);
    const auto error = edit(store, changed);
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, previous);
    ASSERT_TRUE(error);
    EXPECT_NE(error->message.find("could not be saved"), std::string::npos) << error->message;
    EXPECT_EQ(running_text(store), before);
    const Reading reading = store.read(nullptr, ReadRequest{false, true});
    EXPECT_NE(reading.platform.configuration->find("kept"), std::string::npos) << *reading.platform.configuration;
    EXPECT_EQ(file_text(dir + "/journal"), journal);
    EXPECT_EQ(edit(store, changed), std::nullopt);  // and the next commit goes on from there
}

TEST_F(DatastoreTest, AStartupConfigurationThatIsRefusedKeepsTheRunningOne) {
    {
        Datastore store(options());
        ASSERT_EQ(edit(store, kProfile), std::nullopt);
    }
    DatastoreOptions booting = options();
    booting.boot_from_startup = true;
    std::vector<std::string> logged;
    booting.log = [&](const std::string& text) { logged.push_back(text); };
    write_file_atomically(dir + "/startup.xml", profile("refused?"), 0600, false);
    {
        Datastore store(booting);
        EXPECT_NE(running_text(store).find("kept"), std::string::npos);
        EXPECT_EQ(logged.size(), 1u);  // the module's refusal, logged
    }
    // A startup configuration that cannot be read stops the start.
    write_file_atomically(dir + "/startup.xml", "<antivirus", 0600, false);
    EXPECT_THROW(Datastore{booting}, DatastoreError);
}

}  // namespace
}  // namespace tavrik::netconf
