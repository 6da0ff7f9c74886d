#include "updater.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <type_traits>

#include "support.hpp"

namespace zqu::test {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr std::time_t check_time = 1'800'000'000;

class UpdaterTest : public ::testing::Test {
protected:
    UpdaterTest() : cfg_(mirror_.config(dir_.path())) { clock_.now = check_time; }

    bool run() { return Updater(cfg_).run_once(); }

    // The status file that a check at check_time leaves.
    [[nodiscard]] std::string status(const std::string& version, std::time_t success, const std::string& error) const {
        return "{\n  \"schema_version\": 1,\n  \"active_version\": \"" + version + "\",\n  \"engine_version\": \"" +
               cfg_.engine_version + "\",\n  \"antivir_def_version\": \"" + version +
               "\",\n  \"aivsecon_def_version\": \"" + version +
               "\",\n  \"last_check_epoch\": " + std::to_string(check_time) +
               ",\n  \"last_success_epoch\": " + std::to_string(success) + ",\n  \"last_error\": \"" + error +
               "\"\n}\n";
    }

    void expect_status(const std::string& version, std::time_t success, const std::string& error) const {
        EXPECT_EQ(read_file(cfg_.status_path), status(version, success, error));
    }

    // Puts release 1 into service and forgets its log lines.
    void install_first() {
        mirror_.publish("1");
        EXPECT_TRUE(run());
        static_cast<void>(log_.take());
    }

    // Runs a check that must refuse release 2, leave release 1 in service and remove the staging directory.
    void expect_refused(const std::string& error, Lines lines_before = {}) {
        EXPECT_FALSE(run());
        lines_before.push_back("err run_once: staging failed: " + error);
        EXPECT_EQ(log_.take(), lines_before);
        expect_status("1", 0, error);
        EXPECT_EQ(listing(cfg_.def_root), first_installed);
    }

    const Lines first_installed = {"active -> snapshots/1", "snapshots/", "snapshots/1/", "snapshots/1/aivsecon-v2.def",
                                   "snapshots/1/antivir-v2.def"};

    Mirror mirror_;
    TempDir dir_;
    Config cfg_;
    FakeClock clock_;
    LogCapture log_;

