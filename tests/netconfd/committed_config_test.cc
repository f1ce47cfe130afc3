// The last commit's file: replaced whole, never through a planted link, and
// left as it was when it cannot be replaced.
#include "committed_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;
using ipapp::netconfd::ReplaceWhole;

namespace {

std::string Read(const fs::path &path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class ReplaceWholeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/committed-config-test-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
  }
  void TearDown() override { fs::remove_all(dir_); }
  fs::path dir_;
};

TEST_F(ReplaceWholeTest, ReplacesTheFileAndLeavesNothingBeside) {
  const fs::path file = dir_ / "committed.xml";
  ReplaceWhole(file, "<config/>\n");
  ReplaceWhole(file, "<config>2</config>\n");
  EXPECT_EQ(Read(file), "<config>2</config>\n");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_FALSE(fs::exists(dir_ / "committed.xml.new"));
}

TEST_F(ReplaceWholeTest, ALinkPlantedBesideIsRemovedNotFollowed) {
  const fs::path target = dir_ / "elsewhere";
  std::ofstream(target) << "untouched";
  fs::create_symlink(target, dir_ / "committed.xml.new");
  ReplaceWhole(dir_ / "committed.xml", "<config/>\n");
  EXPECT_EQ(Read(target), "untouched");
  EXPECT_EQ(Read(dir_ / "committed.xml"), "<config/>\n");
}

TEST_F(ReplaceWholeTest, WhatCannotBeReplacedStaysAsItWas) {
  const fs::path file = dir_ / "committed.xml";
  ReplaceWhole(file, "old");
  fs::create_directories(dir_ / "committed.xml.new" / "in-the-way");
  try {
    ReplaceWhole(file, "new");
    FAIL() << "no error";
  } catch (const std::system_error &e) {
    EXPECT_NE(std::string(e.what()).find((dir_ / "committed.xml.new").string()), std::string::npos)
        << e.what();
  }
  EXPECT_EQ(Read(file), "old");
}

}  // namespace
