#include "mirror_client.hpp"

#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <ostream>
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

using Lines = std::vector<std::string>;

const std::string hit = "/rhex/deffiles/def5-2/antivir-v2-hit.ini";
const std::string complete = "/rhex/deffiles/def5-2/antivir-v2-c-1234.ini";
const std::string cab = "/rhex/deffiles/def5-2/x.cab";

class MirrorClientTest : public ::testing::Test {
protected:
    MirrorClientTest() { cfg_.mirror_base_url = server_.url(); }

    Server server_;
    Config cfg_;
    MirrorClient client_{cfg_};
    TempDir dir_;
    LogCapture log_;

    void TearDown() override { EXPECT_EQ(log_.take(), Lines{}); }
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

TEST_F(MirrorClientTest, EachJointHasOneSlash) {
    cfg_.mirror_base_url = "https://m///";
    cfg_.mirror_subdir = "///a//b///";
    EXPECT_EQ(client_.file_url("n"), "https://m/a//b/n");
}

TEST_F(MirrorClientTest, EmptySubdirectoryGivesADoubleSlash) {
    cfg_.mirror_base_url = "https://m";
    for (const char* subdir : {"", "/", "////"}) {
        cfg_.mirror_subdir = subdir;
        EXPECT_EQ(client_.file_url("n"), "https://m//n") << subdir;
    }
}

TEST_F(MirrorClientTest, EmptyBaseGivesAPath) {
    for (const char* base : {"", "/", "//"}) {
        cfg_.mirror_base_url = base;
        cfg_.mirror_subdir = "s";
        EXPECT_EQ(client_.file_url("n"), "/s/n") << base;
    }
}

TEST_F(MirrorClientTest, NameIsAppendedAsItStands) {
    cfg_.mirror_base_url = "https://m";
    cfg_.mirror_subdir = "s";
    EXPECT_EQ(client_.file_url("/a b/../%41?#/"), "https://m/s//a b/../%41?#/");
    EXPECT_EQ(client_.file_url(""), "https://m/s/");
}

TEST_F(MirrorClientTest, FlavorIsPartOfTheNames) {
    cfg_ = Config();
    cfg_.flavor = "v3";
    EXPECT_EQ(client_.hit_ini_url(), "https://definitions.zelgw.example/rhex/deffiles/def5-2/antivir-v3-hit.ini");
    EXPECT_EQ(client_.complete_ini_url("7"),
              "https://definitions.zelgw.example/rhex/deffiles/def5-2/antivir-v3-c-7.ini");
}

TEST_F(MirrorClientTest, ConfigurationIsReadAnewOnEveryCall) {
    cfg_.flavor = "v3";
    server_.serve("/rhex/deffiles/def5-2/antivir-v3-hit.ini", "defId=3");
    EXPECT_EQ(client_.fetch_defid(), "3");
}

TEST_F(MirrorClientTest, GetReplacesTheBody) {
    server_.serve("/x", std::string("a\0b", 3));
    std::string body = "former content";
    EXPECT_TRUE(client_.http_get_string(server_.url() + "/x", body));
    EXPECT_EQ(body, std::string("a\0b", 3));
}

TEST_F(MirrorClientTest, EmptyResponseIsASuccess) {
    server_.serve("/x", "");
    std::string body = "former content";
    EXPECT_TRUE(client_.http_get_string(server_.url() + "/x", body));
    EXPECT_EQ(body, "");
}

TEST_F(MirrorClientTest, StatusOf400OrMoreFailsAndEmptiesTheBody) {
    for (const int status : {400, 401, 403, 404, 410, 429, 500, 503}) {
        const std::string path = "/" + std::to_string(status);
        server_.serve(path, "an error page", status);
        std::string body = "former content";
        EXPECT_FALSE(client_.http_get_string(server_.url() + path, body)) << status;
        EXPECT_EQ(body, "") << status;
        EXPECT_EQ(log_.take(), Lines{"err GET " + server_.url() + path + ": HTTP response code said error"}) << status;
    }
}

TEST_F(MirrorClientTest, StatusBelow400IsASuccess) {
    server_.serve("/x", "body", 399);
    std::string body;
    EXPECT_TRUE(client_.http_get_string(server_.url() + "/x", body));
    EXPECT_EQ(body, "body");
}

TEST_F(MirrorClientTest, RedirectsAreFollowed) {
    server_.http.Get("/from", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("/to"); });
    server_.serve("/to", "arrived");
    std::string body;
    EXPECT_TRUE(client_.http_get_string(server_.url() + "/from", body));
    EXPECT_EQ(body, "arrived");
}