    void TearDown() override { EXPECT_EQ(log_.take(), Lines{}); }
};

TEST_F(UpdaterTest, StaysWhereItWasBuilt) {
    EXPECT_FALSE(std::is_copy_constructible_v<Updater>);
    EXPECT_FALSE(std::is_move_constructible_v<Updater>);
}

TEST_F(UpdaterTest, WorksOnItsOwnCopyOfTheSettings) {
    mirror_.publish("1");
    auto cfg = std::make_unique<Config>(cfg_);
    Updater updater(*cfg);
    cfg->def_root = "/nowhere";
    cfg.reset();
    EXPECT_TRUE(updater.run_once());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, FirstUpdatePublishesTheTwoFiles) {
    mirror_.publish("1");
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    EXPECT_EQ(read_file(cfg_.def_root + "/active/antivir-v2.def"), Mirror::content("antivir-v2.def", "1"));
    EXPECT_EQ(read_file(cfg_.def_root + "/active/aivsecon-v2.def"), Mirror::content("aivsecon-v2.def", "1"));
    expect_status("1", check_time, "");
    EXPECT_EQ(log_.take(), (Lines{"info published def snapshot 1", "info def snapshot updated: none -> 1"}));
}

TEST_F(UpdaterTest, SameIdIsCurrentAndOnlyTheStatusIsRewritten) {
    install_first();
    mirror_.remove("antivir-v2-c-1.ini");  // nothing but the hit INI may be asked for
    mirror_.remove("release-1.cab");
    fs::remove(cfg_.status_path);
    EXPECT_FALSE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    expect_status("1", check_time, "");
}

TEST_F(UpdaterTest, SecondUpdateReplacesTheFirst) {
    install_first();
    mirror_.publish("2");
    EXPECT_TRUE(run());
    EXPECT_EQ(fs::read_symlink(cfg_.def_root + "/active"), "snapshots/2");
    expect_status("2", check_time, "");
    EXPECT_EQ(log_.take(), (Lines{"info published def snapshot 2", "info def snapshot updated: 1 -> 2"}));
}

TEST_F(UpdaterTest, IdThatDiffersOnlyInCaseIsAnother) {
    mirror_.publish("abc");
    EXPECT_TRUE(run());
    mirror_.publish("ABC");
    EXPECT_TRUE(run());
    EXPECT_EQ(fs::read_symlink(cfg_.def_root + "/active"), "snapshots/ABC");
    EXPECT_EQ(log_.take(), (Lines{"info published def snapshot abc", "info def snapshot updated: none -> abc",
                                  "info published def snapshot ABC", "info def snapshot updated: abc -> ABC"}));
}

TEST_F(UpdaterTest, ActiveNameAloneDecidesWhatIsCurrent) {
    mirror_.publish("1");
    make_dirs(cfg_.def_root);
    fs::create_symlink("/nowhere/1", cfg_.def_root + "/active");
    EXPECT_FALSE(run());
    expect_status("1", check_time, "");
}

TEST_F(UpdaterTest, EmptyNameInServiceIsNotCurrentAndIsLoggedAsEmpty) {
    mirror_.publish("1");
    make_dirs(cfg_.def_root);
    fs::create_symlink("snapshots/", cfg_.def_root + "/active");
    EXPECT_TRUE(run());
    EXPECT_EQ(log_.take(), (Lines{"info published def snapshot 1", "info def snapshot updated:  -> 1"}));
}

TEST_F(UpdaterTest, OldSnapshotsArePrunedAfterPublication) {
    cfg_.retained_snapshots = 2;
    for (const char* id : {"1", "2", "3", "4"}) {
        mirror_.publish(id);
        EXPECT_TRUE(run());
    }
    EXPECT_EQ(listing(cfg_.def_root),
              (Lines{"active -> snapshots/4", "snapshots/", "snapshots/3/", "snapshots/3/aivsecon-v2.def",
                     "snapshots/3/antivir-v2.def", "snapshots/4/", "snapshots/4/aivsecon-v2.def",
                     "snapshots/4/antivir-v2.def"}));
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, CurrentSnapshotPrunesNothing) {
    for (const char* id : {"1", "2", "3"}) {
        mirror_.publish(id);
        EXPECT_TRUE(run());
    }
    static_cast<void>(log_.take());
    const Lines before = listing(cfg_.def_root);
    cfg_.retained_snapshots = 1;
    EXPECT_FALSE(run());
    EXPECT_EQ(listing(cfg_.def_root), before);
}

TEST_F(UpdaterTest, FlavorNamesTheFiles) {
    Mirror mirror("v9");
    mirror.publish("1");
    cfg_ = mirror.config(dir_.path());
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root + "/active/"), (Lines{"aivsecon-v9.def", "antivir-v9.def"}));
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, FlavorNamesTheIndex) {
    Mirror mirror("v9");
    auto entries = mirror.release_entries("1");
    entries[0].content += "tampered";
    mirror.publish("1", entries);
    cfg_ = mirror.config(dir_.path());
    EXPECT_FALSE(run());
    EXPECT_EQ(log_.take(), Lines{"err run_once: staging failed: sha256 mismatch antivir-v9.def"});
}

TEST_F(UpdaterTest, MissingHitIniFails) {
    EXPECT_FALSE(run());
    expect_status("", 0, "defId fetch failed");
    EXPECT_EQ(listing(cfg_.def_root), Lines{"snapshots/"});
    EXPECT_EQ(log_.take(), Lines{"err GET " + mirror_.url("antivir-v2-hit.ini") + ": Couldn't read a file:// file"});
}

TEST_F(UpdaterTest, FailureKeepsTheVersionInServiceAndNoSuccessTime) {
    install_first();
    mirror_.write("antivir-v2-hit.ini", "nothing\n");
    EXPECT_FALSE(run());
    expect_status("1", 0, "defId fetch failed");
    EXPECT_EQ(log_.take(), Lines{"err parse_hit_defid: no [Current] defId"});
}

