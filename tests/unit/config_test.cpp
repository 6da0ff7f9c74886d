#include "config.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>
#include <tuple>
#include <type_traits>

#include "support.hpp"

namespace zqu::test {
namespace {

auto fields(const Config& c) {
    return std::tie(c.mirror_base_url, c.mirror_subdir, c.flavor, c.ca_path, c.engine_version, c.def_root,
                    c.status_path, c.poll_interval_s, c.poll_jitter_s, c.retained_snapshots, c.http_timeout_s);
}

bool same(const Config& a, const Config& b) {
    return fields(a) == fields(b);
}

class ConfigTest : public ::testing::Test {
protected:
    // The defaults overlaid with a file of this text, which must load.
    Config loaded(const std::string& text) {
        Config cfg;
        write_file(path_, text);
        EXPECT_TRUE(Config::load(path_, cfg));
        return cfg;
    }

    TempDir dir_;
    std::string path_ = dir_ / "conf";
    LogCapture log_;

    void TearDown() override { EXPECT_EQ(log_.take(), std::vector<std::string>{}); }
};

TEST_F(ConfigTest, DefaultsAreTheirLiterals) {
    const Config c;
    EXPECT_EQ(c.mirror_base_url, "https://definitions.zelgw.example");
    EXPECT_EQ(c.mirror_subdir, "rhex/deffiles/def5-2");
    EXPECT_EQ(c.flavor, "v2");
    EXPECT_EQ(c.ca_path, "");
    EXPECT_EQ(c.engine_version, "");
    EXPECT_EQ(c.def_root, "/usr/local/zelgw/opt/av/quorin/defs");
    EXPECT_EQ(c.status_path, "/usr/local/zelgw/opt/av/quorin/defs/manifest/status.json");
    EXPECT_EQ(c.poll_interval_s, 900U);
    EXPECT_EQ(c.poll_jitter_s, 120U);
    EXPECT_EQ(c.retained_snapshots, 3U);
    EXPECT_EQ(c.http_timeout_s, 300U);
}

TEST_F(ConfigTest, FieldsStandInTheirOrder) {
    const Config c;
    const auto at = [&c](const auto& field) {
        return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&c);
    };
    EXPECT_EQ(at(c.mirror_base_url), 0);
    EXPECT_LT(at(c.mirror_base_url), at(c.mirror_subdir));
    EXPECT_LT(at(c.mirror_subdir), at(c.flavor));
    EXPECT_LT(at(c.flavor), at(c.ca_path));
    EXPECT_LT(at(c.ca_path), at(c.engine_version));
    EXPECT_LT(at(c.engine_version), at(c.def_root));
    EXPECT_LT(at(c.def_root), at(c.status_path));
    EXPECT_LT(at(c.status_path), at(c.poll_interval_s));
    EXPECT_LT(at(c.poll_interval_s), at(c.poll_jitter_s));
    EXPECT_LT(at(c.poll_jitter_s), at(c.retained_snapshots));
    EXPECT_LT(at(c.retained_snapshots), at(c.http_timeout_s));
    EXPECT_TRUE((std::is_same_v<decltype(c.http_timeout_s), std::uint32_t>));
    EXPECT_TRUE(std::is_copy_constructible_v<Config>);
}

TEST_F(ConfigTest, MissingFileFailsAndTouchesNothing) {
    Config cfg;
    cfg.flavor = "kept";
    Config before = cfg;
    EXPECT_FALSE(Config::load(dir_ / "none", cfg));
    EXPECT_TRUE(same(cfg, before));
}

TEST_F(ConfigTest, UnreadableFileFailsAndTouchesNothing) {
    write_file(path_, "flavor = v3\n");
    ASSERT_EQ(chmod(path_.c_str(), 0), 0);
    Config cfg;
    const AsOrdinaryUser user({dir_.path(), path_});
    EXPECT_FALSE(Config::load(path_, cfg));
    EXPECT_TRUE(same(cfg, Config()));
}

TEST_F(ConfigTest, DirectoryInPlaceOfTheFileLoadsAsEmpty) {
    Config cfg;
    EXPECT_TRUE(Config::load(dir_.path(), cfg));
    EXPECT_TRUE(same(cfg, Config()));
}

TEST_F(ConfigTest, EmptyFileKeepsTheDefaults) {
    EXPECT_TRUE(same(loaded(""), Config()));
}

TEST_F(ConfigTest, CommentsBlanksSectionsAndUnknownKeysKeepTheDefaults) {
    EXPECT_TRUE(same(loaded("# flavor = x\n   # flavor = x\n\n \t\v\f\r\n[flavor]\nflavor\nno_such_key = 1\n"
                            "; flavor = x\n=\n= x\n"),
                     Config()));
}

TEST_F(ConfigTest, EveryKeySetsItsOwnField) {
    const Config c = loaded(
        "mirror_base_url = a\nmirror_subdir = b\nflavor = c\nca_path = d\nengine_version = e\ndef_root = f\n"
        "status_path = g\npoll_interval_s = 1\npoll_jitter_s = 2\nretained_snapshots = 3\nhttp_timeout_s = 4\n");
    EXPECT_EQ(fields(c), std::make_tuple("a", "b", "c", "d", "e", "f", "g", 1U, 2U, 3U, 4U));
}

TEST_F(ConfigTest, BlanksAroundKeySignAndValueVanish) {
    EXPECT_EQ(loaded(" \t poll_interval_s \t=\t 60 \t \n").poll_interval_s, 60U);
}

TEST_F(ConfigTest, CarriageReturnsVanish) {
    EXPECT_EQ(loaded("poll_interval_s = 60\r\n").poll_interval_s, 60U);
    EXPECT_EQ(loaded("flavor = v3\r\n").flavor, "v3");
}

TEST_F(ConfigTest, LastLineNeedsNoLineFeed) {
    EXPECT_EQ(loaded("flavor = v3").flavor, "v3");
}

TEST_F(ConfigTest, LinesMayBeVeryLong) {
    const std::string value(3'000'000, 'x');
    EXPECT_EQ(loaded("flavor = " + value + "\n").flavor, value);
}

TEST_F(ConfigTest, SplitIsAtTheFirstEqualsSign) {
    EXPECT_EQ(loaded("mirror_base_url = https://mirror/x=y\n").mirror_base_url, "https://mirror/x=y");
}

TEST_F(ConfigTest, TrailingCommentIsPartOfTheValue) {
    EXPECT_EQ(loaded("flavor = v2 # default\n").flavor, "v2 # default");
}

TEST_F(ConfigTest, LineThatEndsLikeACommentIsNone) {
    EXPECT_EQ(loaded("flavor = v2#\n").flavor, "v2#");
}

TEST_F(ConfigTest, QuotationMarksAreKept) {
    EXPECT_EQ(loaded("flavor = \"v 2\"\n").flavor, "\"v 2\"");
}

TEST_F(ConfigTest, OnlyBlanksAreTrimmed) {
    EXPECT_EQ(loaded("flavor = \x01v\xC4\xA0\n").flavor, "\x01v\xC4\xA0");
}

TEST_F(ConfigTest, KeysAreCaseSensitive) {
    EXPECT_EQ(loaded("Flavor = v3\nFLAVOR = v3\n").flavor, "v2");
}

TEST_F(ConfigTest, LineThatStartsWithAnEqualsSignIsIgnored) {
    EXPECT_TRUE(same(loaded("= v3\n"), Config()));
}

TEST_F(ConfigTest, SemicolonBeginsNoComment) {
    EXPECT_EQ(loaded("flavor = ;x\n").flavor, ";x");
}

TEST_F(ConfigTest, EmptyValueEmptiesATextField) {
    EXPECT_EQ(loaded("flavor =\n").flavor, "");
    EXPECT_EQ(loaded("flavor =   \n").flavor, "");
}

TEST_F(ConfigTest, LastOfTwoLinesWins) {
    EXPECT_EQ(loaded("flavor = a\nflavor = b\n").flavor, "b");
    EXPECT_EQ(loaded("poll_jitter_s = 1\npoll_jitter_s = 2\n").poll_jitter_s, 2U);
}

TEST_F(ConfigTest, NumbersKeepTheirLow32Bits) {
    EXPECT_EQ(loaded("retained_snapshots = 4294967295\n").retained_snapshots, 4294967295U);
    EXPECT_EQ(loaded("retained_snapshots = 4294967296\n").retained_snapshots, 0U);
    EXPECT_EQ(loaded("retained_snapshots = 4294967297\n").retained_snapshots, 1U);
    EXPECT_EQ(loaded("retained_snapshots = 18446744073709551615\n").retained_snapshots, 0xFFFFFFFFU);
}

TEST_F(ConfigTest, NegativeNumbersWrapAround) {
    EXPECT_EQ(loaded("retained_snapshots = -1\n").retained_snapshots, 0xFFFFFFFFU);
}

TEST_F(ConfigTest, TextAfterTheDigitsIsIgnored) {
    EXPECT_EQ(loaded("retained_snapshots = 5x\n").retained_snapshots, 5U);
    EXPECT_EQ(loaded("poll_interval_s = 900s\n").poll_interval_s, 900U);
    EXPECT_EQ(loaded("poll_interval_s = 1.9\n").poll_interval_s, 1U);
}

TEST_F(ConfigTest, NumbersAreReadInBaseTenWithAnOptionalSign) {
    EXPECT_EQ(loaded("http_timeout_s = +7\n").http_timeout_s, 7U);
    EXPECT_EQ(loaded("http_timeout_s = 010\n").http_timeout_s, 10U);
    EXPECT_EQ(loaded("http_timeout_s = 0x10\n").http_timeout_s, 0U);
}

TEST_F(ConfigTest, NumberWithoutDigitsThrowsAndKeepsEarlierLines) {
    for (const char* key : {"poll_interval_s", "poll_jitter_s", "retained_snapshots", "http_timeout_s"}) {
        for (const char* value : {"", "abc", "-", "+ 1"}) {
            Config cfg;
            write_file(path_, "flavor = v3\n" + std::string(key) + " = " + value + "\nca_path = never\n");
            try {
                static_cast<void>(Config::load(path_, cfg));
                FAIL() << key << " = " << value;
            } catch (const std::invalid_argument& e) {
                EXPECT_STREQ(e.what(), "stoul");
            }
            EXPECT_EQ(cfg.flavor, "v3");
            EXPECT_EQ(cfg.ca_path, "");
        }
    }
}

TEST_F(ConfigTest, NumberBeyond64BitsThrows) {
    Config cfg;
    write_file(path_, "poll_interval_s = 18446744073709551616\n");
    try {
        static_cast<void>(Config::load(path_, cfg));
        FAIL();
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "stoul");
    }
}

