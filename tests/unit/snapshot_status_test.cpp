#include "snapshot_store_fixture.hpp"

#include <sys/stat.h>

#include <filesystem>
#include <limits>
#include <type_traits>

namespace zqu::test {
namespace {

class StatusTest : public SnapshotStoreTest {
protected:
    std::string written(const SnapshotStore::Status& st) {
        SnapshotStore(cfg_).write_status(st);
        return read_file(cfg_.status_path);
    }
};

TEST_F(StatusTest, EmptyStatusIsTheTenLines) {
    EXPECT_EQ(written({}),
              "{\n"
              "  \"schema_version\": 1,\n"
              "  \"active_version\": \"\",\n"
              "  \"engine_version\": \"\",\n"
              "  \"antivir_def_version\": \"\",\n"
              "  \"aivsecon_def_version\": \"\",\n"
              "  \"last_check_epoch\": 0,\n"
              "  \"last_success_epoch\": 0,\n"
              "  \"last_error\": \"\"\n"
              "}\n");
}

TEST_F(StatusTest, EveryFieldHasItsPlace) {
    EXPECT_EQ(written({"a", "b", "c", "d", 1, 2, "e"}),
              "{\n"
              "  \"schema_version\": 1,\n"
              "  \"active_version\": \"a\",\n"
              "  \"engine_version\": \"b\",\n"
              "  \"antivir_def_version\": \"c\",\n"
              "  \"aivsecon_def_version\": \"d\",\n"
              "  \"last_check_epoch\": 1,\n"
              "  \"last_success_epoch\": 2,\n"
              "  \"last_error\": \"e\"\n"
              "}\n");
}

TEST_F(StatusTest, TimesAreSigned64BitWithoutGrouping) {
    SnapshotStore::Status st;
    st.last_check_epoch = std::numeric_limits<std::int64_t>::min();
    st.last_success_epoch = std::numeric_limits<std::int64_t>::max();
    const std::string text = written(st);
    EXPECT_NE(text.find("  \"last_check_epoch\": -9223372036854775808,\n"), std::string::npos);
    EXPECT_NE(text.find("  \"last_success_epoch\": 9223372036854775807,\n"), std::string::npos);
    EXPECT_TRUE((std::is_same_v<decltype(st.last_check_epoch), std::int64_t>));
}

TEST_F(StatusTest, FiveBytesAreEscapedAndNoOthers) {
    std::string all;
    std::string escaped;
    for (int c = 0; c < 256; ++c) {
        const char byte = static_cast<char>(c);
        all += byte;
        escaped += byte == '\t'   ? "\\t"
                   : byte == '\n' ? "\\n"
                   : byte == '\r' ? "\\r"
                   : byte == '"'  ? "\\\""
                   : byte == '\\' ? "\\\\"
                                  : std::string(1, byte);
    }
    EXPECT_EQ(written({all, all, all, all, 0, 0, all}),
              "{\n"
              "  \"schema_version\": 1,\n"
              "  \"active_version\": \"" +
                  escaped +
                  "\",\n"
                  "  \"engine_version\": \"" +
                  escaped +
                  "\",\n"
                  "  \"antivir_def_version\": \"" +
                  escaped +
                  "\",\n"
                  "  \"aivsecon_def_version\": \"" +
                  escaped +
                  "\",\n"
                  "  \"last_check_epoch\": 0,\n"
                  "  \"last_success_epoch\": 0,\n"
                  "  \"last_error\": \"" +
                  escaped +
                  "\"\n"
                  "}\n");
}

TEST_F(StatusTest, LongerFormerFileLeavesNoTail) {
    const std::string plain = written({});
    SnapshotStore::Status longer;
    longer.last_error = std::string(100'000, 'x');
    EXPECT_GT(written(longer).size(), 100'000U);
    EXPECT_EQ(written({}), plain);
}

TEST_F(StatusTest, MissingDirectoryIsSilentAndNotCreated) {
    const SnapshotStore store(cfg_);
    fs::remove_all(dir_ / "manifest");
    store.write_status({});
    EXPECT_EQ(listing(dir_.path()), (Lines{"defs/", "defs/snapshots/"}));
}

TEST_F(StatusTest, FileWithoutPermissionIsSilentAndKept) {
    const SnapshotStore store(cfg_);
    write_file(cfg_.status_path, "former");
    ASSERT_EQ(chmod(cfg_.status_path.c_str(), 0444), 0);
    const AsOrdinaryUser user({dir_.path(), dir_ / "manifest", cfg_.status_path});
    store.write_status({});
    EXPECT_EQ(read_file(cfg_.status_path), "former");
}

TEST_F(StatusTest, FullDiskIsSilent) {
    const SnapshotStore store(cfg_);
    cfg_.status_path = dir_ / "full";  // a link, lest a broken daemon damages the device itself
    fs::create_symlink("/dev/full", cfg_.status_path);
    EXPECT_NO_THROW(store.write_status({}));
    EXPECT_EQ(fs::read_symlink(cfg_.status_path), "/dev/full");
}

TEST_F(StatusTest, FileIsRewrittenInPlace) {
    static_cast<void>(written({}));
    struct stat before {};
    ASSERT_EQ(stat(cfg_.status_path.c_str(), &before), 0);
    static_cast<void>(written({"a", "", "", "", 0, 0, ""}));
    struct stat after {};
    ASSERT_EQ(stat(cfg_.status_path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(listing(dir_ / "manifest"), Lines{"status.json"});
}

}  // namespace
}  // namespace zqu::test
