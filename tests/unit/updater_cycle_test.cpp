#include <memory>

#include "expectations.hpp"
#include "support.hpp"
#include "updater.hpp"

namespace zqu::test {
namespace {

constexpr std::time_t check_time = 1'800'000'000;

class UpdaterTest : public LoggedTest {
protected:
    UpdaterTest() : cfg_(mirror_.config(dir_.path())) { clock_.now = check_time; }

    bool run() { return Updater(cfg_).run_once(); }

    // Puts a release into service and forgets its log lines.
    void install(const std::string& id) {
        mirror_.publish(id);
        expect_updated(id);
    }

    void expect_updated(const std::string& id) {
        EXPECT_TRUE(run());
        EXPECT_EQ(active(), "snapshots/" + id);
        static_cast<void>(log_.take());
    }

    // The status of a check: the error is empty when it was a success.
    void expect_status(const std::string& version, const std::string& error) const {
        const std::time_t success = error.empty() ? check_time : 0;
        EXPECT_EQ(read_file(cfg_.status_path),
                  status_text({version, "engine 7", version, version, check_time, success, error}));
    }

    // Runs a check that must refuse release 2, leave release 1 in service and remove the staging directory.
    void expect_refused(const std::string& error, Lines lines_before = {}) {
        EXPECT_FALSE(run());
        lines_before.push_back("err run_once: staging failed: " + error);
        EXPECT_EQ(log_.take(), lines_before);
        expect_status("1", error);
        EXPECT_EQ(listing(cfg_.def_root), installed("1"));
    }

    [[nodiscard]] std::string active() const { return fs::read_symlink(cfg_.def_root + "/active"); }
    [[nodiscard]] std::string stage() const { return cfg_.def_root + "/snapshots/1"; }

    static Lines installed(const std::string& id) {
        const std::string snapshot = "snapshots/" + id;
        return {"active -> " + snapshot, "snapshots/", snapshot + "/", snapshot + "/aivsecon-v2.def",
                snapshot + "/antivir-v2.def"};
    }

