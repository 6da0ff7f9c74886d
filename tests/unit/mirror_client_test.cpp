#include "mirror_client.hpp"

#include <curl/curl.h>
#include <dlfcn.h>

#include <memory>
#include <tuple>

#include "http_server.hpp"
#include "support.hpp"

namespace {

bool no_handle = false;  // libcurl can create none

}  // namespace

extern "C" CURL* curl_easy_init() {
    static const auto real = reinterpret_cast<decltype(&curl_easy_init)>(dlsym(RTLD_NEXT, "curl_easy_init"));
    return no_handle ? nullptr : real();
}

namespace zqu::test {
namespace {

const std::string hit = "/rhex/deffiles/def5-2/antivir-v2-hit.ini";
const std::string complete = "/rhex/deffiles/def5-2/antivir-v2-c-1234.ini";
const std::string cab = "/rhex/deffiles/def5-2/x.cab";

class MirrorClientTest : public LoggedTest {
protected:
    MirrorClientTest() { cfg_.mirror_base_url = server_.url(); }

    bool get(const std::string& path) { return client_.http_get_string(server_.url() + path, body_); }
    bool download() { return client_.download_cab("x.cab", dest_); }

    void expect_error(const std::string& what, const std::string& path, const std::string& reason) {
        EXPECT_EQ(log_.take(), Lines{"err " + what + " " + server_.url() + path + ": " + reason});
    }

    Server server_;
    Config cfg_;
    MirrorClient client_{cfg_};
    std::string body_ = "former content";
    const std::string dest_ = dir_ / "dest";
};

TEST_F(MirrorClientTest, DefaultsGiveTheirUrls) {
    cfg_ = Config();
    EXPECT_EQ(client_.hit_ini_url(), "https://definitions.zelgw.example/rhex/deffiles/def5-2/antivir-v2-hit.ini");
    EXPECT_EQ(client_.complete_ini_url("1234"),
              "https://definitions.zelgw.example/rhex/deffiles/def5-2/antivir-v2-c-1234.ini");
    EXPECT_EQ(client_.file_url("x.cab"), "https://definitions.zelgw.example/rhex/deffiles/def5-2/x.cab");
}

TEST_F(MirrorClientTest, UrlsHaveOneSlashAtEachJointOrTwoForNoSubdirectory) {
    struct {
        const char *base, *subdir, *name, *url;
    } const cases[] = {
        {"https://m///", "///a//b///", "n", "https://m/a//b/n"},
        {"https://m", "", "n", "https://m//n"},
        {"https://m", "/", "n", "https://m//n"},
        {"https://m", "////", "n", "https://m//n"},
        {"", "s", "n", "/s/n"},
        {"/", "s", "n", "/s/n"},
        {"//", "s", "n", "/s/n"},
        {"https://m", "s", "/a b/../%41?#/", "https://m/s//a b/../%41?#/"},
        {"https://m", "s", "", "https://m/s/"},
    };
    for (const auto& c : cases) {
        cfg_.mirror_base_url = c.base;
        cfg_.mirror_subdir = c.subdir;
        EXPECT_EQ(client_.file_url(c.name), c.url) << c.base << " " << c.subdir;
    }
}

TEST_F(MirrorClientTest, ConfigurationIsReadOnEveryCallAndFlavorNamesFiles) {
    cfg_.flavor = "v3";
    EXPECT_EQ(client_.complete_ini_url("7"), server_.url() + "/rhex/deffiles/def5-2/antivir-v3-c-7.ini");
    server_.serve("/rhex/deffiles/def5-2/antivir-v3-hit.ini", "defId=3");
    EXPECT_EQ(client_.fetch_defid(), "3");
}

TEST_F(MirrorClientTest, StatusBelow400IsASuccessAndReplacesTheBody) {
    const std::tuple<int, std::string> cases[] = {{200, std::string("a\0b", 3)}, {200, ""}, {399, "body"}};
    for (const auto& [status, content] : cases) {
        const std::string path = "/" + std::to_string(status) + "-" + std::to_string(content.size());
        server_.serve(path, content, status);
        EXPECT_TRUE(get(path));
        EXPECT_EQ(body_, content);
    }
}

// What fetch_defid makes of a hit INI.
struct HitCase : Verdict {
    std::string text;
    std::optional<std::string> defid{};
};

class HitIniTest : public MirrorClientTest, public ::testing::WithParamInterface<HitCase> {};

TEST_P(HitIniTest, IsReadFlatAndTrimmed) {
    server_.serve(hit, GetParam().text);
    EXPECT_EQ(client_.fetch_defid(), GetParam().defid);
    EXPECT_EQ(log_.take(), GetParam().defid ? Lines{} : Lines{"err parse_hit_defid: no [Current] defId"});
}

const HitCase hit_cases[] = {
    {"AnySection", "[Former]\ndefId=1234\n[Current]\ndefId=9\n", "1234"},
    {"NoSection", "defId=1234", "1234"},
    {"FirstLineWins", "defId=1\ndefId=2\n", "1"},
    {"FirstLineWinsEvenWhenEmpty", "defId=\ndefId=2\n"},
    {"KeysInAnyCase", "DEFID = 77\n", "77"},
    {"KeyOfOtherLength", "defIds=1\ndefI=2\nxdefId=3\n"},
    {"KeyThatDiffersAtOneEnd", "xefId=1\ndefIx=2\n"},
    {"ValueThatEndsInASemicolon", "defId=5;\n", "5;"},
    {"ValueThatEndsInAHash", "defId=5#\n", "5#"},
    {"ValueThatEndsInABracket", "defId=5[\n", "5["},
    {"Comments", "; defId=5\n# defId=5\n ;defId=5\n\t#defId=5\n"},
    {"HeaderWithEqualsSign", "[defId=5\n"},
    {"EmptyValue", "defId =   \n"},
    {"NoEqualsSign", "defId\n"},
    {"EmptyText", ""},
    {"CarriageReturns", "[Current]\r\ndefId=1234\r\n", "1234"},
    {"BlanksOfEveryKind", " \t\v\f defId \t\v\f=\t\v\f a b \t\v\f\r\n", "a b"},
    {"FurtherEqualsSigns", "defId = YWJj==\n", "YWJj=="},
    {"OnlyBlanksAreTrimmed", "defId=\x01\xC4\n", "\x01\xC4"},
    {"ValueIsNotScreened", "defId=../../x\n", "../../x"},
};
INSTANTIATE_TEST_SUITE_P(Case, HitIniTest, ::testing::ValuesIn(hit_cases), ByVerdict());

TEST_F(MirrorClientTest, CompleteInfoCarriesAllFour) {
    server_.serve(complete,
                  "[def]\r\nDEF.current.NAME = x.cab\r\ndef.Current.SHA256 = AbC=\r\ndef.Current.defId = 99\r\n"
                  "def.Current.size = 77\r\n");
    const auto info = client_.fetch_complete_info("1234");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->cab_name, "x.cab");
    EXPECT_EQ(info->sha256, "AbC=");
    EXPECT_EQ(info->defid, "99");  // kept although another was asked for
    EXPECT_EQ(info->size, 77);
    EXPECT_EQ(server_.requests, Lines{complete});
}

TEST_F(MirrorClientTest, CompleteInfoWithoutIdTakesTheOneAskedFor) {
    for (const char* line : {"", "def.Current.defId=\n"}) {
        server_.serve(complete, std::string(line) + "def.Current.name=x\ndef.Current.SHA256=y\n");
        const auto info = client_.fetch_complete_info("1234");
        ASSERT_TRUE(info);
        EXPECT_EQ(info->defid, "1234");
        EXPECT_EQ(info->size, 0);
    }
}

TEST_F(MirrorClientTest, InfoWithoutNameOrDigestIsRefusedWithOneMessage) {
    for (const char* text :
         {"", "def.Current.name=x\n", "def.Current.SHA256=y\n", "def.Current.name=\ndef.Current.SHA256=y\n",
          "def.Current.name=x\ndef.Current.SHA256=\n", "name=x\nSHA256=y\n[def.Current]\nname=x\nSHA256=y\n",
          "def\016Current.name=x\ndef.Current.SHA256=y\n"}) {
        SCOPED_TRACE(text);
        server_.serve(complete, text);
        EXPECT_FALSE(client_.fetch_complete_info("1234"));
        EXPECT_EQ(log_.take(), Lines{"err parse_complete_info: missing def.Current.name/SHA256"});
    }
}

TEST_F(MirrorClientTest, SizeIsReadAsAPrefixOrZero) {
    const std::pair<std::string, std::int64_t> cases[] = {
        {"12abc", 12},
        {"abc", 0},
        {"-5", -5},
        {"", 0},
        {"+6", 6},
        {"0x1F", 0},
        {"2147483648", 2147483648},
        {"-4294967297", -4294967297},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", 0},
        {"-9223372036854775809", 0},
    };
    for (const auto& [text, size] : cases) {
        server_.serve(complete, "def.Current.name=x\ndef.Current.SHA256=y\ndef.Current.size=" + text + "\n");
        const auto info = client_.fetch_complete_info("1234");
        ASSERT_TRUE(info) << text;
        EXPECT_EQ(info->size, size) << text;
    }
}

TEST_F(MirrorClientTest, DownloadLeavesTheDestinationOnly) {
    std::string content(1'000'000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i % 251);
    }
    server_.serve(cab, content);
    EXPECT_TRUE(download());
    EXPECT_EQ(listing(dir_.path()), Lines{"dest"});
    EXPECT_EQ(read_file(dest_), content);
}