TEST_F(MirrorClientTest, BrokenTransferKeepsWhatArrived) {
    server_.serve_half("/x", "first half");
    std::string body = "former content";
    EXPECT_FALSE(client_.http_get_string(server_.url() + "/x", body));
    EXPECT_EQ(body, "first half");
    EXPECT_EQ(log_.take(), Lines{"err GET " + server_.url() + "/x: Transferred a partial file"});
}

TEST_F(MirrorClientTest, UnreachableMirrorFails) {
    server_.stop();
    std::string body;
    EXPECT_FALSE(client_.http_get_string(server_.url() + "/x", body));
    EXPECT_EQ(log_.take(), Lines{"err GET " + server_.url() + "/x: Couldn't connect to server"});
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
    std::string body;
    EXPECT_FALSE(client_.http_get_string(server_.url() + "/slow", body));
    EXPECT_EQ(log_.take(), Lines{"err GET " + server_.url() + "/slow: Timeout was reached"});
    EXPECT_EQ(slow_requests, 1);
}

TEST_F(MirrorClientTest, DefidComesFromTheHitIni) {
    server_.serve(hit, "[Current]\ndefId=1234\n");
    EXPECT_EQ(client_.fetch_defid(), "1234");
    EXPECT_EQ(server_.requests, Lines{hit});
}

TEST_F(MirrorClientTest, MissingHitIniGivesNoDefid) {
    EXPECT_EQ(client_.fetch_defid(), std::nullopt);
    EXPECT_EQ(log_.take(), Lines{"err GET " + server_.url() + hit + ": HTTP response code said error"});
}

// What fetch_defid makes of a hit INI.
struct HitCase {
    const char* verdict;
    std::string text;
    std::optional<std::string> defid;
};

std::ostream& operator<<(std::ostream& out, const HitCase& c) {
    return out << c.verdict;
}

class HitIniTest : public MirrorClientTest, public ::testing::WithParamInterface<HitCase> {};

TEST_P(HitIniTest, IsReadFlatAndTrimmed) {
    server_.serve(hit, GetParam().text);
    EXPECT_EQ(client_.fetch_defid(), GetParam().defid);
    EXPECT_EQ(log_.take(), GetParam().defid ? Lines{} : Lines{"err parse_hit_defid: no [Current] defId"});
}

INSTANTIATE_TEST_SUITE_P(
    Case, HitIniTest,
    ::testing::Values(HitCase{"SectionCurrent", "[Current]\ndefId=1234\n", "1234"},
                      HitCase{"AnyOtherSection", "[Former]\ndefId=1234\n[Current]\ndefId=9\n", "1234"},
                      HitCase{"NoSection", "defId=1234", "1234"}, HitCase{"FirstLineWins", "defId=1\ndefId=2\n", "1"},
                      HitCase{"FirstLineWinsEvenWhenEmpty", "defId=\ndefId=2\n", std::nullopt},
                      HitCase{"KeysInAnyCase", "DEFID = 77\n", "77"},
                      HitCase{"KeyOfOtherLength", "defIds=1\ndefI=2\nxdefId=3\n", std::nullopt},
                      HitCase{"KeyThatDiffersAtOneEnd", "xefId=1\ndefIx=2\n", std::nullopt},
                      HitCase{"ValueThatEndsInASemicolon", "defId=5;\n", "5;"},
                      HitCase{"ValueThatEndsInAHash", "defId=5#\n", "5#"},
                      HitCase{"ValueThatEndsInABracket", "defId=5[\n", "5["},
                      HitCase{"Comments", "; defId=5\n# defId=5\n ;defId=5\n\t#defId=5\n", std::nullopt},
                      HitCase{"HeaderWithEqualsSign", "[defId=5\n", std::nullopt},
                      HitCase{"EmptyValue", "defId =   \n", std::nullopt},
                      HitCase{"NoEqualsSign", "defId\n", std::nullopt}, HitCase{"EmptyText", "", std::nullopt},
                      HitCase{"CarriageReturns", "[Current]\r\ndefId=1234\r\n", "1234"},
                      HitCase{"BlanksOfEveryKind", " \t\v\f defId \t\v\f=\t\v\f a b \t\v\f\r\n", "a b"},
                      HitCase{"FurtherEqualsSigns", "defId = YWJj==\n", "YWJj=="},
                      HitCase{"OnlyBlanksAreTrimmed", "defId=\x01\xC4\n", "\x01\xC4"},
                      HitCase{"ValueIsNotScreened", "defId=../../x\n", "../../x"}),
    [](const auto& param) { return param.param.verdict; });

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
    EXPECT_EQ(log_.take(), Lines{"err GET " + server_.url() + complete + ": HTTP response code said error"});
}