TEST_F(UpdaterTest, MissingCompleteInfoFailsAndStagesNothing) {
    install_first();
    mirror_.write("antivir-v2-hit.ini", "defId=2\n");
    EXPECT_FALSE(run());
    expect_status("1", 0, "complete-info fetch failed for 2");
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    EXPECT_EQ(log_.take(), Lines{"err GET " + mirror_.url("antivir-v2-c-2.ini") + ": Couldn't read a file:// file"});
}

TEST_F(UpdaterTest, MissingArchiveFails) {
    install_first();
    mirror_.publish("2");
    mirror_.remove("release-2.cab");
    expect_refused("download CAB",
                   {"err download_cab " + mirror_.url("release-2.cab") + ": Couldn't read a file:// file"});
}

TEST_F(UpdaterTest, ArchiveNameWithASlashHasNoDirectoryToGoTo) {
    install_first();
    mirror_.publish("2");
    mirror_.write("antivir-v2-c-2.ini", "def.Current.name=sub/x.cab\ndef.Current.SHA256=00\n");
    const std::string part = cfg_.def_root + "/snapshots/2/sub/x.cab.part";
    expect_refused("download CAB", {"err download_cab: cannot create " + part});
}

TEST_F(UpdaterTest, ArchiveNamedLikeADefinitionFileTakesItAway) {
    install_first();
    mirror_.publish("2");
    const std::string bytes = read_file(mirror_.path("release-2.cab"));
    mirror_.write("antivir-v2.def", bytes);
    mirror_.write("antivir-v2-c-2.ini", "def.Current.name=antivir-v2.def\ndef.Current.SHA256=" + sha256(bytes) + "\n");
    expect_refused("CAB missing antivir-v2.def");
}

TEST_F(UpdaterTest, TamperedArchiveIsRefused) {
    install_first();
    mirror_.publish("2");
    std::string bytes = read_file(mirror_.path("release-2.cab"));
    bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 1);
    mirror_.write("release-2.cab", bytes);
    expect_refused("CAB sha256 mismatch");
}

TEST_F(UpdaterTest, AnnouncedSizeIsNotConsulted) {
    mirror_.publish("1");
    std::string ini = read_file(mirror_.path("antivir-v2-c-1.ini"));
    mirror_.write("antivir-v2-c-1.ini", ini + "def.Current.size = 3\n");
    EXPECT_TRUE(run());
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, DifferentIdInTheCompleteInfoDoesNotMatter) {
    mirror_.publish("1");
    mirror_.write("antivir-v2-c-1.ini", "def.Current.defId=77\ndef.Current.name=release-1.cab\ndef.Current.SHA256=" +
                                            sha256(read_file(mirror_.path("release-1.cab"))) + "\n");
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, CorruptEntryIsRefused) {
    install_first();
    auto entries = mirror_.release_entries("2");
    entries[0].content = std::string(100'000, 'x');
    mirror_.publish("2", entries);
    std::string bytes = read_file(mirror_.path("release-2.cab"));
    for (std::size_t i = 80; i < 110; ++i) {
        bytes[i] = static_cast<char>(~bytes[i]);
    }
    mirror_.write("release-2.cab", bytes);
    mirror_.write("antivir-v2-c-2.ini", "def.Current.name=release-2.cab\ndef.Current.SHA256=" + sha256(bytes) + "\n");
    expect_refused("CAB extract");
}

TEST_F(UpdaterTest, MissingFirstFileIsReportedAndTheSecondNotExamined) {
    install_first();
    auto entries = mirror_.release_entries("2");
    entries[1].content = "not what the index says";
    entries.erase(entries.begin());
    mirror_.publish("2", entries);
    expect_refused("CAB missing antivir-v2.def");
}

TEST_F(UpdaterTest, MissingSecondFileIsReported) {
    install_first();
    auto entries = mirror_.release_entries("2");
    entries.erase(entries.begin() + 1);
    mirror_.publish("2", entries);
    expect_refused("CAB missing aivsecon-v2.def");
}

TEST_F(UpdaterTest, DanglingLinkInPlaceOfAFileIsMissing) {
    install_first();
    auto entries = mirror_.release_entries("2");
    entries[0] = {"antivir-v2.def", "", 0120000, 0777, "nowhere"};
    mirror_.publish("2", entries);
    expect_refused("CAB missing antivir-v2.def");
}

TEST_F(UpdaterTest, DirectoryInPlaceOfAnUnindexedFileIsAccepted) {
    mirror_.publish("1", {mirror_.release_entries("1")[1]});
    make_dirs(cfg_.def_root + "/snapshots/1/antivir-v2.def");
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root + "/snapshots/1"), (Lines{"aivsecon-v2.def", "antivir-v2.def/"}));
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, WrongFirstFileIsReportedAndTheSecondNotExamined) {
    install_first();
    auto entries = mirror_.release_entries("2");
    entries[0].content += "tampered";
    entries.erase(entries.begin() + 1);
    mirror_.publish("2", entries);
    expect_refused("sha256 mismatch antivir-v2.def");
}