TEST_F(MirrorClientTest, FailedRenameIsSilentAndKeepsThePart) {
    server_.serve(cab, "content");
    make_dirs(dest_);
    EXPECT_FALSE(download());
    EXPECT_EQ(listing(dir_.path()), (Lines{"dest.part", "dest/"}));
    EXPECT_EQ(read_file(dir_ / "dest.part"), "content");
}

class NoHandleTest : public MirrorClientTest {
protected:
    NoHandleTest() {
        no_handle = true;
        bare_ = std::make_unique<MirrorClient>(cfg_);
        no_handle = false;
    }

    std::unique_ptr<MirrorClient> bare_;
};

TEST_F(NoHandleTest, EveryTransferFailsWithoutAMessageOrARequest) {
    EXPECT_FALSE(bare_->http_get_string(server_.url() + "/x", body_));
    EXPECT_EQ(body_, "former content");
    EXPECT_FALSE(bare_->download_cab("x.cab", dest_));
    EXPECT_FALSE(bare_->download_cab("x.cab", dir_ / "none/dest"));
    EXPECT_EQ(listing(dir_.path()), Lines{});
    EXPECT_EQ(bare_->fetch_defid(), std::nullopt);
    EXPECT_FALSE(bare_->fetch_complete_info("1234"));
    EXPECT_EQ(server_.requests, Lines{});
}

}  // namespace
}  // namespace zqu::test
