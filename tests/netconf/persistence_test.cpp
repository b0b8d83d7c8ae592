// The snapshot of the running configuration and the appliance, its atomic
// replacement, and the datastore built on them.
#include <gtest/gtest.h>
#include <libyang/libyang.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <utility>

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
                                        TestOption test = TestOption::TestThenSet,
                                        DatastoreId target = DatastoreId::Running) {
        const engine::ParsedXml parsed = store.parse(config);
        if (parsed.error) return parsed.error;
        return store.edit(session, {parsed.tree.get(), engine::DefaultOperation::Merge, test, target});
    }
    // copy-config of inline <config>.
    static std::optional<RpcError> copy(Datastore& store, std::string_view config, DatastoreId target,
                                        std::uint32_t session = 1) {
        const engine::ParsedXml parsed = store.parse(config);
        if (parsed.error) return parsed.error;
        return store.copy(session, target, ConfigSource{std::nullopt, parsed.tree.get()});
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

// What a listener heard, one line per call.
class RecordingListener final : public DatastoreListener {
public:
    void running_changed(std::uint32_t session, std::optional<DatastoreId> source,
                         const std::vector<engine::ChangedNode>& changes) override {
        add("running " + std::to_string(session) + " " + (source ? std::string(name_of(*source)) : "-") +
            (changes.empty() ? " without changes" : ""));
    }
    void confirmed_commit(ConfirmedCommitEvent event, std::uint32_t session, std::chrono::seconds timeout) override {
        static constexpr const char* kEvents[] = {"start", "extend", "confirm", "cancel", "timeout"};
        add(std::string(kEvents[static_cast<int>(event)]) + " " + std::to_string(session) + " " +
            std::to_string(timeout.count()));
    }
    // What was heard since the last call; first waits up to 30 s for `count` calls.
    std::vector<std::string> take(std::size_t count = 0) {
        std::unique_lock lock(mutex_);
        heard_signal_.wait_for(lock, std::chrono::seconds(30), [&] { return heard_.size() >= count; });
        return std::exchange(heard_, {});
    }

private:
    void add(std::string line) {
        std::lock_guard lock(mutex_);
        heard_.push_back(std::move(line));
        heard_signal_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable heard_signal_;
    std::vector<std::string> heard_;
};

using Heard = std::vector<std::string>;

TEST_F(DatastoreTest, TheListenerHearsOfEveryChangeOfTheRunningConfigurationAndEveryConfirmedCommit) {
    RecordingListener listener;
    DatastoreOptions with_listener = options();
    with_listener.listener = &listener;
    const auto stage = [](Datastore& store, const char* description) {
        return edit(store, profile(description), 9, TestOption::TestThenSet, DatastoreId::Candidate);
    };
    const auto confirmed = [](std::chrono::seconds timeout, std::optional<std::string> persist = {}) {
        return CommitRequest{true, timeout, std::move(persist), std::nullopt};
    };
    {
        Datastore store(with_listener);
        EXPECT_EQ(edit(store, profile("one")), std::nullopt);
        EXPECT_EQ(edit(store, profile("one")), std::nullopt);  // changes nothing
        EXPECT_EQ(edit(store, profile("two"), 1, TestOption::TestOnly), std::nullopt);
        EXPECT_EQ(listener.take(), (Heard{"running 1 running"}));

        EXPECT_EQ(stage(store, "two"), std::nullopt);
        EXPECT_EQ(listener.take(), Heard{});
        EXPECT_EQ(store.commit(2, {}), std::nullopt);
        EXPECT_EQ(copy(store, profile("three"), DatastoreId::Running, 3), std::nullopt);
        EXPECT_EQ(store.copy(3, DatastoreId::Startup, {DatastoreId::Running}), std::nullopt);
        EXPECT_EQ(copy(store, profile("four"), DatastoreId::Running, 3), std::nullopt);
        EXPECT_EQ(store.copy(3, DatastoreId::Running, {DatastoreId::Startup}), std::nullopt);
        EXPECT_EQ(listener.take(), (Heard{"running 2 candidate", "running 3 -", "running 3 -", "running 3 startup"}));

        EXPECT_EQ(stage(store, "five"), std::nullopt);
        EXPECT_EQ(store.commit(4, confirmed(std::chrono::seconds(60))), std::nullopt);
        EXPECT_EQ(store.commit(4, confirmed(std::chrono::seconds(30))), std::nullopt);
        EXPECT_EQ(store.commit(4, {}), std::nullopt);
        EXPECT_EQ(listener.take(), (Heard{"running 4 candidate", "start 4 60", "extend 4 30", "confirm 4 0"}));

        EXPECT_EQ(stage(store, "six"), std::nullopt);
        EXPECT_EQ(store.commit(4, confirmed(std::chrono::seconds(60))), std::nullopt);
        EXPECT_EQ(store.cancel_commit(4, std::nullopt), std::nullopt);
        EXPECT_EQ(stage(store, "seven"), std::nullopt);
        EXPECT_EQ(store.commit(5, confirmed(std::chrono::seconds(60))), std::nullopt);
        store.session_ended(5);
        EXPECT_EQ(listener.take(), (Heard{"running 4 candidate", "start 4 60", "running 4 -", "cancel 4 0",
                                          "running 5 candidate", "start 5 60", "running 5 -", "cancel 5 0"}));

        EXPECT_EQ(stage(store, "eight"), std::nullopt);
        EXPECT_EQ(store.commit(6, confirmed(std::chrono::seconds(1))), std::nullopt);
        EXPECT_EQ(listener.take(4), (Heard{"running 6 candidate", "start 6 1", "running 0 -", "timeout 0 0"}));
        EXPECT_NE(running_text(store).find("five"), std::string::npos);

        // The daemon stops with a persistent confirmed commit pending.
        EXPECT_EQ(stage(store, "nine"), std::nullopt);
        EXPECT_EQ(store.commit(7, confirmed(std::chrono::seconds(60), "p")), std::nullopt);
        listener.take();
    }
    // At the next start it is rolled back, then the startup configuration
    // becomes the running one.
    with_listener.boot_from_startup = true;
    Datastore again(with_listener);
    EXPECT_EQ(listener.take(), (Heard{"running 0 -", "cancel 0 0", "running 0 startup"}));
    EXPECT_NE(running_text(again).find("three"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir + "/confirmed-commit.xml"));
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
        ASSERT_EQ(logged.size(), 1u);
        EXPECT_NE(logged[0].find("The profile description has '?'."), std::string::npos) << logged[0];
    }
    // A startup configuration that cannot be read stops the start.
    write_file_atomically(dir + "/startup.xml", "<antivirus", 0600, false);
    EXPECT_THROW(Datastore{booting}, DatastoreError);
}

}  // namespace
}  // namespace tavrik::netconf
