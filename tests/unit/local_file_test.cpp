#include "output/local_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "output/distinct_outputs.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using meru_test::TempDir;
using MR::local_path;
using MR::same_file;

TEST(LocalPath, IsThatOfAFileAloneWhetherItExistsOrNot) {
  const TempDir dir;
  std::ofstream(dir.file("a.mp4")) << "x";
  EXPECT_EQ(local_path(dir.file("a.mp4").c_str()), dir.file("a.mp4"));
  EXPECT_EQ(local_path(dir.file("new.mp4").c_str()), dir.file("new.mp4"));
  EXPECT_EQ(local_path(("file:" + dir.file("new.mp4")).c_str()), dir.file("new.mp4"));
  EXPECT_EQ(local_path("new.mp4"), "new.mp4");
  ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
  for (const std::string& url : {std::string(), std::string("rtmp://host/app/key"), std::string("rtsp://host/name"),
                                 std::string("pipe:1"), std::string("/dev/null"), dir.file("pipe"), dir.path()}) {
    EXPECT_EQ(local_path(url.c_str()), "") << url;
  }
  EXPECT_EQ(local_path(nullptr), "");
}

class SameFile : public testing::Test {
 protected:
  SameFile() {
    std::ofstream(m_dir.file("there")) << "x";
    fs::create_directory(m_dir.file("folder"));
    fs::create_symlink(m_dir.file("there"), m_dir.file("link"));
    fs::create_symlink("new", m_dir.file("dangling"));
    fs::create_symlink("dangling", m_dir.file("twice"));
    fs::create_directory_symlink(m_dir.file("folder"), m_dir.file("other-folder"));
    fs::create_hard_link(m_dir.file("there"), m_dir.file("hard"));
  }
  bool same(const std::string& a, const std::string& b) const { return same_file(m_dir.file(a), m_dir.file(b)); }
  TempDir m_dir;
};

TEST_F(SameFile, IsFoundByAnyPathAndLink) {
  EXPECT_TRUE(same("there", "there"));
  EXPECT_TRUE(same("there", "./there"));
  EXPECT_TRUE(same("there", "folder/../there"));
  EXPECT_TRUE(same("there", "link"));
  EXPECT_TRUE(same("hard", "link"));
  EXPECT_TRUE(same("new", "folder/../new"));
  EXPECT_TRUE(same("new", "dangling"));
  EXPECT_TRUE(same("new", "twice"));
  EXPECT_TRUE(same("folder/new", "other-folder/new"));
}

TEST_F(SameFile, IsNotFoundWhereTwoAreMeant) {
  EXPECT_FALSE(same("there", "new"));
  EXPECT_FALSE(same("new", "new2"));
  EXPECT_FALSE(same("new", "folder/new"));
  EXPECT_FALSE(same("there", "dangling"));
  EXPECT_FALSE(same_file("", ""));
}

TEST_F(SameFile, IsNamedByThePlacesOfTheOutputs) {
  const std::string movie = m_dir.file("new"), link = m_dir.file("dangling"), other = m_dir.file("c");
  const char* none[4] = {};
  const char* others[4] = {other.c_str(), "rtmp://host/a", link.c_str(), nullptr};
  EXPECT_EQ(MR::shared_file(movie.c_str(), "", none), "");
  EXPECT_EQ(MR::shared_file(movie.c_str(), link.c_str(), none), "the main output and the side index are one file");
  EXPECT_EQ(MR::shared_file(movie.c_str(), "", others), "the main output and further output 3 are one file");
  EXPECT_EQ(MR::shared_file("b", other.c_str(), others), "the side index and further output 1 are one file");
  const char* devices[4] = {"/dev/null", "/dev/null", "rtmp://host/a", "rtmp://host/a"};
  EXPECT_EQ(MR::shared_file("/dev/null", "", devices), "");
}

}  // namespace
