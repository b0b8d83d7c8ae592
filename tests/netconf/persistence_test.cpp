// The snapshot of the running configuration and the appliance, its atomic
// replacement, and the datastore built on them.
#include <gtest/gtest.h>
#include <libyang/libyang.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "print_tree.hpp"
#include "atomic_file.hpp"
#include "snapshot.hpp"
#include "tavrik/netconf/datastore.hpp"

namespace tavrik::netconf {
namespace {

TEST(SnapshotTest, SectionsRoundTripWhateverTheyHold) {
    const Snapshot snapshot{42, {{"running", "<a>\n</a>\n"}, {"appliance", ""}, {"binary", std::string("x\0y\n\n", 5)}}};
    const auto decoded = decode_snapshot(encode_snapshot(snapshot));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, snapshot);
    EXPECT_EQ(section_of(decoded->sections, "appliance"), "");
    EXPECT_EQ(section_of(decoded->sections, "missing"), std::nullopt);
}

TEST(SnapshotTest, AnythingButAWholeSlotIsRefused) {
    const std::string good = encode_snapshot({7, {{"running", "abc"}}});
    std::string flipped = good;
    flipped[flipped.size() - 2] = 'x';  // same length, other content
    for (const std::string& bad :
         {std::string(), std::string("hello\n"), good.substr(0, good.size() - 1), good + "x", flipped,
          encode_snapshot({7, {{"running", "abc"}}}).replace(25, 1, "8")}) {
        EXPECT_FALSE(decode_snapshot(bad)) << bad;
    }
}

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

TEST_F(FileTest, AtomicWriteReplacesTheFileWithItsMode) {
    const std::string path = dir + "/file";
    for (const bool sync : {true, false}) {
        write_file_atomically(path, "first", 0600, sync);
        write_file_atomically(path, sync ? "second" : "third", 0600, sync);
        EXPECT_EQ(read_file(path), sync ? "second" : "third");
    }
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
    EXPECT_EQ(read_file(dir + "/absent"), std::nullopt);
}

TEST_F(FileTest, AFailedWriteLeavesTheOldFile) {
    const std::string path = dir + "/file";
    write_file_atomically(path, "kept", 0600, false);
    std::filesystem::create_directory(path + ".new");  // the temporary file cannot be made
    EXPECT_THROW(write_file_atomically(path, "lost", 0600, false), std::system_error);
    EXPECT_EQ(read_file(path), "kept");
    EXPECT_THROW(write_file_atomically(dir + "/no/such/dir/file", "x", 0600, false), std::system_error);
}

TEST_F(FileTest, SlotsTakeTurnsAndATornSlotFallsBackToThePreviousCommit) {
    SnapshotStore store(dir, false);
    EXPECT_EQ(store.load(), std::nullopt);
    for (int i = 1; i <= 3; ++i) store.save({{"n", std::to_string(i)}});
    EXPECT_EQ(SnapshotStore(dir, true).load(), (Sections{{"n", "3"}}));

    // A crash while the next commit was written: its slot is cut short.
    const std::string torn = store.slot_path(0);  // generation 4 goes to slot 0
    store.save({{"n", "4"}});
    std::filesystem::resize_file(torn, std::filesystem::file_size(torn) - 1);
    SnapshotStore reloaded(dir, false);
    EXPECT_EQ(reloaded.load(), (Sections{{"n", "3"}}));
    reloaded.save({{"n", "5"}});  // overwrites the torn slot
    EXPECT_EQ(SnapshotStore(dir, false).load(), (Sections{{"n", "5"}}));

    std::ofstream(store.slot_path(0)) << "garbage";
    std::ofstream(store.slot_path(1)) << "garbage";
    EXPECT_THROW(SnapshotStore(dir, false).load(), SnapshotError);
}

TEST_F(FileTest, MakeDirectoriesCreatesTheMissingParents) {
    make_directories(dir + "/a/b/c");
    EXPECT_TRUE(std::filesystem::is_directory(dir + "/a/b/c"));
    make_directories(dir + "/a/b/c");  // existing: fine
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
    static std::optional<RpcError> edit(Datastore& store, std::string_view config, std::uint32_t session = 1,
                                        TestOption test = TestOption::TestThenSet) {
        const engine::ParsedXml parsed = store.parse(config);
        if (parsed.error) return parsed.error;
        return store.edit(session, {parsed.tree.get(), engine::DefaultOperation::Merge, test});
    }
    static constexpr std::string_view kProfile =
        "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"><vsys><name>vs1</name><profiles>"
        "<profile><name>p1</name><description>kept</description></profile></profiles></vsys></antivirus>";
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

TEST_F(DatastoreTest, ACommittedEditSurvivesANewDatastore) {
    std::string running;
    {
        Datastore store(options());
        EXPECT_EQ(edit(store, kProfile), std::nullopt);
        running = running_text(store);
        EXPECT_NE(running.find("kept"), std::string::npos);
        // Checks leave the snapshot alone.
        EXPECT_EQ(edit(store, kProfile, 1, TestOption::TestOnly), std::nullopt);
    }
    const auto sections = SnapshotStore(dir, false).load();
    ASSERT_TRUE(sections);
    EXPECT_NE(section_of(*sections, "appliance").value_or("").find("kept"), std::string::npos);

    Datastore again(options());
    EXPECT_EQ(running_text(again), running);
    const Reading reading = again.read(nullptr, ReadRequest{false, true});
    ASSERT_TRUE(reading.platform.configuration);
    EXPECT_NE(reading.platform.configuration->find("kept"), std::string::npos);
}

TEST_F(DatastoreTest, ARefusedEditWritesNothing) {
    Datastore store(options());
    ASSERT_EQ(edit(store, kProfile), std::nullopt);
    const auto before = SnapshotStore(dir, false).load();
    const auto error = edit(store, "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"><vsys>"
                                          "<name>vs1</name><profiles><profile><name>p1</name><description>?"
                                          "</description></profile></profiles></vsys></antivirus>");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->tag, engine::ErrorTag::BadElement);
    EXPECT_EQ(SnapshotStore(dir, false).load(), before);
}

TEST_F(DatastoreTest, AnEditThatCannotBeSavedIsUndone) {
    Datastore store(options());
    ASSERT_EQ(edit(store, kProfile), std::nullopt);
    const std::string before = running_text(store);
    std::filesystem::create_directory(dir + "/snapshot.0");  // blocks the next commit
    std::string changed(kProfile);
    changed.replace(changed.find("kept"), 4, "lost");
    const auto error = edit(store, changed);
    ASSERT_TRUE(error);
    EXPECT_NE(error->message.find("could not be saved"), std::string::npos) << error->message;
    EXPECT_EQ(running_text(store), before);
    const Reading reading = store.read(nullptr, ReadRequest{false, true});
    EXPECT_NE(reading.platform.configuration->find("kept"), std::string::npos) << *reading.platform.configuration;
}

TEST_F(DatastoreTest, TheLockBelongsToOneSessionUntilItEnds) {
    Datastore store(options());
    const auto holder = [&] { return store.datastores().at(0).lock_holder; };
    ASSERT_EQ(store.datastores().size(), 3u);
    EXPECT_EQ(store.datastores()[0].name, "running");
    EXPECT_EQ(holder(), 0u);
    const auto before = std::chrono::system_clock::now();
    EXPECT_FALSE(store.lock(7));
    EXPECT_EQ(holder(), 7u);
    EXPECT_GE(store.datastores()[0].locked_since, before);
    EXPECT_EQ(store.lock(8)->session, 7u);
    EXPECT_EQ(edit(store, kProfile, 8)->tag, engine::ErrorTag::InUse);
    EXPECT_FALSE(store.unlock(8));
    EXPECT_EQ(edit(store, kProfile, 7), std::nullopt);
    store.session_ended(7);
    EXPECT_EQ(holder(), 0u);
    EXPECT_FALSE(store.lock(8));
    EXPECT_TRUE(store.unlock(8));
}

}  // namespace
}  // namespace tavrik::netconf