TEST_F(UpdaterTest, WrongSecondFileIsReported) {
    install_first();
    auto entries = mirror_.release_entries("2");
    entries[1].content += "tampered";
    mirror_.publish("2", entries);
    expect_refused("sha256 mismatch aivsecon-v2.def");
}

TEST_F(UpdaterTest, EmptyDigestInTheIndexMatchesNothing) {
    install_first();
    auto entries = mirror_.release_entries("2");
    entries[2].content = "antivir-v2.def.sha256 =\n";
    mirror_.publish("2", entries);
    expect_refused("sha256 mismatch antivir-v2.def");
}

TEST_F(UpdaterTest, FileThatTheIndexDoesNotNameIsAccepted) {
    auto entries = mirror_.release_entries("1");
    entries[1].content = "whatever";
    entries[2].content = "antivir-v2.def.sha256 = " + sha256(entries[0].content) + "\n";
    mirror_.publish("1", entries);
    EXPECT_TRUE(run());
    EXPECT_EQ(read_file(cfg_.def_root + "/active/aivsecon-v2.def"), "whatever");
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, IndexNameInOtherCaseIsAnotherFile) {
    auto entries = mirror_.release_entries("1");
    entries[2].content = "ANTIVIR-v2.def.sha256 = 00\n";
    mirror_.publish("1", entries);
    EXPECT_TRUE(run());
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, ArchiveWithoutIndexIsAccepted) {
    auto entries = mirror_.release_entries("1");
    entries.pop_back();
    mirror_.publish("1", entries);
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, DirectoryInPlaceOfTheIndexIsAnEmptyIndex) {
    auto entries = mirror_.release_entries("1");
    entries.pop_back();
    mirror_.publish("1", entries);
    make_dirs(cfg_.def_root + "/snapshots/1/antivir-v2.ini");
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);  // an empty directory is swept away
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, IndexLongerThanABlockIsReadWhole) {
    install_first();
    auto entries = mirror_.release_entries("2");
    entries[2].content = "; " + std::string(200'000, 'x') + "\naivsecon-v2.def.sha256 = 00\n";
    mirror_.publish("2", entries);
    expect_refused("sha256 mismatch aivsecon-v2.def");
}

TEST_F(UpdaterTest, NothingButTheTwoFilesStays) {
    auto entries = mirror_.release_entries("1");
    entries.push_back({"readme.txt", "x"});
    entries.push_back({"antivir-v2.DEF", "x"});
    entries.push_back({"antivir-v2.def.sig", "x"});
    entries.push_back({"xantivir-v2.def", "x"});
    entries.push_back({"link", "", 0120000, 0777, "/etc"});
    entries.push_back({"release-1.cab.part", "x"});
    mirror_.publish("1", entries);
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, DirectoryWithContentSurvivesTheSweep) {
    mirror_.publish("1");
    make_dirs(cfg_.def_root + "/snapshots/1/empty");
    make_dirs(cfg_.def_root + "/snapshots/1/full/x");
    write_file(cfg_.def_root + "/snapshots/1/left over", "x");
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root + "/snapshots/1"),
              (Lines{"aivsecon-v2.def", "antivir-v2.def", "full/", "full/x/"}));
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, LeftOverStagingIsReused) {
    mirror_.publish("1");
    make_dirs(cfg_.def_root + "/snapshots/1");
    write_file(cfg_.def_root + "/snapshots/1/antivir-v2.def",
               "stale, and longer than what replaces it: " + std::string(1000, 'x'));
    write_file(cfg_.def_root + "/snapshots/1/release-1.cab.part", "stale");
    write_file(cfg_.def_root + "/snapshots/1/release-1.cab", "stale");
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    EXPECT_EQ(read_file(cfg_.def_root + "/active/antivir-v2.def"), Mirror::content("antivir-v2.def", "1"));
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, FailedPublicationLeavesTheStaging) {
    mirror_.publish("1");
    make_dirs(cfg_.def_root + "/active");
    EXPECT_FALSE(run());
    expect_status("", 0, "publish/flip failed");
    EXPECT_EQ(listing(cfg_.def_root), (Lines{"active/", "snapshots/", "snapshots/1/", "snapshots/1/aivsecon-v2.def",
                                             "snapshots/1/antivir-v2.def"}));
    EXPECT_EQ(log_.take(), Lines{"err publish: rename to active failed"});
    fs::remove(cfg_.def_root + "/active");
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, FailedPublicationNamesTheFormerVersionAndPrunesNothing) {
    install_first();
    cfg_.retained_snapshots = 0;
    mirror_.publish("2");
    make_dirs(cfg_.def_root + "/active.tmp");
    EXPECT_FALSE(run());
    expect_status("1", 0, "publish/flip failed");
    EXPECT_TRUE(exists(cfg_.def_root + "/snapshots/1/antivir-v2.def"));
    EXPECT_TRUE(exists(cfg_.def_root + "/snapshots/2/antivir-v2.def"));
    EXPECT_EQ(log_.take(), Lines{"err publish: symlink " + cfg_.def_root + "/active.tmp failed"});
}

