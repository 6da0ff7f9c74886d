#include "snapshot_store.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "expectations.hpp"
#include "support.hpp"

namespace zqu::test {
namespace {

class SnapshotStoreTest : public LoggedTest {
protected:
    SnapshotStoreTest() {
        cfg_.def_root = dir_ / "defs";
        cfg_.status_path = dir_ / "manifest/status.json";
    }

    [[nodiscard]] std::string root() const { return cfg_.def_root; }
    [[nodiscard]] std::string snapshots() const { return root() + "/snapshots"; }
    [[nodiscard]] std::string link() const { return root() + "/active"; }

    // Publishes a version, which must leave the link and nothing else beside the snapshots.
    void expect_published(SnapshotStore& store, const std::string& version) {
        EXPECT_TRUE(store.publish(version));
        EXPECT_EQ(fs::read_symlink(link()), "snapshots/" + version);
        EXPECT_FALSE(exists(root() + "/active.tmp"));
        EXPECT_EQ(log_.take(), Lines{"info published def snapshot " + version});
    }

    Config cfg_;
};

TEST_F(SnapshotStoreTest, ConstructionCreatesTheDirectories) {
    cfg_.status_path = dir_ / "a/b/c/status.json";
    const SnapshotStore store(cfg_);
    EXPECT_EQ(listing(dir_.path()), (Lines{"a/", "a/b/", "a/b/c/", "defs/", "defs/snapshots/"}));
    EXPECT_EQ(store.active_version(), std::nullopt);
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
    expect_published(store, "7");
}

TEST_F(SnapshotStoreTest, StageDirectoryIsCreatedAndKeepsItsFiles) {
    const SnapshotStore store(cfg_);
    fs::remove_all(root());
    EXPECT_EQ(store.stage_dir("123"), root() + "/snapshots/123");
    EXPECT_EQ(listing(root()), (Lines{"snapshots/", "snapshots/123/"}));
    write_file(root() + "/snapshots/123/x", "kept");
    EXPECT_EQ(SnapshotStore(cfg_).stage_dir("123"), root() + "/snapshots/123");
    EXPECT_EQ(read_file(root() + "/snapshots/123/x"), "kept");
}

TEST_F(SnapshotStoreTest, ActiveVersionIsTheLastComponentOfTheTarget) {
    const SnapshotStore store(cfg_);
    const std::pair<const char*, const char*> cases[] = {
        {"snapshots/12", "12"}, {"/elsewhere/12", "12"}, {"../x/12", "12"}, {"12", "12"}, {"snapshots/", ""},
    };
    for (const auto& [target, version] : cases) {
        fs::remove(link());
        fs::create_symlink(target, link());
        EXPECT_EQ(store.active_version(), version) << target;
    }
}

TEST_F(SnapshotStoreTest, ActiveThatIsNoLinkIsNoVersion) {
    const SnapshotStore store(cfg_);
    write_file(link(), "x");
    EXPECT_EQ(store.active_version(), std::nullopt);
    fs::remove(link());
    make_dirs(link());
    EXPECT_EQ(store.active_version(), std::nullopt);
}

TEST_F(SnapshotStoreTest, FirstPublicationMakesARelativeLink) {
    SnapshotStore store(cfg_);
    expect_published(store, "100");
    EXPECT_EQ(listing(root()), (Lines{"active -> snapshots/100", "snapshots/"}));  // dangling, which does not matter
    EXPECT_EQ(store.active_version(), "100");
}

TEST_F(SnapshotStoreTest, PublicationReplacesWhatIsNoDirectory) {
    SnapshotStore store(cfg_);
    fs::create_symlink("/elsewhere/100", link());
    expect_published(store, "100");
    expect_published(store, "101");
    expect_published(store, "101");
    fs::remove(link());
    write_file(link(), "in the way");
    expect_published(store, "102");
}

TEST_F(SnapshotStoreTest, DescriptorZeroIsClosedAfterTheFlushLikeAnyOther) {
    SnapshotStore store(cfg_);
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    expect_published(store, "1");
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(kept, STDIN_FILENO);
    close(kept);
}

TEST_F(SnapshotStoreTest, StaleTemporaryLinkIsReplaced) {
    SnapshotStore store(cfg_);
    fs::create_symlink("snapshots/99", root() + "/active.tmp");
    expect_published(store, "100");
}

class StatusTest : public SnapshotStoreTest {
protected:
    std::string written(const SnapshotStore::Status& st) {
        SnapshotStore(cfg_).write_status(st);
        return read_file(cfg_.status_path);
    }
};

TEST_F(StatusTest, EveryFieldHasItsPlaceAndTimesHave64Bits) {
    using Status = SnapshotStore::Status;
    constexpr std::numeric_limits<std::int64_t> limits;
    const Status cases[] = {{}, {"a", "b", "c", "d", 1, 2, "e"}, {"", "", "", "", limits.min(), limits.max(), ""}};
    for (const auto& st : cases) {
        EXPECT_EQ(written(st), status_text(st));
    }
}

TEST_F(StatusTest, FiveBytesAreEscapedAndNoOthers) {
    std::string all;
    for (int c = 0; c < 256; ++c) {
        all += static_cast<char>(c);
    }
    const std::string in_json = escaped(all);
    EXPECT_EQ(in_json.size(), all.size() + 5);
    EXPECT_EQ(written({all, all, all, all, 0, 0, all}),
              status_text({in_json, in_json, in_json, in_json, 0, 0, in_json}));
}

TEST_F(StatusTest, FileIsRewrittenInPlaceWithoutAFormerTail) {
    SnapshotStore::Status longer;
    longer.last_error = std::string(100'000, 'x');
    EXPECT_EQ(written(longer), status_text(longer));
    struct stat before = {};
    ASSERT_EQ(stat(cfg_.status_path.c_str(), &before), 0);
    EXPECT_EQ(written({}), status_text({}));
    struct stat after = {};
    ASSERT_EQ(stat(cfg_.status_path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(listing(dir_ / "manifest"), Lines{"status.json"});
}

class PruneTest : public SnapshotStoreTest {
protected:
    // Makes snapshots with a file in each, the oldest first.
    void make_snapshots(const Lines& names) {
        for (const auto& name : names) {
            make_dirs(snapshots() + "/" + name);
            write_file(snapshots() + "/" + name + "/x", name);
            set_time(snapshots() + "/" + name, ++rank_);
        }
    }

    static void set_time(const std::string& path, int rank) {
        // A nanosecond apart, so that the full resolution counts.
        const timespec times[2] = {{1'700'000'000, rank}, {1'700'000'000, rank}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

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

    int rank_ = 0;
};

// What pruning leaves of snapshots, of which the oldest comes first, with the target of the link, if there is one.
struct PruneCase : Verdict {
    Lines names;
    std::string active;
    std::uint32_t retained;
    Lines left;
};

class PruneOrderTest : public PruneTest, public ::testing::WithParamInterface<PruneCase> {};

TEST_P(PruneOrderTest, OldestGoFirstAndTheOneInServiceStays) {
    make_snapshots(GetParam().names);
    if (!GetParam().active.empty()) {
        fs::create_symlink(GetParam().active, link());
    }
    EXPECT_EQ(pruned(GetParam().retained), GetParam().left);
}

const PruneCase prune_cases[] = {
    {"EmptyRootIsNothingToDo", {}, "", 0, {}},
    {"OldestGoesFirst", {"1", "2", "3", "4"}, "snapshots/4", 3, {"2", "3", "4"}},
    {"AgeCountsNotTheName", {"2", "3", "1"}, "", 2, {"1", "3"}},
    {"NextGoesForTheOldestInService", {"1", "2", "3", "4"}, "snapshots/1", 3, {"1", "3", "4"}},
    {"FewerThanRetainedStay", {"1", "2"}, "", 3, {"1", "2"}},
    {"AsManyAsRetainedStay", {"1", "2"}, "", 2, {"1", "2"}},
    {"RetainingNoneKeepsTheOneInService", {"1", "2", "3"}, "snapshots/2", 0, {"2"}},
    {"RetainingNoneOfNoneInService", {"1", "2", "3"}, "", 0, {}},
    {"NothingInServiceRemovesTheOldest", {"1", "2", "3"}, "", 1, {"3"}},
    {"LinkElsewhereProtectsItsName", {"1", "2", "3"}, "/elsewhere/1", 1, {"1"}},
    {"NameOfNoCandidateProtectsNothing", {"1", "2", "3"}, "snapshots/77", 1, {"3"}},
    {"EmptyNameInServiceProtectsNothing", {"1", "2"}, "snapshots/", 0, {}},
    {"NameIsComparedByteForByte", {"a", "A"}, "snapshots/A", 0, {"A"}},
    {"HiddenDirectoriesAreCandidates", {".hidden", "2"}, "", 1, {"2"}},
    // The difference is read as signed: 3 - (2^31 + 3) is the smallest number, and 3 - (2^31 + 4) wraps to 2^31 - 1.
    {"SmallestDifferenceRemovesNothing", {"1", "2", "3"}, "snapshots/3", 2147483651U, {"1", "2", "3"}},
    {"LargestSignedNumberRemovesNothing", {"1", "2", "3"}, "snapshots/3", 0x7FFFFFFFU, {"1", "2", "3"}},
    {"LargestNumberReadsAsFourTooMany", {"1", "2", "3"}, "snapshots/3", 4294967295U, {"3"}},
    {"WrappedDifferenceRemovesAll", {"1", "2", "3"}, "", 2147483652U, {}},
};
INSTANTIATE_TEST_SUITE_P(Case, PruneOrderTest, ::testing::ValuesIn(prune_cases), ByVerdict());

TEST_F(PruneTest, MissingRootOrAFileInItsPlaceIsNothingToDo) {
    SnapshotStore store(cfg_);
    fs::remove_all(snapshots());
    EXPECT_NO_THROW(store.prune());
    EXPECT_FALSE(exists(snapshots()));
    write_file(snapshots(), "x");
    EXPECT_NO_THROW(store.prune());
}

TEST_F(PruneTest, SnapshotsOfOneTimeArePrunedToTheNumber) {
    for (int i = 1; i <= 100; ++i) {
        rank_ = 0;
        make_snapshots({std::to_string(i)});
    }
    EXPECT_EQ(pruned(7).size(), 7U);
}

TEST_F(PruneTest, OtherFilesAreNeitherCountedNorRemoved) {
    make_snapshots({"1", "2"});
    write_file(snapshots() + "/file", "x");
    set_time(snapshots() + "/file", 0);
    fs::create_symlink("nowhere", snapshots() + "/dangling");
    fs::create_symlink("file", snapshots() + "/link-to-file");
    ASSERT_EQ(mkfifo((snapshots() + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(pruned(2), (Lines{"1", "2", "dangling", "fifo", "file", "link-to-file"}));
    EXPECT_EQ(pruned(1), (Lines{"2", "dangling", "fifo", "file", "link-to-file"}));
}

TEST_F(PruneTest, LinkToADirectoryIsAgedByItsTargetAndOnlyTheLinkGoes) {
    make_snapshots({"1", "2"});
    make_dirs(dir_ / "target");
    write_file(dir_ / "target/x", "kept");
    set_time(dir_ / "target", 0);
    fs::create_directory_symlink(dir_ / "target", snapshots() + "/link");
    set_time(snapshots() + "/link", 99);
    EXPECT_EQ(pruned(2), (Lines{"1", "2"}));
    EXPECT_EQ(read_file(dir_ / "target/x"), "kept");
}

TEST_F(PruneTest, EntryWhoseTypeIsUnknownThrowsWithNothingRemoved) {
    make_snapshots({"1", "2", "3"});
    fs::create_symlink("loop", snapshots() + "/loop");
    EXPECT_THROW(static_cast<void>(pruned(0)), fs::filesystem_error);
    EXPECT_EQ(listing(snapshots()), (Lines{"1/", "1/x", "2/", "2/x", "3/", "3/x", "loop -> loop"}));
}

}  // namespace
}  // namespace zqu::test
