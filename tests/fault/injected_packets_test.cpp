// A session of packets in which one call of the system fails, each one in turn.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/injected_faults.h"
#include "support/raw_media.h"

namespace meru_test {
namespace {

class InjectedPacketsTest : public InjectedFaults {
 protected:
  void prepare() override {
    VideoChoice choice;
    choice.images = 12;
    choice.size = "64x48";
    m_video = make_video(m_sources, choice).packets;
    m_audio = make_audio(m_sources, 0.4).packets;
    make_with_ffmpeg("-f lavfi -i testsrc2=s=64x48:r=25 -frames:v 3 -c:v libx264 " + quoted(file("earlier.mp4")));
    protect(file("earlier.mp4"));
    m_info = raw_movie(file("movie.mp4"));
    set_text(m_info.snapshot_path, file("movie.index"));
    m_info.other_urls[0] = m_further.c_str();
  }
  void begin() override {
    for (const char* name : {"movie.mp4", "further.mov", "movie.index"}) std::filesystem::remove(file(name));
  }
  void scenario(HostNotes* notes) override {
    void* session = MERU2_start(m_info, &HostNotes::on_status, notes);
    notes->returned = session != nullptr;
    for (size_t i = 0; i < std::max(m_video.size(), m_audio.size()); ++i) {
      if (i < m_video.size()) push(&MERU2_write_video_packet, session, &m_video[i]);
      if (i < m_audio.size()) push(&MERU2_write_audio_packet, session, &m_audio[i]);
    }
    MERU2_stop(&session);
  }

  void expect_documented(const HostNotes& notes) override {
    const std::vector<int> codes = notes.all_codes();
    if (!notes.returned) {
      EXPECT_EQ(GetParam(), Fault::kMemory);
      EXPECT_TRUE(codes.empty());
      return;
    }
    ASSERT_FALSE(codes.empty());
    ASSERT_LE(codes.size(), 2U);
    EXPECT_LE(codes[0], 0);
    EXPECT_LE(codes.back(), 0);
    if (codes.size() == 1 && codes[0] == MERU_STATUS_OK) expect_success(file("movie.mp4"));
    if (codes.back() == MERU_STATUS_OK && !logged("further output 1 ")) expect_success(file("further.mov"));
  }

 private:
  using Write = bool (*)(void*, void*, int, long long);

  static void push(Write write, void* session, RawPacket* packet) {
    write(session, packet->data.data(), static_cast<int>(packet->data.size()), packet->pts);
  }

  TempDir m_sources;
  RawPackets m_video, m_audio;
  MovieInfo2 m_info{};
  const std::string m_further = file("further.mov");
};

TEST_P(InjectedPacketsTest, EndsAsDocumented) { run_all(); }

INSTANTIATE_TEST_SUITE_P(Each, InjectedPacketsTest,
                         testing::Values(Fault::kOpen, Fault::kWrite, Fault::kSeek, Fault::kThread, Fault::kMemory),
                         FaultName());

}  // namespace
}  // namespace meru_test
