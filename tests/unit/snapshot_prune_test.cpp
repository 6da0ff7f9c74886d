#include "snapshot_store_fixture.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

namespace zqu::test {
namespace {

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

TEST_F(PruneTest, SnapshotsOfOneTimeArePrunedToTheNumber) {
    for (int i = 1; i <= 100; ++i) {
        make_snapshot(std::to_string(i), 1);
    }
    EXPECT_EQ(pruned(7).size(), 7U);
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

}  // namespace
}  // namespace zqu::test