TEST_F(UpdaterTest, StagingThatCannotBeCreatedIsAFailedDownload) {
    mirror_.publish("1");
    make_dirs(cfg_.def_root);
    write_file(cfg_.def_root + "/snapshots", "in the way");
    EXPECT_FALSE(run());
    expect_status("", 0, "download CAB");
    EXPECT_EQ(log_.take(),
              (Lines{"err download_cab: cannot create " + cfg_.def_root + "/snapshots/1/release-1.cab.part",
                     "err run_once: staging failed: download CAB"}));
}

TEST_F(UpdaterTest, StatusThatCannotBeWrittenDoesNotMatter) {
    mirror_.publish("1");
    make_dirs(cfg_.status_path);
    EXPECT_TRUE(run());
    EXPECT_EQ(listing(cfg_.def_root), first_installed);
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, DefinitionFileWhoseStatusCannotBeToldThrowsAndWritesNoStatus) {
    auto entries = mirror_.release_entries("1");
    entries[0] = {"antivir-v2.def", "", 0120000, 0777, "antivir-v2.def"};
    mirror_.publish("1", entries);
    EXPECT_THROW(run(), fs::filesystem_error);
    EXPECT_FALSE(exists(cfg_.status_path));
    EXPECT_EQ(listing(cfg_.def_root),
              (Lines{"snapshots/", "snapshots/1/", "snapshots/1/aivsecon-v2.def",
                     "snapshots/1/antivir-v2.def -> antivir-v2.def", "snapshots/1/antivir-v2.ini"}));
}

TEST_F(UpdaterTest, ExceptionWhilePruningLeavesThePublishedSnapshotWithoutAStatus) {
    install_first();
    fs::remove(cfg_.status_path);
    mirror_.publish("2");
    fs::create_symlink("loop", cfg_.def_root + "/snapshots/loop");
    EXPECT_THROW(run(), fs::filesystem_error);
    EXPECT_EQ(fs::read_symlink(cfg_.def_root + "/active"), "snapshots/2");
    EXPECT_FALSE(exists(cfg_.status_path));
    EXPECT_EQ(log_.take(), Lines{"info published def snapshot 2"});
}

}  // namespace
}  // namespace zqu::test
