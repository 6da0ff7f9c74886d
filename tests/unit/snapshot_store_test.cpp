#include "snapshot_store.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <type_traits>

#include "support.hpp"

namespace zqu::test {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class SnapshotStoreTest : public ::testing::Test {
protected:
    SnapshotStoreTest() {
        cfg_.def_root = dir_ / "defs";
        cfg_.status_path = dir_ / "manifest/status.json";
    }

    [[nodiscard]] std::string root() const { return cfg_.def_root; }
    [[nodiscard]] std::string active() const { return fs::read_symlink(root() + "/active").string(); }

    TempDir dir_;
    Config cfg_;
    LogCapture log_;

    void TearDown() override { EXPECT_EQ(log_.take(), Lines{}); }
};

TEST_F(SnapshotStoreTest, ConstructionCreatesTheDirectories) {
    const SnapshotStore store(cfg_);
    EXPECT_EQ(listing(dir_.path()), (Lines{"defs/", "defs/snapshots/", "manifest/"}));
    EXPECT_EQ(store.active_version(), std::nullopt);
}

TEST_F(SnapshotStoreTest, ConstructionKeepsWhatIsThere) {
    make_dirs(root() + "/snapshots/1");
    write_file(root() + "/snapshots/1/x", "x");
    const SnapshotStore store(cfg_);
    EXPECT_EQ(read_file(root() + "/snapshots/1/x"), "x");
}

TEST_F(SnapshotStoreTest, ConstructionIgnoresWhatCannotBeCreated) {
    write_file(dir_ / "defs", "in the way");
    write_file(dir_ / "manifest", "in the way");
    const SnapshotStore store(cfg_);
    EXPECT_EQ(listing(dir_.path()), (Lines{"defs", "manifest"}));
    EXPECT_EQ(store.stage_dir("1"), root() + "/snapshots/1");
    EXPECT_EQ(store.active_version(), std::nullopt);
}

TEST_F(SnapshotStoreTest, StatusPathWithoutADirectoryIsNoError) {
    for (const char* path : {"status.json", ""}) {
        cfg_.status_path = path;
        EXPECT_NO_THROW(SnapshotStore{cfg_});
    }
    EXPECT_EQ(listing(dir_.path()), (Lines{"defs/", "defs/snapshots/"}));
}

TEST_F(SnapshotStoreTest, TrailingSlashOfTheRootIsKept) {
    cfg_.def_root += "/";
    SnapshotStore store(cfg_);
    EXPECT_EQ(store.stage_dir("7"), dir_ / "defs//snapshots/7");
    EXPECT_TRUE(store.publish("7"));
    EXPECT_EQ(store.active_version(), "7");
    EXPECT_EQ(log_.take(), Lines{"info published def snapshot 7"});
}

TEST_F(SnapshotStoreTest, StageDirectoryIsCreatedWithItsParents) {
    const SnapshotStore store(cfg_);
    fs::remove_all(root());
    EXPECT_EQ(store.stage_dir("123"), root() + "/snapshots/123");
    EXPECT_EQ(listing(root()), (Lines{"snapshots/", "snapshots/123/"}));
}

TEST_F(SnapshotStoreTest, StageDirectoryKeepsItsFiles) {
    const SnapshotStore store(cfg_);
    static_cast<void>(store.stage_dir("123"));
    write_file(root() + "/snapshots/123/x", "kept");
    EXPECT_EQ(store.stage_dir("123"), root() + "/snapshots/123");
    EXPECT_EQ(read_file(root() + "/snapshots/123/x"), "kept");
}

TEST_F(SnapshotStoreTest, VersionIsNotScreened) {
    SnapshotStore store(cfg_);
    EXPECT_EQ(store.stage_dir("../../out/side"), root() + "/snapshots/../../out/side");
    EXPECT_TRUE(exists(dir_ / "out/side"));
    EXPECT_TRUE(store.publish("../../out/side"));
    EXPECT_EQ(active(), "snapshots/../../out/side");
    EXPECT_EQ(log_.take(), Lines{"info published def snapshot ../../out/side"});
}

TEST_F(SnapshotStoreTest, ActiveVersionIsTheLastComponentOfTheTarget) {
    const SnapshotStore store(cfg_);
    for (const char* target : {"snapshots/123456", "/elsewhere/123456", "../x/123456", "123456"}) {
        fs::remove(root() + "/active");
        fs::create_symlink(target, root() + "/active");
        EXPECT_EQ(store.active_version(), "123456") << target;
    }
}

TEST_F(SnapshotStoreTest, TargetWithTrailingSlashIsAnEmptyVersion) {
    const SnapshotStore store(cfg_);
    fs::create_symlink("snapshots/", root() + "/active");
    EXPECT_EQ(store.active_version(), "");
}

TEST_F(SnapshotStoreTest, ActiveThatIsNoLinkIsNoVersion) {
    const SnapshotStore store(cfg_);
    write_file(root() + "/active", "x");
    EXPECT_EQ(store.active_version(), std::nullopt);
    fs::remove(root() + "/active");
    make_dirs(root() + "/active");
    EXPECT_EQ(store.active_version(), std::nullopt);
}

TEST_F(SnapshotStoreTest, UnreadableRootIsNoVersion) {
    const SnapshotStore store(cfg_);
    fs::create_symlink("snapshots/1", root() + "/active");
    ASSERT_EQ(chmod(root().c_str(), 0), 0);
    const AsOrdinaryUser user({dir_.path(), root()});
    EXPECT_EQ(store.active_version(), std::nullopt);
    ASSERT_EQ(chmod(root().c_str(), 0755), 0);
}

TEST_F(SnapshotStoreTest, FirstPublicationMakesARelativeLink) {
    SnapshotStore store(cfg_);
    EXPECT_TRUE(store.publish("100"));
    EXPECT_EQ(listing(root()), (Lines{"active -> snapshots/100", "snapshots/"}));  // dangling, and no matter
    EXPECT_EQ(store.active_version(), "100");
    EXPECT_EQ(log_.take(), Lines{"info published def snapshot 100"});
}

TEST_F(SnapshotStoreTest, PublicationReplacesTheLink) {
    SnapshotStore store(cfg_);
    EXPECT_TRUE(store.publish("100"));
    EXPECT_TRUE(store.publish("101"));
    EXPECT_TRUE(store.publish("101"));
    EXPECT_EQ(listing(root()), (Lines{"active -> snapshots/101", "snapshots/"}));
    EXPECT_EQ(log_.take(), (Lines{"info published def snapshot 100", "info published def snapshot 101",
                                  "info published def snapshot 101"}));
}

TEST_F(SnapshotStoreTest, DescriptorZeroIsClosedAfterTheFlushLikeAnyOther) {
    SnapshotStore store(cfg_);
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    EXPECT_TRUE(store.publish("1"));
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(kept, STDIN_FILENO);
    close(kept);
    static_cast<void>(log_.take());
}

TEST_F(SnapshotStoreTest, RepublishingReplacesTheLinkAllTheSame) {
    SnapshotStore store(cfg_);
    fs::create_symlink("/elsewhere/1", root() + "/active");
    EXPECT_TRUE(store.publish("1"));
    EXPECT_EQ(active(), "snapshots/1");
    EXPECT_EQ(log_.take(), Lines{"info published def snapshot 1"});
}

TEST_F(SnapshotStoreTest, PublicationReplacesARegularFile) {
    SnapshotStore store(cfg_);
    write_file(root() + "/active", "in the way");
    EXPECT_TRUE(store.publish("100"));
    EXPECT_EQ(active(), "snapshots/100");
    EXPECT_EQ(log_.take(), Lines{"info published def snapshot 100"});
}

TEST_F(SnapshotStoreTest, StaleTemporaryLinkIsReplaced) {
    SnapshotStore store(cfg_);
    fs::create_symlink("snapshots/99", root() + "/active.tmp");
    EXPECT_TRUE(store.publish("100"));
    EXPECT_EQ(listing(root()), (Lines{"active -> snapshots/100", "snapshots/"}));
    EXPECT_EQ(log_.take(), Lines{"info published def snapshot 100"});
}

TEST_F(SnapshotStoreTest, DirectoryInPlaceOfTheTemporaryLinkFailsAndStays) {
    SnapshotStore store(cfg_);
    fs::create_symlink("snapshots/99", root() + "/active");
    make_dirs(root() + "/active.tmp");
    EXPECT_FALSE(store.publish("100"));
    EXPECT_EQ(listing(root()), (Lines{"active -> snapshots/99", "active.tmp/", "snapshots/"}));
    EXPECT_EQ(log_.take(), Lines{"err publish: symlink " + root() + "/active.tmp failed"});
}

TEST_F(SnapshotStoreTest, DirectoryInPlaceOfActiveFailsAndLeavesNoTemporaryLink) {
    SnapshotStore store(cfg_);
    for (const bool with_content : {false, true}) {
        make_dirs(root() + (with_content ? "/active/x" : "/active"));
        EXPECT_FALSE(store.publish("100"));
        EXPECT_FALSE(exists(root() + "/active.tmp"));
        EXPECT_TRUE(fs::is_directory(root() + "/active"));
        EXPECT_EQ(log_.take(), Lines{"err publish: rename to active failed"});
    }
}

TEST_F(SnapshotStoreTest, MissingRootFailsAtTheLink) {
    SnapshotStore store(cfg_);
    fs::remove_all(root());
    EXPECT_FALSE(store.publish("100"));
    EXPECT_EQ(log_.take(), Lines{"err publish: symlink " + root() + "/active.tmp failed"});
}

class PruneTest : public SnapshotStoreTest {
protected:
    // Makes snapshots 1..count, the lower the older, with a file in each.
    void make_snapshots(int count) {
        for (int i = 1; i <= count; ++i) {
            make_snapshot(std::to_string(i), i);
        }
    }

