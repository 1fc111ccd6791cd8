// What a failed start, and a failed output, tell the host.

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <ostream>

#include "support/eventually.h"
#include "support/file_size_limit.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

struct FailureCase {
  const char* name;
  std::function<void(MovieInfo*, const TempDir&)> spoil;
  int code;
  const char* text;
};
void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.name; }

class FailedStartTest : public testing::TestWithParam<std::tuple<FailureCase, bool>> {};

TEST_P(FailedStartTest, ReachesTheCallbackOnceAndTheSessionCanBeStopped) {
  const auto& [c, async] = GetParam();
  const TempDir dir;
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  c.spoil(&info, dir);
  Host host(info, async);
  ASSERT_NE(host.session(), nullptr);
  ASSERT_TRUE(host.status().wait_for_code(c.code));
  MovieInfo effective;
  EXPECT_FALSE(MERU_get_mInfo(host.session(), &effective));
  EXPECT_STREQ(effective.url, info.url);
  EXPECT_EQ(host.push_scene(3, kUsecPerSec), 0);
  EXPECT_FALSE(MERU_pause(host.session()));
  EXPECT_EQ(MERU_video_dst_frame(host.session()), nullptr);
  EXPECT_EQ(MERU_last_usec_pts(host.session()), -1);
  host.stop();
  EXPECT_EQ(host.session(), nullptr);
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].text, c.text);
}

constexpr const char* kOpen = "Could not open url";
constexpr const char* kHeader = "error occurred when write header";

std::vector<FailureCase> failures() {
  return {
      {"UnknownFolder", [](MovieInfo* m, const TempDir& dir) { set_text(m->url, dir.file("no/movie.mp4")); },
       MERU_STATUS_OPEN_FAILED, kOpen},
      {"UrlIsAFolder", [](MovieInfo* m, const TempDir& dir) { set_text(m->url, dir.path()); }, MERU_STATUS_OPEN_FAILED,
       kOpen},
      {"EmptyUrl", [](MovieInfo* m, const TempDir&) { set_text(m->url, ""); }, MERU_STATUS_OPEN_FAILED, kOpen},
      {"NameTooLong", [](MovieInfo* m, const TempDir&) { set_text(m->url, std::string(511, 'x')); },
       MERU_STATUS_OPEN_FAILED, kOpen},
      {"NobodyListens", [](MovieInfo* m, const TempDir&) { set_text(m->url, "rtmp://127.0.0.1:1/live/key"); },
       MERU_STATUS_OPEN_FAILED, kOpen},
      {"MuxerOptionOutOfRange", [](MovieInfo* m, const TempDir&) { set_text(m->metadata, "moov_size:-1"); },
       MERU_STATUS_HEADER_FAILED, kHeader},
      {"NoStreams", [](MovieInfo* m, const TempDir&) { m->no_audio = m->no_video = true; }, MERU_STATUS_HEADER_FAILED,
       kHeader},
  };
}

INSTANTIATE_TEST_SUITE_P(All, FailedStartTest, testing::Combine(testing::ValuesIn(failures()), testing::Bool()),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param).name) +
                                  (std::get<1>(test.param) ? "Async" : "Inline");
                         });

TEST(FailedStartTest, WithoutACallbackNothingHappens) {
  const TempDir dir;
  const MovieInfo info = small_movie(dir.file("no/movie.mp4"));
  void* session = MERU_start(info, nullptr, nullptr, nullptr, false);
  ASSERT_NE(session, nullptr);
  MovieInfo effective;
  EXPECT_FALSE(MERU_get_mInfo(session, &effective));
  MERU_stop(&session);
  EXPECT_EQ(session, nullptr);
}

class SilentFailureTest : public testing::TestWithParam<bool> {};

TEST_P(SilentFailureTest, EncoderThatRefusesReportsNothing) {
  const TempDir dir;
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  info.width = info.width_src = 63;
  info.height = info.height_src = 47;
  LogCapture log;
  Host host(info, GetParam());
  ASSERT_TRUE(eventually([&] { return log.count(2, " ---- catch error --- : Unknow\\n") == 1; }));
  EXPECT_EQ(host.push_scene(3, kUsecPerSec), 0);
  EXPECT_FALSE(host.started());
  host.stop();
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 1; }));
  EXPECT_TRUE(host.status().entries().empty());
}
INSTANTIATE_TEST_SUITE_P(AsyncOrNot, SilentFailureTest, testing::Bool());

TEST(FullDiskTest, OutputThatFailsIsReportedOnce) {
  const TempDir dir;
  const MovieInfo info = small_movie(dir.file("movie.mkv"));
  Host host(info);
  ASSERT_TRUE(host.started());
  const FileSizeLimit limit(64 * 1024);
  EXPECT_EQ(host.push_scene(2000, kUsecPerSec), 2000);
  ASSERT_TRUE(host.status().wait_for([](const StatusLog::Entry& e) { return e.code < 0; }));
  host.stop();
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[1].code, -EFBIG);
  EXPECT_EQ(entries[1].text, "File too large");
}

TEST(FullDiskTest, DeviceThatTakesNothing) {
  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  std::filesystem::create_symlink("/dev/full", path);
  Host host(small_movie(path));
  if (host.started()) host.push_scene(500, kUsecPerSec);
  ASSERT_TRUE(host.status().wait_for([](const StatusLog::Entry& e) { return e.code != 0; }));
  host.stop();
  const auto entries = host.status().entries();
  EXPECT_TRUE(entries.back().code == -ENOSPC || entries.back().code == MERU_STATUS_HEADER_FAILED)
      << entries.back().code << " " << entries.back().text;
}

}  // namespace
}  // namespace meru_test
