#include "config.hpp"

#include <stdexcept>
#include <tuple>

#include "expectations.hpp"
#include "support.hpp"

namespace zqu::test {
namespace {

// The defaults except one field.
template <typename Field, typename Value>
Config with(Field field, const Value& value) {
    Config cfg;
    cfg.*field = value;
    return cfg;
}

class ConfigTest : public LoggedTest {
protected:
    // The defaults overlaid with a file of this text, which must load.
    Config loaded(const std::string& text) {
        Config cfg;
        write_file(path_, text);
        EXPECT_TRUE(Config::load(path_, cfg));
        return cfg;
    }

    // Loads a file in which the number in the second line is malformed.
    template <typename Error>
    void expect_refused(const std::string& number) {
        SCOPED_TRACE(number);
        Config cfg;
        write_file(path_, "flavor = v3\n" + number + "\nca_path = never\n");
        try {
            static_cast<void>(Config::load(path_, cfg));
            FAIL() << "is accepted";
        } catch (const Error& e) {
            EXPECT_STREQ(e.what(), "stoul");
        }
        EXPECT_EQ(fields(cfg), fields(with(&Config::flavor, "v3")));
    }

    static void expect_valid(const Config& cfg, bool valid, const std::string& expected) {
        std::string reason = "as it was";
        EXPECT_EQ(cfg.validate(reason), valid);
        EXPECT_EQ(reason, expected);
    }