TEST_F(ConfigTest, MovingTheRootLeavesTheStatusPath) {
    const Config c = loaded("def_root = /srv/defs\n");
    EXPECT_EQ(c.def_root, "/srv/defs");
    EXPECT_EQ(c.status_path, "/usr/local/zelgw/opt/av/quorin/defs/manifest/status.json");
}

TEST_F(ConfigTest, NoSettingIsTakenFromTheEnvironment) {
    setenv("flavor", "v9", 1);
    setenv("FLAVOR", "v9", 1);
    EXPECT_EQ(loaded("").flavor, "v2");
    unsetenv("flavor");
    unsetenv("FLAVOR");
}

TEST_F(ConfigTest, DefaultsAreValidAndLeaveTheReasonAlone) {
    std::string reason = "as it was";
    EXPECT_TRUE(Config().validate(reason));
    EXPECT_EQ(reason, "as it was");
}

TEST_F(ConfigTest, MissingMirrorIsReportedFirst) {
    const Config c = loaded("mirror_base_url =\nflavor =\n");
    std::string reason;
    EXPECT_FALSE(c.validate(reason));
    EXPECT_EQ(reason, "mirror_base_url is not set (the updater will idle, performing no checks)");
}

TEST_F(ConfigTest, MissingFlavorIsReported) {
    std::string reason;
    EXPECT_FALSE(loaded("flavor =\n").validate(reason));
    EXPECT_EQ(reason, "flavor is not set");
}

TEST_F(ConfigTest, NothingElseIsValidated) {
    std::string reason = "as it was";
    EXPECT_TRUE(loaded("mirror_subdir =\nca_path =\nengine_version =\ndef_root =\nstatus_path =\npoll_interval_s = 0\n"
                       "poll_jitter_s = 0\nretained_snapshots = 0\nhttp_timeout_s = 0\n")
                    .validate(reason));
    EXPECT_EQ(reason, "as it was");
}

}  // namespace
}  // namespace zqu::test
