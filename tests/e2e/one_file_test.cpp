// Two outputs of a session that are one file: the start is refused with a code and a text, and the file stays as it is.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>

#include "support/host.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

namespace fs = std::filesystem;

/// Two names in a folder in which "there" is a file.
struct Names {
  const char* label;
  const char* movie;
  const char* other;
};
void PrintTo(const Names& names, std::ostream* out) { *out << names.label; }

constexpr char kContent[] = "what the user had there";

class OneFile : public testing::TestWithParam<Names> {
 protected:
  OneFile() {
    std::ofstream(m_dir.file("there.mp4")) << kContent;
    fs::create_symlink("there.mp4", m_dir.file("link.mp4"));
    fs::create_symlink("new.mp4", m_dir.file("dangling.mp4"));
    fs::create_hard_link(m_dir.file("there.mp4"), m_dir.file("hard.mp4"));
    fs::create_directory(m_dir.file("folder"));
  }
  ~OneFile() override {
    std::string content;
    std::getline(std::ifstream(m_dir.file("there.mp4")), content);
    EXPECT_EQ(content, kContent);
    EXPECT_FALSE(fs::exists(m_dir.file("new.mp4")));
  }
  std::string movie() const { return m_dir.file(GetParam().movie); }
  std::string other() const { return m_dir.file(GetParam().other); }

  static void expect_refused(const MovieInfo& info, const std::string& text) {
    Host host(info);
    EXPECT_FALSE(host.started());
    const auto entries = host.status().entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].code, MERU_STATUS_BAD_RECORD);
    EXPECT_EQ(entries[0].text, text);
    EXPECT_EQ(host.push_image(0), 0);
  }
  TempDir m_dir;
};

TEST_P(OneFile, AsMovieAndIndex) {
  MovieInfo info = small_movie(movie());
  set_text(info.snapshot_path, other());
  expect_refused(info, "the main output and the side index are one file");
}

TEST_P(OneFile, AsMovieAndAdditionalOutput) {
  MovieInfo info = small_movie(movie());
  const std::string first = m_dir.file("first.mkv"), second = other();
  info.other_urls[0] = first.c_str();
  info.other_urls[1] = second.c_str();
  expect_refused(info, "the main output and further output 2 are one file");
  EXPECT_FALSE(fs::exists(first));
}

TEST_P(OneFile, AsIndexAndAdditionalOutput) {
  MovieInfo info = small_movie(m_dir.file("main.mp4"));
  const std::string url = "file:" + other();
  set_text(info.snapshot_path, movie());
  info.other_urls[0] = url.c_str();
  expect_refused(info, "the side index and further output 1 are one file");
  EXPECT_FALSE(fs::exists(m_dir.file("main.mp4")));
}

TEST_P(OneFile, OfPackets) {
  MovieInfo2 info = raw_movie(movie());
  set_text(info.snapshot_path, other());
  PacketHost host(info);
  ASSERT_TRUE(host.status().wait_for([](const StatusLog::Entry& entry) { return entry.code != 0; }));
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].code, -22);
  EXPECT_EQ(entries[0].text, "the main output and the side index are one file");
}

INSTANTIATE_TEST_SUITE_P(
    Names, OneFile,
    testing::Values(Names{"Same", "new.mp4", "new.mp4"}, Names{"Exists", "there.mp4", "there.mp4"},
                    Names{"Dot", "new.mp4", "./new.mp4"}, Names{"ThroughAFolder", "new.mp4", "folder/../new.mp4"},
                    Names{"Link", "there.mp4", "link.mp4"}, Names{"HardLink", "hard.mp4", "there.mp4"},
                    Names{"TwoLinks", "link.mp4", "hard.mp4"}, Names{"DanglingLink", "dangling.mp4", "new.mp4"}),
    [](const auto& test) { return std::string(test.param.label); });

TEST(DifferentFilesTest, ThatAreNoFilesAreNotRefused) {
  MovieInfo info = small_movie("/dev/null");
  info.other_urls[0] = "/dev/null";
  Host host(info);
  EXPECT_TRUE(host.started());
}

}  // namespace
}  // namespace meru_test