    std::string path_ = dir_ / "conf";
};

TEST_F(ConfigTest, DefaultsAreTheirLiterals) {
    EXPECT_EQ(fields(Config()),
              std::make_tuple("https://definitions.zelgw.example", "rhex/deffiles/def5-2", "v2", "", "",
                              "/usr/local/zelgw/opt/av/quorin/defs",
                              "/usr/local/zelgw/opt/av/quorin/defs/manifest/status.json", 900U, 120U, 3U, 300U));
}

TEST_F(ConfigTest, MissingFileFailsAndTouchesNothing) {
    Config cfg = with(&Config::flavor, "kept");
    EXPECT_FALSE(Config::load(dir_ / "none", cfg));
    EXPECT_EQ(fields(cfg), fields(with(&Config::flavor, "kept")));
}

TEST_F(ConfigTest, DirectoryInPlaceOfTheFileLoadsAsEmpty) {
    Config cfg;
    EXPECT_TRUE(Config::load(dir_.path(), cfg));
    EXPECT_EQ(fields(cfg), fields(Config()));
}

TEST_F(ConfigTest, EveryKeySetsItsOwnField) {
    const Config c = loaded(
        "mirror_base_url = a\nmirror_subdir = b\nflavor = c\nca_path = d\nengine_version = e\ndef_root = f\n"
        "status_path = g\npoll_interval_s = 1\npoll_jitter_s = 2\nretained_snapshots = 3\nhttp_timeout_s = 4\n");
    EXPECT_EQ(fields(c), std::make_tuple("a", "b", "c", "d", "e", "f", "g", 1U, 2U, 3U, 4U));
}

TEST_F(ConfigTest, LinesMayBeVeryLong) {
    const std::string value(3'000'000, 'x');
    EXPECT_EQ(loaded("flavor = " + value + "\n").flavor, value);
}

// What the defaults become by a file of this text.
struct FileCase : Verdict {
    std::string text;
    Config expected{};
};

class ConfigFileTest : public ConfigTest, public ::testing::WithParamInterface<FileCase> {};

TEST_P(ConfigFileTest, IsReadAsDocumented) {
    EXPECT_EQ(fields(loaded(GetParam().text)), fields(GetParam().expected));
}

const FileCase file_cases[] = {
    {"EmptyFile", ""},
    {"CommentsSectionsAndOtherKeys",
     "# flavor = x\n   # flavor = x\n\n \t\v\f\r\n[flavor]\nflavor\nno_such_key = 1\n; flavor = x\n=\n= x\n"},
    {"BlanksAroundKeySignAndValue", " \t poll_jitter_s \t=\t 60 \t \n", with(&Config::poll_jitter_s, 60U)},
    {"CarriageReturnAfterANumber", "poll_interval_s = 60\r\n", with(&Config::poll_interval_s, 60U)},
    {"CarriageReturnAfterAText", "flavor = v3\r\n", with(&Config::flavor, "v3")},
    {"LastLineWithoutLineFeed", "flavor = v3", with(&Config::flavor, "v3")},
    {"FirstEqualsSignParts", "ca_path = x/y=z\n", with(&Config::ca_path, "x/y=z")},
    {"TrailingCommentIsPartOfTheValue", "flavor = v2 # default\n", with(&Config::flavor, "v2 # default")},
    {"LineThatEndsLikeACommentIsNone", "flavor = v2#\n", with(&Config::flavor, "v2#")},
    {"QuotationMarksAreKept", "flavor = \"v 2\"\n", with(&Config::flavor, "\"v 2\"")},
    {"OnlyBlanksAreTrimmed", "flavor = \x01v\xC4\xA0\n", with(&Config::flavor, "\x01v\xC4\xA0")},
    {"KeysAreCaseSensitive", "Flavor = v3\nFLAVOR = v3\n"},
    {"LineThatStartsWithAnEqualsSign", "= v3\n"},
    {"SemicolonBeginsNoComment", "flavor = ;x\n", with(&Config::flavor, ";x")},
    {"EmptyValue", "flavor =\n", with(&Config::flavor, "")},
    {"ValueOfBlanks", "flavor =   \n", with(&Config::flavor, "")},
    {"LastTextWins", "flavor = a\nflavor = b\n", with(&Config::flavor, "b")},
    {"LastNumberWins", "poll_jitter_s = 1\npoll_jitter_s = 2\n", with(&Config::poll_jitter_s, 2U)},
    {"MovedRootLeavesTheStatusPath", "def_root = /srv/defs\n", with(&Config::def_root, "/srv/defs")},
};
INSTANTIATE_TEST_SUITE_P(Case, ConfigFileTest, ::testing::ValuesIn(file_cases), ByVerdict());

TEST_F(ConfigTest, NumbersAreWhatStoulReadsInTheirLow32Bits) {
    const std::pair<const char*, std::uint32_t> cases[] = {
        {"4294967295", 4294967295U},
        {"4294967296", 0},
        {"4294967297", 1},
        {"9223372036854775808", 0},
        {"18446744073709551615", 0xFFFFFFFFU},
        {"-1", 0xFFFFFFFFU},
        {"5x", 5},
        {"900s", 900},
        {"1.9", 1},
        {"+7", 7},
        {"010", 10},
        {"0x10", 0},
    };
    for (const auto& [key, field] : number_settings) {
        for (const auto& [value, number] : cases) {
            EXPECT_EQ(fields(loaded(key + " = " + value + "\n")), fields(with(field, number))) << key << " = " << value;
        }
    }
}

TEST_F(ConfigTest, MalformedNumberThrowsAndKeepsEarlierLines) {
    for (const auto& [key, field] : number_settings) {
        for (const char* value : {"", "abc", "-", "+ 1"}) {
            expect_refused<std::invalid_argument>(key + " = " + value);
        }
        expect_refused<std::out_of_range>(key + " = 18446744073709551616");
    }
}

TEST_F(ConfigTest, NoSettingIsTakenFromTheEnvironment) {
    setenv("flavor", "v9", 1);
    setenv("FLAVOR", "v9", 1);
    EXPECT_EQ(loaded("").flavor, "v2");
    unsetenv("flavor");
    unsetenv("FLAVOR");
}

TEST_F(ConfigTest, OnlyMirrorAndFlavorAreValidatedInThisOrder) {
    expect_valid({}, true, "as it was");
    expect_valid(loaded("mirror_base_url =\nflavor =\n"), false,
                 "mirror_base_url is not set (the updater will idle, performing no checks)");
    expect_valid(loaded("flavor =\n"), false, "flavor is not set");
    expect_valid(loaded("mirror_subdir =\nca_path =\nengine_version =\ndef_root =\nstatus_path =\npoll_interval_s = 0\n"
                        "poll_jitter_s = 0\nretained_snapshots = 0\nhttp_timeout_s = 0\n"),
                 true, "as it was");
}

}  // namespace
}  // namespace zqu::test
