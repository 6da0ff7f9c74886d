// A snapshot store in a directory of its own, for the tests of all that it does.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "snapshot_store.hpp"
#include "support.hpp"

namespace zqu::test {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class SnapshotStoreTest : public ::testing::Test {
protected:
    SnapshotStoreTest() {
        cfg_.def_root = dir_ / "defs";
        cfg_.status_path = dir_ / "manifest/status.json";
    }

    [[nodiscard]] std::string root() const { return cfg_.def_root; }
    [[nodiscard]] std::string active() const { return fs::read_symlink(root() + "/active").string(); }

    TempDir dir_;
    Config cfg_;
    LogCapture log_;

    void TearDown() override { EXPECT_EQ(log_.take(), Lines{}); }
};

}  // namespace zqu::test