class IncompleteInfoTest : public MirrorClientTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(IncompleteInfoTest, IsRefusedWithOneMessage) {
    server_.serve(complete, GetParam());
    EXPECT_FALSE(client_.fetch_complete_info("1234"));
    EXPECT_EQ(log_.take(), Lines{"err parse_complete_info: missing def.Current.name/SHA256"});
}

INSTANTIATE_TEST_SUITE_P(Case, IncompleteInfoTest,
                         ::testing::Values("", "def.Current.name=x\n", "def.Current.SHA256=y\n",
                                           "def.Current.name=\ndef.Current.SHA256=y\n",
                                           "def.Current.name=x\ndef.Current.SHA256=\n",
                                           "name=x\nSHA256=y\n[def.Current]\nname=x\nSHA256=y\n",
                                           "def\x0e"
                                           "Current.name=x\ndef.Current.SHA256=y\n"));

class SizeTest : public MirrorClientTest, public ::testing::WithParamInterface<std::pair<const char*, long>> {};

TEST_P(SizeTest, IsReadAsAPrefixOrZero) {
    server_.serve(complete,
                  std::string("def.Current.name=x\ndef.Current.SHA256=y\ndef.Current.size=") + GetParam().first + "\n");
    const auto info = client_.fetch_complete_info("1234");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->size, GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Case, SizeTest,
                         ::testing::Values(std::pair("12abc", 12L), std::pair("abc", 0L), std::pair("-5", -5L),
                                           std::pair("", 0L), std::pair("+6", 6L), std::pair("0x1F", 0L),
                                           std::pair("9223372036854775807", 9223372036854775807L),
                                           std::pair("9223372036854775808", 0L),
                                           std::pair("-9223372036854775809", 0L)));

TEST_F(MirrorClientTest, DownloadLeavesTheDestinationOnly) {
    std::string content(1'000'000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i % 251);
    }
    server_.serve(cab, content);
    EXPECT_TRUE(client_.download_cab("x.cab", dir_ / "dest"));
    EXPECT_EQ(listing(dir_.path()), Lines{"dest"});
    EXPECT_EQ(read_file(dir_ / "dest"), content);
}

TEST_F(MirrorClientTest, DownloadReplacesFormerFiles) {
    write_file(dir_ / "dest", "a former and longer file");
    write_file(dir_ / "dest.part", "a former and much longer partial file");
    server_.serve(cab, "new");
    EXPECT_TRUE(client_.download_cab("x.cab", dir_ / "dest"));
    EXPECT_EQ(listing(dir_.path()), Lines{"dest"});
    EXPECT_EQ(read_file(dir_ / "dest"), "new");
}

TEST_F(MirrorClientTest, EmptyDownloadGivesAnEmptyFile) {
    server_.serve(cab, "");
    EXPECT_TRUE(client_.download_cab("x.cab", dir_ / "dest"));
    EXPECT_EQ(read_file(dir_ / "dest"), "");
}

