#include "snapshot_store_fixture.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace zqu::test {
namespace {

TEST_F(SnapshotStoreTest, ConstructionCreatesTheDirectories) {
    const SnapshotStore store(cfg_);
    EXPECT_EQ(listing(dir_.path()), (Lines{"defs/", "defs/snapshots/", "manifest/"}));
    EXPECT_EQ(store.active_version(), std::nullopt);
}

TEST_F(SnapshotStoreTest, DirectoryOfTheStatusIsCreatedWithItsParents) {
    cfg_.status_path = dir_ / "a/b/c/status.json";
    const SnapshotStore store(cfg_);
    EXPECT_EQ(listing(dir_.path()), (Lines{"a/", "a/b/", "a/b/c/", "defs/", "defs/snapshots/"}));
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

}  // namespace
}  // namespace zqu::test
