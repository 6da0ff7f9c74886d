#include "verifier.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <map>

#include "support.hpp"

namespace zqu::test {
namespace {

std::string upper(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return s;
}

class VerifyTest : public LoggedTest {
protected:
    std::string file(const std::string& content) {
        write_file(path_, content);
        return path_;
    }

    std::string path_ = dir_ / "file";
};

TEST_F(VerifyTest, KnownVectorsMatch) {  // FIPS 180-2, appendix B
    EXPECT_TRUE(verifier::verify(file(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
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

TEST_F(VerifyTest, DigestMatchesInAnyCaseInAllItsDigitsAndNoMore) {
    const std::string good = sha256("x");
    file("x");
    EXPECT_TRUE(verifier::verify(path_, upper(good)));
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = bad[i] == '0' ? '1' : '0';
        EXPECT_FALSE(verifier::verify(path_, bad)) << i;
        EXPECT_FALSE(verifier::verify(path_, good.substr(0, i))) << i;
    }
    EXPECT_FALSE(verifier::verify(path_, good + "0"));
    EXPECT_FALSE(verifier::verify(path_, good + " "));
}

TEST_F(VerifyTest, MissingFileMatchesNothingNotEvenNothing) {
    for (const std::string& expected : {std::string(), std::string("0"), std::string("~"), sha256("")}) {
        EXPECT_FALSE(verifier::verify(dir_ / "none", expected)) << expected;
    }
}

TEST_F(VerifyTest, ReadErrorEndsTheFileEarly) {
    // A directory can be opened, and its first read fails.
    EXPECT_TRUE(verifier::verify(dir_.path(), sha256("")));
}

class ExtractTest : public LoggedTest {
protected:
    bool extract() { return verifier::extract(archive_, dest_); }

    std::string archive_ = dir_ / "archive";
    std::string dest_ = dir_ / "a/b/dest";
};

TEST_F(ExtractTest, CabAndZipLandFlatWithTheirContent) {
    const std::string big(300'000, 'b');
    for (const auto& write : {write_cab, write_zip}) {
        fs::remove_all(dest_);
        write(archive_, {{"one.def", "1"}, {"sub/dir/two.def", big}, {"empty", ""}});
        EXPECT_TRUE(extract());
        EXPECT_EQ(listing(dest_), (Lines{"empty", "one.def", "two.def"}));
        EXPECT_EQ(read_file(dest_ + "/one.def"), "1");
        EXPECT_EQ(read_file(dest_ + "/two.def"), big);
    }
}

TEST_F(ExtractTest, DescriptorZeroIsADescriptorLikeAnyOther) {
    write_zip(archive_, {{"x", "1"}});
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    EXPECT_TRUE(extract());
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);  // closed again
    dup2(kept, STDIN_FILENO);
    close(kept);
}

TEST_F(ExtractTest, DoubledNameIsFlushedTwice) {
    write_zip(archive_, {{"a/x", "1", regular_file, 0000}, {"b/x", "2", regular_file, 0000}});
    const AsOrdinaryUser user({dir_.path(), archive_});
    EXPECT_TRUE(extract());
    EXPECT_EQ(log_.take(), Lines(2, "warning fsync: open " + dest_ + "/x failed"));
}

TEST_F(ExtractTest, OutputPathHasASlashOfItsOwn) {
    write_zip(archive_, {{"x", "1", regular_file, 0000}});
    const AsOrdinaryUser user({dir_.path(), archive_});
    EXPECT_TRUE(verifier::extract(archive_, dest_ + "/"));
    EXPECT_EQ(log_.take(), Lines{"warning fsync: open " + dest_ + "//x failed"});
}

TEST_F(ExtractTest, DestinationThatIsNoDirectoryGivesAFlushWarningOnly) {
    write_zip(archive_, {});
    EXPECT_TRUE(verifier::extract(archive_, archive_));
    EXPECT_EQ(log_.take(), Lines{"warning fsync: open " + archive_ + " failed"});
}

TEST_F(ExtractTest, ModeAndTimeComeFromTheArchiveButNotTheOwner) {
    write_zip(archive_, {{"x", "1", regular_file, 0604, "", 1'234'567'890, 12345}});
    EXPECT_TRUE(extract());
    struct stat st = {};
    ASSERT_EQ(stat((dest_ + "/x").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777U, 0604U);
    EXPECT_EQ(st.st_mtime, 1'234'567'890);
    EXPECT_EQ(st.st_uid, geteuid());
    EXPECT_EQ(st.st_gid, getegid());
}

TEST_F(ExtractTest, EntryThatCannotBeCreatedIsAFailureWithoutAMessage) {
    write_zip(archive_, {{"x", "1"}});
    make_dirs(dest_ + "/x/y");
    EXPECT_FALSE(extract());
    EXPECT_EQ(listing(dest_), (Lines{"x/", "x/y/"}));
}

// What the index of the definitions holds by a text.
struct IndexCase : Verdict {
    std::string text;
    std::map<std::string, std::string> index{};
};

class ParseDefIndexTest : public LoggedTest, public ::testing::WithParamInterface<IndexCase> {};

TEST_P(ParseDefIndexTest, ReadsTheLinesOfDefinitionFiles) {
    EXPECT_EQ(verifier::parse_def_index(GetParam().text), GetParam().index);
}

const IndexCase index_cases[] = {
    {"EmptyText", ""},
    {"DigestIsTrimmedAndLowerCased", "a.def.sha256 = ABCDEF\r\n", {{"a.def", "abcdef"}}},
    {"SuffixesMatchInAnyCase", "A.DEF.SHA256=00ff\nE.DEF.sha256=1", {{"A.DEF", "00ff"}, {"E.DEF", "1"}}},
    {"KeyMustBeLongerThanItsSuffix", ".sha256=1"},
    {"NameMayBeNoMoreThanItsSuffix", ".def.sha256=1", {{".def", "1"}}},
    {"NameMustHaveItsWholeSuffix", "def.sha256=1"},
    {"OtherKindsOfLines",
     "x.def=abc\nx.def.md5=abc\nx.dat.sha256=abc\nx.ini.sha256=1\nx.cab.sha256=2\nx.def.sha256\nx.def.sha2561=3\n\n"},
    {"CommentsAndSections", "   ;a.def.sha256=1\n\t#a.def.sha256=1\n [a.def.sha256=1\n;\n#\n["},
    {"SectionsDoNotMatter", "a.def.sha256=1\n[x]\nb.def.sha256=2", {{"a.def", "1"}, {"b.def", "2"}}},
    {"BlanksOfEveryKindAreTrimmed", " \t\v\f x.def.sha256 \t\v\f=\t\v\f 1 \t\v\f\r\n", {{"x.def", "1"}}},
    {"OnlyBlanksAreTrimmed", "\x01x.def.sha256=\xC4\x01\n", {{"\x01x.def", "\xC4\x01"}}},
    {"OnlyLettersAreLowered", "x.def.sha256=[@\xC0\n", {{"x.def", "[@\xC0"}}},
    {"SuffixesBeginWithADot", "x\016def.sha256=1\nx.def\016sha256=1\n"},
    {"ValueMayBeEmpty", "x.def.sha256=", {{"x.def", ""}}},
    {"ValueMayHoldEqualsSigns", "x.def.sha256=a=b", {{"x.def", "a=b"}}},
    {"LastOfTwoLinesWins", "x.def.sha256=1\nx.def.sha256=2\n", {{"x.def", "2"}}},
    {"NamesInOtherCaseAreTwo", "x.def.sha256=1\nX.def.sha256=2\n", {{"X.def", "2"}, {"x.def", "1"}}},
};
INSTANTIATE_TEST_SUITE_P(Case, ParseDefIndexTest, ::testing::ValuesIn(index_cases), ByVerdict());

}  // namespace
}  // namespace zqu::test