TEST_F(MirrorClientTest, FailedDownloadRemovesThePartAndKeepsAFormerFile) {
    write_file(dir_ / "dest", "former");
    EXPECT_FALSE(client_.download_cab("x.cab", dir_ / "dest"));
    EXPECT_EQ(listing(dir_.path()), Lines{"dest"});
    EXPECT_EQ(read_file(dir_ / "dest"), "former");
    EXPECT_EQ(log_.take(), Lines{"err download_cab " + server_.url() + cab + ": HTTP response code said error"});
}

TEST_F(MirrorClientTest, DownloadBrokenHalfwayLeavesNothing) {
    server_.serve_half(cab, std::string(200'000, 'x'));
    EXPECT_FALSE(client_.download_cab("x.cab", dir_ / "dest"));
    EXPECT_EQ(listing(dir_.path()), Lines{});
    EXPECT_EQ(log_.take(), Lines{"err download_cab " + server_.url() + cab + ": Transferred a partial file"});
}

TEST_F(MirrorClientTest, MissingDirectoryIsReportedWithoutARequest) {
    server_.serve(cab, "x");
    EXPECT_FALSE(client_.download_cab("x.cab", dir_ / "none/dest"));
    EXPECT_EQ(log_.take(), Lines{"err download_cab: cannot create " + (dir_ / "none/dest.part")});
    EXPECT_EQ(server_.requests, Lines{});
}

TEST_F(MirrorClientTest, FailedWriteAbortsTheTransfer) {
    server_.serve(cab, std::string(1'000'000, 'x'));
    std::filesystem::create_symlink("/dev/full", dir_ / "dest.part");
    EXPECT_FALSE(client_.download_cab("x.cab", dir_ / "dest"));
    EXPECT_EQ(listing(dir_.path()), Lines{});
    EXPECT_EQ(log_.take(),
              Lines{"err download_cab " + server_.url() + cab + ": Failed writing received data to disk/application"});
}

TEST_F(MirrorClientTest, FailedCloseIsNotNoticed) {
    // The few bytes stay in the stream's buffer until fclose tries, in vain, to write them out.
    server_.serve(cab, "x");
    std::filesystem::create_symlink("/dev/full", dir_ / "dest.part");
    EXPECT_TRUE(client_.download_cab("x.cab", dir_ / "dest"));
    EXPECT_EQ(listing(dir_.path()), Lines{"dest -> /dev/full"});
}

TEST_F(MirrorClientTest, FailedRenameIsSilentAndKeepsThePart) {
    server_.serve(cab, "content");
    make_dirs(dir_ / "dest");
    EXPECT_FALSE(client_.download_cab("x.cab", dir_ / "dest"));
    EXPECT_EQ(listing(dir_.path()), (Lines{"dest.part", "dest/"}));
    EXPECT_EQ(read_file(dir_ / "dest.part"), "content");
}

TEST_F(MirrorClientTest, OneHandleServesTransferAfterTransfer) {
    server_.serve(hit, "defId=1");
    server_.serve(cab, "cab");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client_.fetch_defid(), "1");
        EXPECT_TRUE(client_.download_cab("x.cab", dir_ / "dest"));
        EXPECT_FALSE(client_.download_cab("none", dir_ / "dest"));
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

TEST_F(NoHandleTest, GetFailsWithoutAMessageAndLeavesTheBody) {
    std::string body = "former content";
    EXPECT_FALSE(bare_->http_get_string(server_.url() + "/x", body));
    EXPECT_EQ(body, "former content");
}

TEST_F(NoHandleTest, DownloadFailsWithoutAMessageOrAFile) {
    EXPECT_FALSE(bare_->download_cab("x.cab", dir_ / "dest"));
    EXPECT_FALSE(bare_->download_cab("x.cab", dir_ / "none/dest"));
    EXPECT_EQ(listing(dir_.path()), Lines{});
}

TEST_F(NoHandleTest, NothingIsFetchedAndNothingLogged) {
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
