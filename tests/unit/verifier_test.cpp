#include "verifier.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "support.hpp"

namespace zqu::test {
namespace {

using Lines = std::vector<std::string>;
using Index = std::map<std::string, std::string>;

std::string upper(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return s;
}

class VerifyTest : public ::testing::Test {
protected:
    std::string file(const std::string& content) {
        write_file(path_, content);
        return path_;
    }

    TempDir dir_;
    std::string path_ = dir_ / "file";
    LogCapture log_;

    void TearDown() override { EXPECT_EQ(log_.take(), Lines{}); }
};

TEST_F(VerifyTest, EmptyFileHasTheDigestOfTheEmptyMessage) {
    EXPECT_TRUE(verifier::verify(file(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
    EXPECT_FALSE(verifier::verify(path_, ""));
}

TEST_F(VerifyTest, KnownVectorsMatch) {  // FIPS 180-2, appendix B
    EXPECT_TRUE(verifier::verify(file("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_TRUE(verifier::verify(file("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
                                 "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"));
    EXPECT_TRUE(verifier::verify(file(std::string(1'000'000, 'a')),
                                 "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"));
}

TEST_F(VerifyTest, SizesAroundTheBlockSizeAreHashedWhole) {
    for (const std::size_t size : {65535U, 65536U, 65537U, 131071U, 131072U, 131073U}) {
        std::string content(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            content[i] = static_cast<char>(i * 31 + i / 256);
        }
        EXPECT_TRUE(verifier::verify(file(content), sha256(content))) << size;
    }
}

TEST_F(VerifyTest, UpperCaseDigestMatches) {
    EXPECT_TRUE(verifier::verify(file("x"), upper(sha256("x"))));
}

TEST_F(VerifyTest, OtherContentDoesNotMatch) {
    EXPECT_FALSE(verifier::verify(file("x"), sha256("y")));
}

TEST_F(VerifyTest, EveryWrongDigitIsSeen) {
    const std::string good = sha256("x");
    file("x");
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = bad[i] == '0' ? '1' : '0';
        EXPECT_FALSE(verifier::verify(path_, bad)) << i;
    }
}

TEST_F(VerifyTest, ShorterOrLongerDigestNeverMatches) {
    const std::string good = sha256("x");
    file("x");
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(verifier::verify(path_, good.substr(0, length))) << length;
    }
    EXPECT_FALSE(verifier::verify(path_, good + "0"));
    EXPECT_FALSE(verifier::verify(path_, good + " "));
}

TEST_F(VerifyTest, MissingFileMatchesNothingNotEvenNothing) {
    for (const char* expected : {"", "0", "~"}) {
        EXPECT_FALSE(verifier::verify(dir_ / "none", expected));
    }
    EXPECT_FALSE(verifier::verify(dir_ / "none", sha256("")));
}

TEST_F(VerifyTest, UnreadableFileMatchesNothing) {
    file("x");
    ASSERT_EQ(chmod(path_.c_str(), 0), 0);
    const AsOrdinaryUser user({dir_.path(), path_});
    EXPECT_FALSE(verifier::verify(path_, sha256("x")));
    EXPECT_FALSE(verifier::verify(path_, ""));
}

TEST_F(VerifyTest, ReadErrorEndsTheFileEarly) {
    // A directory can be opened, and its first read fails.
    EXPECT_TRUE(verifier::verify(dir_.path(), sha256("")));
}

class ExtractTest : public ::testing::Test {
protected:
    bool extract() { return verifier::extract(archive_, dest_); }

    TempDir dir_;
    std::string archive_ = dir_ / "archive";
    std::string dest_ = dir_ / "a/b/dest";
    LogCapture log_;
};

TEST_F(ExtractTest, CabLandsFlatWithItsContent) {
    const std::string big(300'000, 'b');
    write_cab(archive_, {{"one.def", "1"}, {"sub/dir/two.def", big}, {"empty", ""}});
    EXPECT_TRUE(extract());
    EXPECT_EQ(listing(dest_), (Lines{"empty", "one.def", "two.def"}));
    EXPECT_EQ(read_file(dest_ + "/one.def"), "1");
    EXPECT_EQ(read_file(dest_ + "/two.def"), big);
    EXPECT_EQ(log_.take(), Lines{});
}

TEST_F(ExtractTest, ZipLandsFlatWithItsContent) {
    write_zip(archive_, {{"one.def", "1"}, {"sub/dir/two.def", "2"}});
    EXPECT_TRUE(extract());
    EXPECT_EQ(listing(dest_), (Lines{"one.def", "two.def"}));
    EXPECT_EQ(read_file(dest_ + "/two.def"), "2");
    EXPECT_EQ(log_.take(), Lines{});
}

TEST_F(ExtractTest, MissingParentsAreCreated) {
    write_zip(archive_, {{"x", "1"}});
    EXPECT_TRUE(extract());
    EXPECT_EQ(listing(dir_.path()), (Lines{"a/", "a/b/", "a/b/dest/", "a/b/dest/x", "archive"}));
}

TEST_F(ExtractTest, ArchiveWithoutEntriesGivesTheEmptyDirectory) {
    write_zip(archive_, {});
    EXPECT_TRUE(extract());
    EXPECT_EQ(listing(dest_), Lines{});
    EXPECT_EQ(log_.take(), Lines{});
}

TEST_F(ExtractTest, LaterEntryReplacesAnEarlierOneOfTheSameLastName) {
    write_zip(archive_, {{"a/x", "first, and longer"}, {"b/x", "second"}});
    EXPECT_TRUE(extract());
    EXPECT_EQ(read_file(dest_ + "/x"), "second");
}

TEST_F(ExtractTest, DescriptorZeroIsADescriptorLikeAnyOther) {
    write_zip(archive_, {{"x", "1"}});
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    EXPECT_TRUE(extract());
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);  // closed again
    dup2(kept, STDIN_FILENO);
    close(kept);
    EXPECT_EQ(log_.take(), Lines{});
}

TEST_F(ExtractTest, DoubledNameIsFlushedTwice) {
    write_zip(archive_, {{"a/x", "1", 0100000, 0000}, {"b/x", "2", 0100000, 0000}});
    const AsOrdinaryUser user({dir_.path(), archive_});
    EXPECT_TRUE(extract());
    EXPECT_EQ(log_.take(), Lines(2, "warning fsync: open " + dest_ + "/x failed"));
}

TEST_F(ExtractTest, OutputPathHasASlashOfItsOwn) {
    write_zip(archive_, {{"x", "1", 0100000, 0000}});
    const AsOrdinaryUser user({dir_.path(), archive_});
    EXPECT_TRUE(verifier::extract(archive_, dest_ + "/"));
    EXPECT_EQ(log_.take(), Lines{"warning fsync: open " + dest_ + "//x failed"});
}

TEST_F(ExtractTest, DestinationThatIsNoDirectoryGivesAFlushWarningOnly) {
    write_zip(archive_, {});
    EXPECT_TRUE(verifier::extract(archive_, archive_));
    EXPECT_EQ(log_.take(), Lines{"warning fsync: open " + archive_ + " failed"});
}

TEST_F(ExtractTest, FilesThatWereThereAreReplaced) {
    make_dirs(dest_);
    write_file(dest_ + "/x", "something much longer than the new content");
    write_zip(archive_, {{"x", "new"}});
    EXPECT_TRUE(extract());
    EXPECT_EQ(read_file(dest_ + "/x"), "new");
}

TEST_F(ExtractTest, ClimbingNameLandsInside) {
    write_zip(archive_, {{"../../etc/x", "1"}, {"/etc/y", "2"}});
    EXPECT_TRUE(extract());
    EXPECT_EQ(listing(dir_.path()), (Lines{"a/", "a/b/", "a/b/dest/", "a/b/dest/x", "a/b/dest/y", "archive"}));
}

TEST_F(ExtractTest, DirectoryEntryNamesTheDestinationItself) {
    write_zip(archive_, {{"sub/", "", 0040000, 0711}, {"x", "1"}});
    EXPECT_TRUE(extract());
    EXPECT_EQ(listing(dest_), Lines{"x"});
    EXPECT_EQ(std::filesystem::status(dest_).permissions(), std::filesystem::perms{0711});
}

TEST_F(ExtractTest, EntryNamedDotDotMeetsTheParentAndIsAFailureWithoutAMessage) {
    // The name is passed on as it is; the parent stands in the way, since libarchive replaces no directory by a file.
    write_zip(archive_, {{"x", "1"}, {"a/..", "2"}, {"y", "3"}});
    EXPECT_FALSE(extract());
    EXPECT_EQ(listing(dir_ / "a"), (Lines{"b/", "b/dest/", "b/dest/x"}));
    EXPECT_EQ(log_.take(), Lines{});
}

TEST_F(ExtractTest, LinksAreMadeAndNotFlushed) {
    // A flush of this dangling link would log that it cannot be opened.
    write_zip(archive_, {{"link", "", 0120000, 0777, "nowhere"}, {"x", "1"}});
    EXPECT_TRUE(extract());
    EXPECT_EQ(listing(dest_), (Lines{"link -> nowhere", "x"}));
    EXPECT_EQ(log_.take(), Lines{});
}

TEST_F(ExtractTest, PermissionsAndTimesComeFromTheArchive) {
    write_zip(archive_, {{"x", "1", 0100000, 0604, "", 1'234'567'890}});
    EXPECT_TRUE(extract());
    struct stat st {};
    ASSERT_EQ(stat((dest_ + "/x").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777U, 0604U);
    EXPECT_EQ(st.st_mtime, 1'234'567'890);
}

TEST_F(ExtractTest, OwnershipDoesNotComeFromTheArchive) {
    write_zip(archive_, {{"x", "1", 0100000, 0644, "", 1'700'000'000, 12345}});
    EXPECT_TRUE(extract());
    struct stat st {};
    ASSERT_EQ(stat((dest_ + "/x").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, geteuid());
    EXPECT_EQ(st.st_gid, getegid());
}

TEST_F(ExtractTest, MissingArchiveIsAnErrorWithTheLibrarysText) {
    EXPECT_FALSE(extract());
    EXPECT_EQ(log_.take(), Lines{"err extract: cannot open " + archive_ + ": Failed to open '" + archive_ + "'"});
    EXPECT_EQ(listing(dest_), Lines{});
}

TEST_F(ExtractTest, UnrecognisedFileCannotBeOpened) {
    write_file(archive_, "this is neither a CAB nor a ZIP archive, only a line of text\n");
    EXPECT_FALSE(extract());
    EXPECT_EQ(log_.take(), Lines{"err extract: cannot open " + archive_ + ": Unrecognized archive format"});
    EXPECT_EQ(listing(dest_), Lines{});
}

TEST_F(ExtractTest, CorruptDataIsAFailureWithoutAMessage) {
    write_zip(archive_, {{"x", std::string(100'000, 'x')}});
    std::string bytes = read_file(archive_);
    for (std::size_t i = 60; i < 100; ++i) {
        bytes[i] = static_cast<char>(~bytes[i]);
    }
    write_file(archive_, bytes);
    EXPECT_FALSE(extract());
    EXPECT_EQ(log_.take(), Lines{});
}

TEST_F(ExtractTest, EntryThatCannotBeCreatedIsAFailureWithoutAMessage) {
    write_zip(archive_, {{"x", "1"}});
    make_dirs(dest_ + "/x/y");
    EXPECT_FALSE(extract());
    EXPECT_EQ(log_.take(), Lines{});
    EXPECT_EQ(listing(dest_), (Lines{"x/", "x/y/"}));
}

TEST_F(ExtractTest, UnreadableFileGivesAFlushWarningAndSuccess) {
    write_zip(archive_, {{"secret", "1", 0100000, 0000}, {"x", "2"}});
    const AsOrdinaryUser user({dir_.path(), archive_});
    EXPECT_TRUE(extract());
    EXPECT_EQ(log_.take(), Lines{"warning fsync: open " + dest_ + "/secret failed"});
}

TEST(ParseDefIndexTest, DigestIsTrimmedAndLowerCased) {
    EXPECT_EQ(verifier::parse_def_index("a.def.sha256 = ABCDEF\r\n"), (Index{{"a.def", "abcdef"}}));
}

TEST(ParseDefIndexTest, SuffixesMatchInAnyCaseAndTheNameKeepsIts) {
    EXPECT_EQ(verifier::parse_def_index("A.DEF.SHA256=00ff"), (Index{{"A.DEF", "00ff"}}));
    EXPECT_EQ(verifier::parse_def_index("ENGINE.DEF.sha256=1"), (Index{{"ENGINE.DEF", "1"}}));
}

TEST(ParseDefIndexTest, KeyMustBeLongerThanItsSuffix) {
    EXPECT_EQ(verifier::parse_def_index(".sha256=1"), Index{});
}

TEST(ParseDefIndexTest, NameMayBeNoMoreThanItsSuffix) {
    EXPECT_EQ(verifier::parse_def_index(".def.sha256=1"), (Index{{".def", "1"}}));
    EXPECT_EQ(verifier::parse_def_index("def.sha256=1"), Index{});
}

TEST(ParseDefIndexTest, OtherKindsOfLinesGiveNothing) {
    EXPECT_EQ(verifier::parse_def_index("x.def=abc\nx.def.md5=abc\nx.dat.sha256=abc\nx.ini.sha256=1\nx.cab.sha256=2\n"
                                        "x.def.sha256\nx.def.sha2561=3\n\n"),
              Index{});
}

TEST(ParseDefIndexTest, CommentsAndSectionHeadersGiveNothing) {
    EXPECT_EQ(verifier::parse_def_index("   ;a.def.sha256=1\n\t#a.def.sha256=1\n [a.def.sha256=1\n;\n#\n["), Index{});
}

TEST(ParseDefIndexTest, SectionsDoNotMatter) {
    EXPECT_EQ(verifier::parse_def_index("a.def.sha256=1\n[x]\nb.def.sha256=2\n[y]\nc.def.sha256=3"),
              (Index{{"a.def", "1"}, {"b.def", "2"}, {"c.def", "3"}}));
}

TEST(ParseDefIndexTest, BlanksOfEveryKindAreTrimmed) {
    EXPECT_EQ(verifier::parse_def_index(" \t\v\f x.def.sha256 \t\v\f=\t\v\f 1 \t\v\f\r\n"), (Index{{"x.def", "1"}}));
}

TEST(ParseDefIndexTest, OnlyBlanksAreTrimmedAndOnlyLettersLowered) {
    EXPECT_EQ(verifier::parse_def_index("\x01x.def.sha256=\xC4\x01\n"), (Index{{"\x01x.def", "\xC4\x01"}}));
    EXPECT_EQ(verifier::parse_def_index("x.def.sha256=[@\xC0\n"), (Index{{"x.def", "[@\xC0"}}));
    EXPECT_EQ(verifier::parse_def_index("x\x0e"
                                        "def.sha256=1\nx.def\x0esha256=1\n"),
              Index{});
}

TEST(ParseDefIndexTest, ValueMayBeEmptyOrHoldEqualsSigns) {
    EXPECT_EQ(verifier::parse_def_index("x.def.sha256="), (Index{{"x.def", ""}}));
    EXPECT_EQ(verifier::parse_def_index("x.def.sha256=a=b"), (Index{{"x.def", "a=b"}}));
}

TEST(ParseDefIndexTest, LastOfTwoLinesWins) {
    EXPECT_EQ(verifier::parse_def_index("x.def.sha256=1\nx.def.sha256=2\n"), (Index{{"x.def", "2"}}));
}

TEST(ParseDefIndexTest, NamesThatDifferInCaseAreTwo) {
    EXPECT_EQ(verifier::parse_def_index("x.def.sha256=1\nX.def.sha256=2\n"), (Index{{"X.def", "2"}, {"x.def", "1"}}));
}

TEST(ParseDefIndexTest, EmptyTextGivesAnEmptyMap) {
    EXPECT_EQ(verifier::parse_def_index(""), Index{});
}

TEST(ParseDefIndexTest, NothingIsLogged) {
    LogCapture log;
    static_cast<void>(verifier::parse_def_index("nonsense"));
    EXPECT_EQ(log.take(), Lines{});
}

}  // namespace
}  // namespace zqu::test
