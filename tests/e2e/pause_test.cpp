// Pauses, silence, and what fixes time 0.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <random>
#include <thread>

#include "support/eventually.h"
#include "support/host.h"
#include "support/probe.h"
#include "support/resident_memory.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr int kPieceSamples = 480;
constexpr long long kPieceUsec = 10000;

/// A pause lasts as long as the library's clock says, so these tests let real time pass.
void wait_until(long long usec) {
  eventually([usec] { return MERU_current_sys_usec() >= usec; });
}

/// A camera: stamps on the library's clock; white from a given moment on, black before.
void push_shot(void* session, const MovieInfo& info, long long at, long long white_from) {
  std::vector<uint8_t> image(static_cast<size_t>(info.width_src * info.height_src * 4), at >= white_from ? 255 : 0);
  MERU_write_video_bgra(session, image.data(), static_cast<int>(image.size()), at, info.width_src * 4);
}

/// A microphone: hands over the 10 ms from `at` on; loud from a given moment on, silent before.
void push_piece(void* session, long long at, long long loud_from) {
  std::vector<int16_t> pcm(2 * kPieceSamples);
  for (size_t i = 0; i < pcm.size(); ++i) {
    const long long sample_at = at + static_cast<long long>(i / 2) * kUsecPerSec / 48000;
    pcm[i] = static_cast<int16_t>(sample_at < loud_from ? 0 : i / 2 % 48 < 24 ? 16000 : -16000);
  }
  MERU_write_audio_pcm(session, pcm.data(), static_cast<int>(pcm.size() * sizeof(int16_t)), at);
}

double largest_gap(const std::vector<ProbedPacket>& packets) {
  double gap = 0;
  for (size_t i = 1; i < packets.size(); ++i) gap = std::max(gap, packets[i].pts - packets[i - 1].pts);
  return gap;
}

/// Time of the first loud sample of the movie, in seconds of the sound.
double first_loud(const std::string& path, double rate) {
  const std::vector<int16_t> sound = decoded_sound(path);
  const auto loud = std::find_if(sound.begin(), sound.end(), [](int16_t s) { return std::abs(s) > 6000; });
  return loud == sound.end() ? -1 : static_cast<double>(loud - sound.begin()) / rate;
}

/// Time of the first white picture.
double first_white(const std::string& path, const MovieInfo& info) {
  const auto pictures = decoded(path, "-map 0:v " + every_picture() + " -pix_fmt gray -f rawvideo");
  const auto packets = probe_packets(path, "v:0");
  const size_t size = static_cast<size_t>(info.width * info.height);
  for (size_t i = 0; i < packets.size() && (i + 1) * size <= pictures.size(); ++i) {
    if (static_cast<uint8_t>(pictures[i * size + size / 2]) > 128) return packets[i].pts;
  }
  return -1;
}

TEST(PauseTest, TwoSecondsLeaveNoGap) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  MovieInfo info = small_movie(path);
  info.no_audio = true;
  Host host(info);
  ASSERT_TRUE(host.started());
  const long long frame = kUsecPerSec / info.fps;
  const auto shoot = [&](int images) {
    const long long from = MERU_current_sys_usec();
    for (int i = 0; i < images; ++i) {
      wait_until(from + i * frame);
      EXPECT_NE(host.push_image(from + i * frame), 0);
    }
    return from;
  };
  const long long last_stamp = shoot(12) + 11 * frame;
  EXPECT_FALSE(MERU_is_paused(host.session()));
  EXPECT_TRUE(MERU_pause(host.session()));
  EXPECT_TRUE(MERU_is_paused(host.session()));
  const long long paused = MERU_current_sys_usec();
  EXPECT_EQ(host.push_image(paused), 0);
  wait_until(paused + 2 * kUsecPerSec);
  EXPECT_EQ(host.push_image(MERU_current_sys_usec()), 0);
  const long long resumed = MERU_current_sys_usec();
  EXPECT_TRUE(MERU_resume(host.session()));
  EXPECT_FALSE(MERU_is_paused(host.session()));
  EXPECT_FALSE(MERU_resume(host.session()));
  const long long first_stamp = shoot(12);
  const long long movie_time = MERU_movie_time(host.session());
  host.stop();

  const auto packets = probe_packets(path, "v:0");
  ASSERT_GE(packets.size(), 22U);
  // What this host itself lost around the pause: about a millisecond, more on a busy machine.
  const double lost = static_cast<double>(paused - last_stamp + first_stamp - resumed) / kUsecPerSec;
  EXPECT_LE(largest_gap(packets), 1.0 / info.fps + lost + 0.001);
  EXPECT_NEAR(static_cast<double>(movie_time) / kUsecPerSec, 22.0 / info.fps + lost, 1.0 / info.fps);
  EXPECT_NEAR(packets.back().pts, static_cast<double>(movie_time) / kUsecPerSec, 1.0 / info.fps);
  EXPECT_EQ(decode_errors(path), "");
}