    Mirror mirror_;
    Config cfg_;
    FakeClock clock_;
};

TEST_F(UpdaterTest, StaysWhereItWasBuiltWithItsOwnSettings) {
    mirror_.publish("1");
    auto cfg = std::make_unique<Config>(cfg_);
    Updater updater(*cfg);
    cfg->def_root = "/nowhere";
    cfg.reset();
    EXPECT_TRUE(updater.run_once());
    EXPECT_EQ(listing(cfg_.def_root), installed("1"));
    static_cast<void>(log_.take());
}

TEST_F(UpdaterTest, UpdatePublishesTheTwoFilesAndAnotherReplacesThem) {
    std::string former = "none";
    for (const std::string id : {"abc", "ABC"}) {  // ids that differ only in case are two
        mirror_.publish(id);
        EXPECT_TRUE(run());
        EXPECT_EQ(active(), "snapshots/" + id);
        EXPECT_EQ(listing(cfg_.def_root + "/active/"), (Lines{"aivsecon-v2.def", "antivir-v2.def"}));
        for (const char* file : {"antivir-v2.def", "aivsecon-v2.def"}) {
            EXPECT_EQ(read_file(cfg_.def_root + "/active/" + file), Mirror::content(file, id));
        }
        expect_status(id, "");
        EXPECT_EQ(log_.take(),
                  (Lines{"info published def snapshot " + id, "info def snapshot updated: " + former + " -> " + id}));
        former = id;
    }
}

TEST_F(UpdaterTest, SameIdIsCurrentAndOnlyTheStatusIsRewritten) {
    install("1");
    mirror_.remove("antivir-v2-c-1.ini");  // nothing but the hit INI may be asked for
    mirror_.remove("release-1.cab");
    fs::remove(cfg_.status_path);
    EXPECT_FALSE(run());
    EXPECT_EQ(listing(cfg_.def_root), installed("1"));
    expect_status("1", "");
}

TEST_F(UpdaterTest, EmptyNameInServiceIsNotCurrentAndIsLoggedAsEmpty) {
    mirror_.publish("1");
    make_dirs(cfg_.def_root);
    fs::create_symlink("snapshots/", cfg_.def_root + "/active");
    EXPECT_TRUE(run());
    EXPECT_EQ(log_.take(), (Lines{"info published def snapshot 1", "info def snapshot updated:  -> 1"}));
}

TEST_F(UpdaterTest, OldSnapshotsArePrunedAfterAPublicationOnly) {
    for (const char* id : {"1", "2", "3"}) {
        install(id);
    }
    cfg_.retained_snapshots = 2;
    const Lines before = listing(cfg_.def_root);
    EXPECT_FALSE(run());
    EXPECT_EQ(listing(cfg_.def_root), before);
    install("4");
    EXPECT_EQ(fs::remove_all(cfg_.def_root + "/snapshots/3"), 3U);  // was kept, with both files
    EXPECT_EQ(listing(cfg_.def_root), installed("4"));
}

TEST_F(UpdaterTest, FlavorNamesTheFilesAndTheIndex) {
    const Mirror mirror("v9");
    mirror.publish("1");
    cfg_ = mirror.config(dir_.path());
    expect_updated("1");
    EXPECT_EQ(listing(cfg_.def_root + "/active/"), (Lines{"aivsecon-v9.def", "antivir-v9.def"}));
    auto entries = mirror.release_entries("2");
    entries[0].content += "tampered";
    mirror.publish("2", entries);
    EXPECT_FALSE(run());
    EXPECT_EQ(log_.take(), Lines{"err run_once: staging failed: sha256 mismatch antivir-v9.def"});
}

TEST_F(UpdaterTest, ArchiveNamedLikeADefinitionFileTakesItAway) {
    install("1");
    mirror_.publish("2");
    mirror_.announce("2", "antivir-v2.def", read_file(mirror_.path("release-2.cab")));
    expect_refused("CAB missing antivir-v2.def");
}

TEST_F(UpdaterTest, TamperedArchiveIsRefused) {
    install("1");
    mirror_.publish("2");
    const std::string bytes = read_file(mirror_.path("release-2.cab"));
    mirror_.write("release-2.cab", damaged(bytes, bytes.size() / 2, bytes.size() / 2 + 1));
    expect_refused("CAB sha256 mismatch");
}

// A change of the entries of a good archive: both definition files, then the index.
struct EntriesCase : Verdict {
    void (*change)(Entries&);
    std::string refused_for{};
};

class ArchiveTest : public UpdaterTest, public ::testing::WithParamInterface<EntriesCase> {};

TEST_P(ArchiveTest, IsRefusedOrLeavesTheTwoFilesOnly) {
    install("1");
    auto entries = mirror_.release_entries("2");
    GetParam().change(entries);
    mirror_.publish("2", entries);
    if (!GetParam().refused_for.empty()) {
        return expect_refused(GetParam().refused_for);
    }
    cfg_.retained_snapshots = 1;
    expect_updated("2");
    EXPECT_EQ(listing(cfg_.def_root), installed("2"));
    for (const std::size_t i : {0U, 1U}) {
        EXPECT_EQ(read_file(cfg_.def_root + "/active/" + entries[i].name), entries[i].content);
    }
}

const EntriesCase entries_cases[] = {
    {"MissingFirstIsNamedAndSecondNotExamined",
     [](Entries& e) {
         e[1].content = "not what the index says";
         e.erase(e.begin());
     },
     "CAB missing antivir-v2.def"},
    {"MissingSecondFile", [](Entries& e) { e.erase(e.begin() + 1); }, "CAB missing aivsecon-v2.def"},
    {"DanglingLinkInPlaceOfAFile",
     [](Entries& e) {
         e.erase(e.begin());
         e.push_back({"antivir-v2.def", "", symbolic_link, 0777, "nowhere"});
     },
     "CAB missing antivir-v2.def"},
    {"WrongFirstIsNamedAndSecondNotExamined",
     [](Entries& e) {
         e[0].content += "tampered";
         e.erase(e.begin() + 1);
     },
     "sha256 mismatch antivir-v2.def"},
    {"WrongSecondFile", [](Entries& e) { e[1].content += "tampered"; }, "sha256 mismatch aivsecon-v2.def"},
    {"EmptyDigestMatchesNothing", [](Entries& e) { e[2].content = "antivir-v2.def.sha256 =\n"; },
     "sha256 mismatch antivir-v2.def"},
    {"IndexLongerThanABlockIsReadWhole",
     [](Entries& e) { e[2].content = "; " + std::string(200'000, 'x') + "\naivsecon-v2.def.sha256 = 00\n"; },
     "sha256 mismatch aivsecon-v2.def"},
    {"FileThatTheIndexDoesNotNameIsAccepted",
     [](Entries& e) {
         e[1].content = "whatever";
         e[2].content = "antivir-v2.def.sha256 = " + sha256(e[0].content) + "\n";
     }},
    {"IndexNameInOtherCaseIsAnotherFile", [](Entries& e) { e[2].content = "ANTIVIR-v2.def.sha256 = 00\n"; }},
    {"ArchiveWithoutIndexIsAccepted", [](Entries& e) { e.pop_back(); }},
    {"NothingButTheTwoFilesStays",
     [](Entries& e) {
         for (const char* name : {"readme.txt", "antivir-v2.DEF", "antivir-v2.def.sig", "xantivir-v2.def"}) {
             e.push_back({name, "x"});
         }
         e.push_back({"release-2.cab.part", "x"});
         e.push_back({"link", "", symbolic_link, 0777, "/etc"});
     }},
};
INSTANTIATE_TEST_SUITE_P(Case, ArchiveTest, ::testing::ValuesIn(entries_cases), ByVerdict());

TEST_F(UpdaterTest, IdAndSizeOfTheCompleteInfoDoNotMatter) {
    mirror_.publish("1");
    mirror_.write("antivir-v2-c-1.ini",
                  "def.Current.defId=77\ndef.Current.size=3\ndef.Current.name=release-1.cab\n"
                  "def.Current.SHA256=" +
                      sha256(read_file(mirror_.path("release-1.cab"))) + "\n");
    expect_updated("1");
    EXPECT_EQ(listing(cfg_.def_root), installed("1"));
}

TEST_F(UpdaterTest, DirectoryInPlaceOfAnUnindexedFileIsAccepted) {
    mirror_.publish("1", {mirror_.release_entries("1")[1]});
    make_dirs(stage() + "/antivir-v2.def");
    expect_updated("1");
    EXPECT_EQ(listing(stage()), (Lines{"aivsecon-v2.def", "antivir-v2.def/"}));
}

TEST_F(UpdaterTest, DirectoryInPlaceOfTheIndexIsAnEmptyIndex) {
    auto entries = mirror_.release_entries("1");
    entries.pop_back();
    mirror_.publish("1", entries);
    make_dirs(stage() + "/antivir-v2.ini");
    expect_updated("1");
    EXPECT_EQ(listing(cfg_.def_root), installed("1"));  // an empty directory is swept away
}

TEST_F(UpdaterTest, DirectoryWithContentSurvivesTheSweep) {
    mirror_.publish("1");
    make_dirs(stage() + "/empty");
    make_dirs(stage() + "/full/x");
    write_file(stage() + "/left over", "x");
    expect_updated("1");
    EXPECT_EQ(listing(stage()), (Lines{"aivsecon-v2.def", "antivir-v2.def", "full/", "full/x/"}));
}

TEST_F(UpdaterTest, LeftOverStagingIsReused) {
    mirror_.publish("1");
    make_dirs(stage());
    write_file(stage() + "/antivir-v2.def", "stale, and longer than what replaces it: " + std::string(1000, 'x'));
    write_file(stage() + "/release-1.cab.part", std::string(100'000, 'x'));
    write_file(stage() + "/release-1.cab", std::string(100'000, 'x'));
    expect_updated("1");
    EXPECT_EQ(listing(cfg_.def_root), installed("1"));
    EXPECT_EQ(read_file(stage() + "/antivir-v2.def"), Mirror::content("antivir-v2.def", "1"));
}

TEST_F(UpdaterTest, ExceptionWhileStagingLeavesTheStagingWithoutAStatus) {
    auto entries = mirror_.release_entries("1");
    entries[0] = {"antivir-v2.def", "", symbolic_link, 0777, "antivir-v2.def"};  // whose status stat(2) cannot give
    mirror_.publish("1", entries);
    EXPECT_THROW(run(), fs::filesystem_error);
    EXPECT_FALSE(exists(cfg_.status_path));
    EXPECT_EQ(listing(stage()), (Lines{"aivsecon-v2.def", "antivir-v2.def -> antivir-v2.def", "antivir-v2.ini"}));
}

TEST_F(UpdaterTest, ExceptionWhilePruningLeavesThePublishedSnapshot) {
    install("1");
    fs::remove(cfg_.status_path);
    mirror_.publish("2");
    fs::create_symlink("loop", cfg_.def_root + "/snapshots/loop");
    EXPECT_THROW(run(), fs::filesystem_error);
    EXPECT_EQ(active(), "snapshots/2");
    EXPECT_FALSE(exists(cfg_.status_path));
    EXPECT_EQ(log_.take(), Lines{"info published def snapshot 2"});
}

}  // namespace
}  // namespace zqu::test
