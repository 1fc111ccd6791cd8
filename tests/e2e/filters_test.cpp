// A host's filters: when they are asked, and who owns them.

#include <gtest/gtest.h>

#include <atomic>

#include "support/host.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

/// What filters did. Outlives them.
struct Counts {
  std::atomic<int> packets{0};
  std::atomic<int> images{0};
  std::atomic<int> deleted{0};
};

class CountingFilter : public FilterBase {
 public:
  /// @param null_on  the image for which null is returned, counted from 1; 0 for none
  explicit CountingFilter(Counts* counts, int null_on = 0) : m_counts(counts), m_null_on(null_on) {}
  ~CountingFilter() override { ++m_counts->deleted; }

  int on_audio_packet(AVPacket* packet) override {
    EXPECT_NE(packet, nullptr);
    ++m_counts->packets;
    return -1;
  }
  AVFrame* on_video_frame(AVFrame* frame) override {
    EXPECT_NE(frame, nullptr);
    return ++m_counts->images == m_null_on ? nullptr : frame;
  }

 private:
  Counts* m_counts;
  int m_null_on;
};

TEST(AudioFilterTest, SeesEveryPacketAndStaysTheHosts) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  Counts counts;
  {
    CountingFilter filter(&counts);
    Host host(small_movie(path));
    ASSERT_TRUE(host.started());
    EXPECT_TRUE(MERU_add_audio_filter(host.session(), &filter));
    host.push_scene(25, kUsecPerSec);
    host.stop();
    EXPECT_EQ(counts.deleted, 0);
  }
  EXPECT_EQ(counts.deleted, 1);
  EXPECT_EQ(counts.images, 0);
  EXPECT_EQ(static_cast<size_t>(counts.packets), probe_packets(path, "a:0").size());
}

TEST(VideoFilterTest, SeesEveryImageAndIsDeletedWithTheSession) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  Counts counts;
  Host host(small_movie(path));
  ASSERT_TRUE(host.started());
  EXPECT_TRUE(MERU_add_video_filter(host.session(), new CountingFilter(&counts)));
  EXPECT_EQ(host.push_scene(25, kUsecPerSec), 25);
  // An image whose stamp does not rise is left out before the filter.
  host.push_image(kUsecPerSec);
  EXPECT_EQ(counts.images, 25);
  EXPECT_EQ(counts.deleted, 0);
  host.stop();
  EXPECT_EQ(counts.deleted, 1);
  EXPECT_EQ(counts.packets, 0);
  EXPECT_EQ(count_frames(path), 25);
}

TEST(VideoFilterTest, AnEarlierOneIsDeletedAtOnce) {
  const TempDir dir;
  Counts first, second;
  Host host(small_movie(dir.file("movie.mp4")));
  ASSERT_TRUE(host.started());
  EXPECT_TRUE(MERU_add_video_filter(host.session(), new CountingFilter(&first)));
  host.push_image(kUsecPerSec);
  EXPECT_TRUE(MERU_add_video_filter(host.session(), new CountingFilter(&second)));
  EXPECT_EQ(first.deleted, 1);
  host.push_image(kUsecPerSec + 40000);
  EXPECT_TRUE(MERU_add_video_filter(host.session(), nullptr));
  EXPECT_EQ(second.deleted, 1);
  host.push_image(kUsecPerSec + 80000);
  EXPECT_EQ(first.images, 1);
  EXPECT_EQ(second.images, 1);
}

TEST(VideoFilterTest, NullDrainsTheEncoder) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  Counts counts;
  LogCapture log;
  MovieInfo info = small_movie(path);
  info.no_audio = true;
  Host host(info);
  ASSERT_TRUE(host.started());
  EXPECT_TRUE(MERU_add_video_filter(host.session(), new CountingFilter(&counts, 10)));
  for (int i = 0; i < 9; ++i) EXPECT_NE(host.push_image(kUsecPerSec + i * 40000), 0);
  EXPECT_EQ(log.count(2, "NULL ------------> flush video encoder"), 0);
  EXPECT_NE(host.push_image(kUsecPerSec + 9 * 40000), 0);
  EXPECT_EQ(log.count(2, "NULL ------------> flush video encoder"), 1);
  // A drained encoder takes nothing more; what came before is in the movie.
  for (int i = 10; i < 15; ++i) host.push_image(kUsecPerSec + i * 40000);
  host.stop();
  EXPECT_EQ(counts.deleted, 1);
  EXPECT_EQ(decode_errors(path), "");
  EXPECT_EQ(count_frames(path), 9);
}

TEST(FilterTest, BeforeTheStartIsConfirmedItStaysTheHosts) {
  const TempDir dir;
  Counts counts;
  {
    CountingFilter filter(&counts);
    Host host(small_movie(dir.file("no/movie.mp4")));
    EXPECT_TRUE(MERU_add_video_filter(host.session(), &filter));
    EXPECT_TRUE(MERU_add_audio_filter(host.session(), &filter));
    host.stop();
    EXPECT_EQ(counts.deleted, 0);
  }
  EXPECT_EQ(counts.deleted, 1);
}

TEST(FilterTest, WithoutTheStreamItStaysTheHosts) {
  const TempDir dir;
  Counts counts;
  MovieInfo info = small_movie(dir.file("movie.mp4"));
  info.no_video = true;
  {
    CountingFilter filter(&counts);
    Host host(info);
    ASSERT_TRUE(host.started());
    EXPECT_TRUE(MERU_add_video_filter(host.session(), &filter));
    host.push_scene(5, kUsecPerSec);
    host.stop();
    EXPECT_EQ(counts.deleted, 0);
  }
  EXPECT_EQ(counts.deleted, 1);
}

}  // namespace
}  // namespace meru_test
