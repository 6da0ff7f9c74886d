#include "mirror_client.hpp"

#include <curl/curl.h>
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <tuple>
#include <type_traits>

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

TEST_F(MirrorClientTest, IsNeitherCopiedNorMoved) {
    EXPECT_FALSE(std::is_copy_constructible_v<MirrorClient>);
    EXPECT_FALSE(std::is_move_constructible_v<MirrorClient>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<MirrorClient>);
    EXPECT_TRUE((std::is_same_v<decltype(CompleteInfo::size), long>));
    EXPECT_EQ(CompleteInfo().size, 0);
    EXPECT_EQ(CompleteInfo().defid + CompleteInfo().cab_name + CompleteInfo().sha256, "");
}

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

TEST_F(MirrorClientTest, StatusOf400OrMoreFailsAndEmptiesTheBody) {
    for (const int status : {400, 401, 403, 404, 410, 429, 500, 503}) {
        const std::string path = "/" + std::to_string(status);
        server_.serve(path, "an error page", status);
        body_ = "former content";
        EXPECT_FALSE(get(path)) << status;
        EXPECT_EQ(body_, "") << status;
        expect_error("GET", path, "HTTP response code said error");
    }
}

TEST_F(MirrorClientTest, RedirectsAreFollowed) {
    server_.http.Get("/from", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("/to"); });
    server_.serve("/to", "arrived");
    EXPECT_TRUE(get("/from"));
    EXPECT_EQ(body_, "arrived");
}

TEST_F(MirrorClientTest, BrokenTransferKeepsWhatArrived) {
    server_.serve_half("/x", "first half");
    EXPECT_FALSE(get("/x"));
    EXPECT_EQ(body_, "first half");
    expect_error("GET", "/x", "Transferred a partial file");
}

TEST_F(MirrorClientTest, UnreachableMirrorFails) {
    server_.stop();
    EXPECT_FALSE(get("/x"));
    expect_error("GET", "/x", "Couldn't connect to server");
}

TEST_F(MirrorClientTest, TimeoutEndsAWholeTransfer) {
    cfg_.http_timeout_s = 1;
    std::atomic<int> slow_requests{0};
    server_.http.Get("/slow", [&](const httplib::Request&, httplib::Response& response) {
        ++slow_requests;
        response.set_chunked_content_provider("text/plain", [](std::size_t, httplib::DataSink& sink) {
            usleep(50'000);
            return sink.write("x", 1);
        });
    });
    EXPECT_FALSE(get("/slow"));
    expect_error("GET", "/slow", "Timeout was reached");
    EXPECT_EQ(slow_requests, 1);
}

TEST_F(MirrorClientTest, DefidComesFromTheHitIni) {
    server_.serve(hit, "[Current]\ndefId=1234\n");
    EXPECT_EQ(client_.fetch_defid(), "1234");
    EXPECT_EQ(server_.requests, Lines{hit});
}

TEST_F(MirrorClientTest, MissingHitIniGivesNoDefid) {
    EXPECT_EQ(client_.fetch_defid(), std::nullopt);
    expect_error("GET", hit, "HTTP response code said error");
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

TEST_F(MirrorClientTest, MissingCompleteIniGivesNoInfo) {
    EXPECT_FALSE(client_.fetch_complete_info("1234"));
    expect_error("GET", complete, "HTTP response code said error");
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
    const std::pair<std::string, long> cases[] = {
        {"12abc", 12},
        {"abc", 0},
        {"-5", -5},
        {"", 0},
        {"+6", 6},
        {"0x1F", 0},
        {"9223372036854775807", 9223372036854775807L},
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

TEST_F(MirrorClientTest, DownloadReplacesFormerFiles) {
    write_file(dest_, "a former and longer file");
    write_file(dir_ / "dest.part", "a former and much longer partial file");
    server_.serve(cab, "");
    EXPECT_TRUE(download());
    EXPECT_EQ(listing(dir_.path()), Lines{"dest"});
    EXPECT_EQ(read_file(dest_), "");
}

TEST_F(MirrorClientTest, FailedDownloadRemovesThePartAndKeepsAFormerFile) {
    write_file(dest_, "former");
    EXPECT_FALSE(download());
    EXPECT_EQ(listing(dir_.path()), Lines{"dest"});
    EXPECT_EQ(read_file(dest_), "former");
    expect_error("download_cab", cab, "HTTP response code said error");
}

TEST_F(MirrorClientTest, DownloadBrokenHalfwayLeavesNothing) {
    server_.serve_half(cab, std::string(200'000, 'x'));
    EXPECT_FALSE(download());
    EXPECT_EQ(listing(dir_.path()), Lines{});
    expect_error("download_cab", cab, "Transferred a partial file");
}

TEST_F(MirrorClientTest, MissingDirectoryIsReportedWithoutARequest) {
    server_.serve(cab, "x");
    EXPECT_FALSE(client_.download_cab("x.cab", dir_ / "none/dest"));
    EXPECT_EQ(log_.take(), Lines{"err download_cab: cannot create " + (dir_ / "none/dest.part")});
    EXPECT_EQ(server_.requests, Lines{});
}

TEST_F(MirrorClientTest, FailedWriteAbortsTheTransfer) {
    server_.serve(cab, std::string(1'000'000, 'x'));
    fs::create_symlink("/dev/full", dir_ / "dest.part");
    EXPECT_FALSE(download());
    EXPECT_EQ(listing(dir_.path()), Lines{});
    expect_error("download_cab", cab, "Failed writing received data to disk/application");
}

TEST_F(MirrorClientTest, FailedCloseIsNotNoticed) {
    // The few bytes stay in the stream's buffer until fclose tries, in vain, to write them out.
    server_.serve(cab, "x");
    fs::create_symlink("/dev/full", dir_ / "dest.part");
    EXPECT_TRUE(download());
    EXPECT_EQ(listing(dir_.path()), Lines{"dest -> /dev/full"});
}

TEST_F(MirrorClientTest, FailedRenameIsSilentAndKeepsThePart) {
    server_.serve(cab, "content");
    make_dirs(dest_);
    EXPECT_FALSE(download());
    EXPECT_EQ(listing(dir_.path()), (Lines{"dest.part", "dest/"}));
    EXPECT_EQ(read_file(dir_ / "dest.part"), "content");
}

TEST_F(MirrorClientTest, OneHandleServesTransferAfterTransfer) {
    server_.serve(hit, "defId=1");
    server_.serve(cab, "cab");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client_.fetch_defid(), "1");
        EXPECT_TRUE(download());
        EXPECT_FALSE(client_.download_cab("none", dest_));
    }
    EXPECT_EQ(log_.take().size(), 3U);
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

TEST(MirrorClientLifetimeTest, ClientsComeAndGo) {
    const Config cfg;
    for (int i = 0; i < 3; ++i) {
        const MirrorClient client(cfg);
        EXPECT_NE(client.hit_ini_url(), "");
    }
}

}  // namespace
}  // namespace zqu::test