TEST(PauseTest, FiftyPausesKeepSoundAndPictureInStep) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  MovieInfo info = small_movie(path);
  info.fps = 50;
  Host host(info);
  ASSERT_TRUE(host.started());
  void* const session = host.session();
  const long long begin = MERU_current_sys_usec();
  std::atomic<long long> marker{INT64_MAX};
  std::atomic<long long> end{INT64_MAX};
  std::thread camera([&] {
    for (long long at = begin; at < end; at += kUsecPerSec / info.fps) {
      wait_until(at);
      push_shot(session, info, at, marker);
    }
  });
  std::thread microphone([&] {
    for (long long at = begin; at < end; at += kPieceUsec) {
      wait_until(at + kPieceUsec);
      push_piece(session, at, marker);
    }
  });
  std::mt19937 random(7);
  std::uniform_int_distribution<int> pieces(2, 7);
  for (int i = 0; i < 50; ++i) {
    // From just before a piece arrives to just after another one does: each pause costs the sound some milliseconds
    // more than the picture, and the fifty of them a quarter of a second.
    const long long boundary = (MERU_current_sys_usec() + 40000 - begin) / kPieceUsec * kPieceUsec + begin;
    wait_until(boundary - 2500);
    EXPECT_TRUE(MERU_pause(session));
    wait_until(boundary + pieces(random) * kPieceUsec + 3000);
    EXPECT_TRUE(MERU_resume(session));
  }
  // At the stamp of an image, so that what is measured is not how far it lies behind the moment.
  const long long step = kUsecPerSec / info.fps;
  const long long marked = begin + ((MERU_current_sys_usec() + 200000 - begin) / step + 1) * step;
  marker = marked;
  // By the stamps, so that both end together even when the machine lets one of them fall behind.
  end = marked + 400000;
  camera.join();
  microphone.join();
  host.stop();

  EXPECT_EQ(decode_errors(path), "");
  const double frame = 1.0 / info.fps;
  const auto video = probe_packets(path, "v:0");
  const auto audio = probe_packets(path, "a:0");
  EXPECT_NEAR(video.back().pts + frame, audio.back().pts + audio.back().duration, frame + 1024.0 / 48000);
  const double loud = first_loud(path, 48000);
  const double white = first_white(path, info);
  ASSERT_GT(loud, 1);
  ASSERT_GT(white, 1);
  EXPECT_NEAR(loud, white, frame);
}

TEST(SilenceTest, NullBufferLeavesNoGap) {
  const TempDir dir;
  const std::string path = dir.file("movie.mp4");
  MovieInfo info = small_movie(path);
  info.no_video = true;
  Host host(info);
  ASSERT_TRUE(host.started());
  const long long start = 3 * kUsecPerSec;
  const auto talk = [&](long long from, long long to) {
    for (long long at = from; at < to; at += kPieceUsec) push_piece(host.session(), start + at, 0);
  };
  talk(0, 500000);
  EXPECT_NE(MERU_write_audio_pcm(host.session(), nullptr, 0, start + 1500000), 0);
  talk(1500000, 2000000);
  host.stop();

  const auto packets = probe_packets(path, "a:0");
  ASSERT_GT(packets.size(), 90U);
  for (size_t i = 1; i < packets.size(); ++i) {
    EXPECT_NEAR(packets[i].pts - packets[i - 1].pts, 1024.0 / 48000, 1e-4) << i;
  }
  const std::vector<int16_t> sound = decoded_sound(path);
  // The silence begins at the stamp of the last piece, so that piece's 10 ms count twice.
  EXPECT_NEAR(static_cast<double>(sound.size()) / 48000, 2.01, 2 * 1024.0 / 48000);
  const auto loudest = [&](double from, double to) {
    int peak = 0;
    for (auto i = static_cast<size_t>(from * 48000); i < static_cast<size_t>(to * 48000); ++i) {
      peak = std::max(peak, std::abs(static_cast<int>(sound[i])));
    }
    return peak;
  };
  EXPECT_GT(loudest(0.1, 0.4), 8000);
  EXPECT_LT(loudest(0.6, 1.4), 100);
  EXPECT_GT(loudest(1.6, 1.9), 8000);
}

TEST(SilenceTest, HalfAnHourCostsNoMemory) {
  const TempDir dir;
  const std::string path = dir.file("movie.mkv");
  MovieInfo info = small_movie(path);
  info.no_video = true;
  info.sample_rate_src = info.sample_rate_dst = 8000;
  Host host(info);
  ASSERT_TRUE(host.started());
  host.push_samples(80, kUsecPerSec);
  const long before = resident_kib();
  EXPECT_NE(MERU_write_audio_pcm(host.session(), nullptr, 0, 1801 * kUsecPerSec), 0);
  if (!kSanitized) {
    EXPECT_LT(resident_kib() - before, 16 * 1024);
  }
  host.stop();
  const auto audio = probe_packets(path, "a:0");
  EXPECT_NEAR(audio.back().pts + audio.back().duration, 1800, 0.3);
}

TEST(TimeZeroTest, IsTheFirstFrameEvenWhenItIsDropped) {
  const TempDir dir;
  const std::string pipe = dir.file("movie.mkv");
  const std::string path = dir.file("received.mkv");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  MovieInfo info = small_movie(pipe);
  info.no_audio = true;
  Host host(info, true);
  // Nobody reads from the pipe yet, so its opening blocks and the start is not confirmed.
  EXPECT_EQ(host.push_image(5 * kUsecPerSec), 0);
  EXPECT_TRUE(host.status().entries().empty());
  std::thread reader([&] { run_command("cat " + quoted(pipe) + " > " + quoted(path)); });
  EXPECT_TRUE(host.status().wait_for_code(0));
  for (int i = 0; i < 10; ++i) EXPECT_NE(host.push_image(6 * kUsecPerSec + i * kUsecPerSec / info.fps), 0);
  EXPECT_EQ(MERU_movie_time(host.session()), kUsecPerSec + 9 * kUsecPerSec / info.fps);
  host.stop();
  reader.join();
  const auto packets = probe_packets(path, "v:0");
  ASSERT_EQ(packets.size(), 10U);
  EXPECT_NEAR(packets.front().pts, 1.0, 0.001);
  EXPECT_EQ(decode_errors(path), "");
}

}  // namespace
}  // namespace meru_test