    void make_snapshot(const std::string& name, int age_rank) {
        const std::string path = snapshots() + "/" + name;
        make_dirs(path);
        write_file(path + "/x", name);
        set_time(path, age_rank);
    }

    static void set_time(const std::string& path, int rank) {
        // A nanosecond apart, so that the full resolution counts.
        const timespec times[2] = {{1'700'000'000, rank}, {1'700'000'000, rank}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

    void link_active(const std::string& target) const { fs::create_symlink(target, root() + "/active"); }

    // The names left below the snapshots' root, after pruning with that many to retain.
    Lines pruned(std::uint32_t retained) {
        cfg_.retained_snapshots = retained;
        SnapshotStore(cfg_).prune();
        Lines names;
        for (const auto& entry : fs::directory_iterator(snapshots())) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    [[nodiscard]] std::string snapshots() const { return root() + "/snapshots"; }
};

TEST_F(PruneTest, MissingRootIsNothingToDo) {
    SnapshotStore store(cfg_);
    fs::remove_all(snapshots());
    EXPECT_NO_THROW(store.prune());
    EXPECT_FALSE(exists(snapshots()));
}

TEST_F(PruneTest, FileInPlaceOfTheRootIsNothingToDo) {
    SnapshotStore store(cfg_);
    fs::remove_all(snapshots());
    write_file(snapshots(), "x");
    EXPECT_NO_THROW(store.prune());
}

TEST_F(PruneTest, EmptyRootIsNothingToDo) {
    EXPECT_EQ(pruned(0), Lines{});
}

TEST_F(PruneTest, OldestGoesFirst) {
    make_snapshots(4);
    link_active("snapshots/4");
    EXPECT_EQ(pruned(3), (Lines{"2", "3", "4"}));
}

TEST_F(PruneTest, AgeCountsNotTheName) {
    make_snapshot("1", 9);
    make_snapshot("2", 3);
    make_snapshot("3", 5);
    EXPECT_EQ(pruned(2), (Lines{"1", "3"}));
}

TEST_F(PruneTest, OldestInServiceStaysAndTheNextGoesInItsStead) {
    make_snapshots(4);
    link_active("snapshots/1");
    EXPECT_EQ(pruned(3), (Lines{"1", "3", "4"}));
}

TEST_F(PruneTest, NoMoreThanRetainedRemovesNothing) {
    make_snapshots(2);
    EXPECT_EQ(pruned(3), (Lines{"1", "2"}));
    EXPECT_EQ(pruned(2), (Lines{"1", "2"}));
}

TEST_F(PruneTest, RetainingNoneKeepsTheOneInService) {
    make_snapshots(3);
    link_active("snapshots/2");
    EXPECT_EQ(pruned(0), Lines{"2"});
}

TEST_F(PruneTest, RetainingNoneWithNothingInServiceRemovesAll) {
    make_snapshots(3);
    EXPECT_EQ(pruned(0), Lines{});
}

TEST_F(PruneTest, NothingInServiceRemovesTheOldest) {
    make_snapshots(3);
    EXPECT_EQ(pruned(1), Lines{"3"});
}

TEST_F(PruneTest, ServiceOutsideTheRootProtectsTheCandidateOfThatName) {
    make_snapshots(3);
    link_active("/elsewhere/1");
    EXPECT_EQ(pruned(1), Lines{"1"});
}

TEST_F(PruneTest, NameOfNoCandidateProtectsNothing) {
    make_snapshots(3);
    link_active("snapshots/77");
    EXPECT_EQ(pruned(1), Lines{"3"});
}

TEST_F(PruneTest, EmptyNameInServiceProtectsNothing) {
    make_snapshots(2);
    link_active("snapshots/");
    EXPECT_EQ(pruned(0), Lines{});
}

TEST_F(PruneTest, NameIsComparedByteForByte) {
    make_snapshot("a", 1);
    make_snapshot("A", 2);
    link_active("snapshots/A");
    EXPECT_EQ(pruned(0), Lines{"A"});
}

TEST_F(PruneTest, OtherFilesAreNeitherCountedNorRemoved) {
    make_snapshots(2);
    write_file(snapshots() + "/file", "x");
    set_time(snapshots() + "/file", 0);
    fs::create_symlink("nowhere", snapshots() + "/dangling");
    fs::create_symlink("file", snapshots() + "/link-to-file");
    ASSERT_EQ(mkfifo((snapshots() + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(pruned(2), (Lines{"1", "2", "dangling", "fifo", "file", "link-to-file"}));
    EXPECT_EQ(pruned(1), (Lines{"2", "dangling", "fifo", "file", "link-to-file"}));
}

TEST_F(PruneTest, HiddenDirectoriesAreCandidates) {
    make_snapshot(".hidden", 1);
    make_snapshot("2", 2);
    EXPECT_EQ(pruned(1), Lines{"2"});
}

TEST_F(PruneTest, LinkToADirectoryIsAgedByItsTargetAndOnlyTheLinkGoes) {
    make_snapshots(2);
    make_dirs(dir_ / "target");
    write_file(dir_ / "target/x", "kept");
    set_time(dir_ / "target", 0);
    fs::create_directory_symlink(dir_ / "target", snapshots() + "/link");
    set_time(snapshots() + "/link", 99);
    EXPECT_EQ(pruned(2), (Lines{"1", "2"}));
    EXPECT_EQ(read_file(dir_ / "target/x"), "kept");
}

TEST_F(PruneTest, FailedRemovalCountsAndIsSilent) {
    make_snapshots(3);
    // What the owner may not write to, he cannot empty.
    ASSERT_EQ(chmod((snapshots() + "/1").c_str(), 0555), 0);
    {
        const AsOrdinaryUser user({dir_.path(), snapshots(), snapshots() + "/1", snapshots() + "/2", snapshots() + "/3",
                                   snapshots() + "/1/x", snapshots() + "/2/x", snapshots() + "/3/x"});
        EXPECT_EQ(pruned(2), (Lines{"1", "2", "3"}));
        EXPECT_EQ(pruned(1), (Lines{"1", "3"}));
    }
    ASSERT_EQ(chmod((snapshots() + "/1").c_str(), 0755), 0);
    EXPECT_EQ(pruned(1), Lines{"3"});
}

TEST_F(PruneTest, DifferenceThatWrapsIsReadAsSigned) {
    make_snapshots(3);
    link_active("snapshots/3");
    EXPECT_EQ(pruned(2147483651U), (Lines{"1", "2", "3"}));  // 3 - (2^31 + 3) is the smallest number
    EXPECT_EQ(pruned(0x7FFFFFFFU), (Lines{"1", "2", "3"}));
    EXPECT_EQ(pruned(4294967295U), Lines{"3"});  // reads as 4 too many
}

TEST_F(PruneTest, SmallestWrappingDifferenceRemoves) {
    make_snapshots(3);
    EXPECT_EQ(pruned(2147483652U), Lines{});  // 3 - (2^31 + 4) reads as 2^31 - 1 too many
}

TEST_F(PruneTest, EntryWhoseTypeCannotBeToldThrowsWithNothingRemoved) {
    make_snapshots(3);
    fs::create_symlink("loop", snapshots() + "/loop");
    cfg_.retained_snapshots = 0;
    EXPECT_THROW(SnapshotStore(cfg_).prune(), fs::filesystem_error);
    EXPECT_EQ(listing(snapshots()), (Lines{"1/", "1/x", "2/", "2/x", "3/", "3/x", "loop -> loop"}));
}

TEST_F(PruneTest, FarMoreSnapshotsThanUsualLeaveTheNewest) {
    make_snapshots(200);
    EXPECT_EQ(pruned(3), (Lines{"198", "199", "200"}));
}

class StatusTest : public SnapshotStoreTest {
protected:
    std::string written(const SnapshotStore::Status& st) {
        SnapshotStore(cfg_).write_status(st);
        return read_file(cfg_.status_path);
    }
};

TEST_F(StatusTest, EmptyStatusIsTheTenLines) {
    EXPECT_EQ(written({}),
              "{\n"
              "  \"schema_version\": 1,\n"
              "  \"active_version\": \"\",\n"
              "  \"engine_version\": \"\",\n"
              "  \"antivir_def_version\": \"\",\n"
              "  \"aivsecon_def_version\": \"\",\n"
              "  \"last_check_epoch\": 0,\n"
              "  \"last_success_epoch\": 0,\n"
              "  \"last_error\": \"\"\n"
              "}\n");
}

TEST_F(StatusTest, EveryFieldHasItsPlace) {
    EXPECT_EQ(written({"a", "b", "c", "d", 1, 2, "e"}),
              "{\n"
              "  \"schema_version\": 1,\n"
              "  \"active_version\": \"a\",\n"
              "  \"engine_version\": \"b\",\n"
              "  \"antivir_def_version\": \"c\",\n"
              "  \"aivsecon_def_version\": \"d\",\n"
              "  \"last_check_epoch\": 1,\n"
              "  \"last_success_epoch\": 2,\n"
              "  \"last_error\": \"e\"\n"
              "}\n");
}

TEST_F(StatusTest, TimesAreSigned64BitWithoutGrouping) {
    SnapshotStore::Status st;
    st.last_check_epoch = std::numeric_limits<std::int64_t>::min();
    st.last_success_epoch = std::numeric_limits<std::int64_t>::max();
    const std::string text = written(st);
    EXPECT_NE(text.find("  \"last_check_epoch\": -9223372036854775808,\n"), std::string::npos);
    EXPECT_NE(text.find("  \"last_success_epoch\": 9223372036854775807,\n"), std::string::npos);
    EXPECT_TRUE((std::is_same_v<decltype(st.last_check_epoch), std::int64_t>));
}

TEST_F(StatusTest, FiveBytesAreEscapedAndNoOthers) {
    std::string all;
    std::string escaped;
    for (int c = 0; c < 256; ++c) {
        const char byte = static_cast<char>(c);
        all += byte;
        escaped += byte == '\t'   ? "\\t"
                   : byte == '\n' ? "\\n"
                   : byte == '\r' ? "\\r"
                   : byte == '"'  ? "\\\""
                   : byte == '\\' ? "\\\\"
                                  : std::string(1, byte);
    }
    EXPECT_EQ(written({all, all, all, all, 0, 0, all}),
              "{\n"
              "  \"schema_version\": 1,\n"
              "  \"active_version\": \"" +
                  escaped +
                  "\",\n"
                  "  \"engine_version\": \"" +
                  escaped +
                  "\",\n"
                  "  \"antivir_def_version\": \"" +
                  escaped +
                  "\",\n"
                  "  \"aivsecon_def_version\": \"" +
                  escaped +
                  "\",\n"
                  "  \"last_check_epoch\": 0,\n"
                  "  \"last_success_epoch\": 0,\n"
                  "  \"last_error\": \"" +
                  escaped +
                  "\"\n"
                  "}\n");
}

TEST_F(StatusTest, LongerFormerFileLeavesNoTail) {
    const std::string plain = written({});
    SnapshotStore::Status longer;
    longer.last_error = std::string(100'000, 'x');
    EXPECT_GT(written(longer).size(), 100'000U);
    EXPECT_EQ(written({}), plain);
}

TEST_F(StatusTest, MissingDirectoryIsSilentAndNotCreated) {
    const SnapshotStore store(cfg_);
    fs::remove_all(dir_ / "manifest");
    store.write_status({});
    EXPECT_EQ(listing(dir_.path()), (Lines{"defs/", "defs/snapshots/"}));
}

TEST_F(StatusTest, FileWithoutPermissionIsSilentAndKept) {
    const SnapshotStore store(cfg_);
    write_file(cfg_.status_path, "former");
    ASSERT_EQ(chmod(cfg_.status_path.c_str(), 0444), 0);
    const AsOrdinaryUser user({dir_.path(), dir_ / "manifest", cfg_.status_path});
    store.write_status({});
    EXPECT_EQ(read_file(cfg_.status_path), "former");
}

TEST_F(StatusTest, FullDiskIsSilent) {
    const SnapshotStore store(cfg_);
    cfg_.status_path = dir_ / "full";  // a link, lest a broken daemon damages the device itself
    fs::create_symlink("/dev/full", cfg_.status_path);
    EXPECT_NO_THROW(store.write_status({}));
    EXPECT_EQ(fs::read_symlink(cfg_.status_path), "/dev/full");
}

TEST_F(StatusTest, FileIsRewrittenInPlace) {
    static_cast<void>(written({}));
    struct stat before {};
    ASSERT_EQ(stat(cfg_.status_path.c_str(), &before), 0);
    static_cast<void>(written({"a", "", "", "", 0, 0, ""}));
    struct stat after {};
    ASSERT_EQ(stat(cfg_.status_path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(listing(dir_ / "manifest"), Lines{"status.json"});
}

}  // namespace
}  // namespace zqu::test
