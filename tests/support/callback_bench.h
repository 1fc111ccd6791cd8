#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "support/cut_recording.h"
#include "support/host.h"
#include "support/probe.h"
#include "support/raw_media.h"
#include "support/repair_host.h"
#include "support/temp_dir.h"

struct AVRational {
  int num, den;
};

namespace meru_test {

/// A filter that changes nothing.
class PassingFilter : public FilterBase {
 public:
  int on_audio_packet(AVPacket*) override { return 0; }
  AVFrame* on_video_frame(AVFrame* frame) override { return frame; }
};

/// What a callback knows of what calls it, and what it may do there.
struct Caller {
  void* recording = nullptr;
  void* packets = nullptr;
  void* repair = nullptr;
  bool takes = false;              ///< the recording, or the session of packets, takes what is pushed
  bool may_push_video = true;      ///< not inside a push of video
  bool may_push_audio = true;      ///< not inside a push of sound
  bool may_replace_filter = true;  ///< not inside the video filter
  bool may_pause = true;           ///< not while another thread pushes what is to be recorded
};

/// Calls the exported functions from inside a host's callback, one after the other: those with a handle on the session
/// that calls back and on another one, those that make something from its beginning to its end.
class CallbackBench {
 public:
  CallbackBench() {
    m_other.push_scene(5, kUsecPerSec);
    m_other_session = m_other.session();
  }

  /// All of them. Only the end of the calling session itself is not among them.
  void call_every_function(const Caller& caller) {
    call_what_may_be_called_anywhere(caller);
    for (const Caller& target : {caller, others()}) {
      push_images(target);
      push_packets(target);
      set_filters(target);
      make_test_frames(target);
    }
    record_another(false);
    record_another(true);
    remux_another();
    repair_another();
    ++m_complete;
  }
  /// What neither starts, pushes nor ends anything.
  void call_what_may_be_called_anywhere(const Caller& caller) {
    const std::lock_guard<std::mutex> one_at_a_time(m_mutex);  // or one would end the other's pause
    for (const Caller& target : {caller, others()}) {
      if (target.may_pause) pause(target);
      read_out(target);
    }
    use_the_log();
    ++m_short;
  }
  /// How often all functions have returned.
  int complete() const { return m_complete; }
  /// How often those that may be called anywhere have.
  int called_anywhere() const { return m_short; }

  void expect_others_whole() {
    m_other_session = nullptr;
    m_other.stop();
    EXPECT_EQ(decode_errors(m_other_path), "");
    for (const std::string& path : m_made) EXPECT_EQ(decode_errors(path), "") << path;
  }

 private:
  static constexpr AVRational kUsec{1, 1000000};

  Caller others() const {
    Caller other;
    other.recording = m_other_session;
    other.takes = true;
    return other;
  }
  std::string next_file(const char* extension) { return m_dir.file(std::to_string(m_files++) + "." + extension); }
  long long next_stamp() { return 10 * kUsecPerSec + m_stamps++ * 40000; }

  void pause(const Caller& on) {
    SCOPED_TRACE("pause");
    const bool paused = MERU_pause(on.recording);
    EXPECT_EQ(MERU_is_paused(on.recording), paused);
    EXPECT_EQ(MERU_resume(on.recording), paused);
    if (on.takes && on.recording != nullptr) {
      EXPECT_TRUE(paused);
    }
  }
  void read_out(const Caller& on) {
    SCOPED_TRACE("read-outs");
    MovieInfo info{};
    const bool started = MERU_get_mInfo(on.recording, &info);
    if (on.takes && on.recording != nullptr) {
      EXPECT_TRUE(started);
    }
    EXPECT_GE(MERU_movie_time(on.recording), 0);
    MERU_last_usec_pts(on.recording);
    MERU_audio_dst_frame(on.recording);
    MERU_video_dst_frame(on.recording);
    EXPECT_GT(MERU_current_sys_usec(), 0);
    MERU_Repair_IsRunning(on.repair);
  }
  void use_the_log() {
    SCOPED_TRACE("log");
    MERU_Log_Level(2);
    MERU_Log_On(m_log_file.c_str());
    MERU_Log_Off();
    MERU_Log_On2(stderr);
    nuv::Logger::instance()->write("host", 2, __FILE__, __LINE__, "%s\n", "from a callback");
    EXPECT_NE(nuv::Logger::now("%Y"), nullptr);
  }
  void push_images(const Caller& on) {
    SCOPED_TRACE("pushing");
    std::vector<uint8_t> image = moving_image(64, 48, m_stamps);
    std::vector<int16_t> pcm(2 * 4096, 100);
    const int nbytes = static_cast<int>(image.size());
    if (on.may_push_video) {
      const int taken = MERU_write_video_bgra(on.recording, image.data(), nbytes, next_stamp(), 64 * 4);
      EXPECT_TRUE(taken != 0 || !on.takes || on.recording == nullptr);
    }
    if (on.may_push_audio) {
      const int bytes = static_cast<int>(pcm.size() * sizeof(int16_t));
      const int taken = MERU_write_audio_pcm(on.recording, pcm.data(), bytes, next_stamp());
      EXPECT_TRUE(taken != 0 || !on.takes || on.recording == nullptr);
    }
  }
  void push_packets(const Caller& on) {
    SCOPED_TRACE("packets");
    std::string packet = m_video.packets[0].data;
    const int size = static_cast<int>(packet.size());
    EXPECT_EQ(MERU2_write_video_packet(on.packets, packet.data(), size, 0), on.packets != nullptr);
    EXPECT_EQ(MERU2_write_audio_packet(on.packets, nullptr, 0, 0), on.packets != nullptr);
  }
  void set_filters(const Caller& on) {
    SCOPED_TRACE("filters");
    EXPECT_EQ(MERU_add_audio_filter(on.recording, nullptr), on.recording != nullptr);
    if (on.may_replace_filter) {
      EXPECT_EQ(MERU_add_video_filter(on.recording, nullptr), on.recording != nullptr);
    }
    // A session that has not begun would not take it.
    if (on.recording == m_other.session()) MERU_add_video_filter(on.recording, new PassingFilter);
  }
  void make_test_frames(const Caller& on) {
    SCOPED_TRACE("test pattern");
    AVFrame* video = MERU_generate_testing_vFrame(on.recording, kUsec);
    if (on.may_push_video) MERU_write_video_frame(on.recording, video, kUsec);
    AVFrame* audio = MERU_generate_testing_aFrame(on.recording, kUsec);
    if (on.may_push_audio) MERU_write_audio_frame(on.recording, audio, kUsec);
  }
  void record_another(bool async) {
    SCOPED_TRACE("another recording");
    m_made.push_back(next_file("mp4"));
    Host host(small_movie(m_made.back()), async);
    EXPECT_TRUE(host.status().wait_for_code(0));
    EXPECT_EQ(host.push_scene(3, kUsecPerSec), 3);
    host.stop();
  }
  void remux_another() {
    SCOPED_TRACE("another session of packets");
    m_made.push_back(next_file("mkv"));
    PacketHost host(raw_movie(m_made.back(), true, false));
    host.push(m_video.packets, {});
    host.stop();
    EXPECT_TRUE(host.status().wait_for_code(0));
  }
  void repair_another() {
    SCOPED_TRACE("another repair");
    m_made.push_back(next_file("mp4"));
    RepairLog log;
    EXPECT_TRUE(MERU_StartRepair_sync(m_cut.broken.c_str(), m_cut.index.c_str(), m_made.back().c_str(),
                                      &RepairLog::callback, &log));
    m_made.push_back(next_file("mp4"));
    void* repair = MERU_StartRepair_Async(m_cut.broken.c_str(), m_cut.index.c_str(), m_made.back().c_str(),
                                          &RepairLog::callback, &log);
    EXPECT_TRUE(eventually([&] { return !MERU_Repair_IsRunning(repair); }));
    MERU_StopRepair(&repair);
    EXPECT_EQ(repair, nullptr);
  }

  const TempDir m_dir{TempDir::fast_parent()};
  const std::string m_log_file = m_dir.file("log.txt");
  const std::string m_other_path = m_dir.file("other.mp4");
  const RawVideo m_video = make_video(m_dir, {30});
  std::atomic<int> m_complete{0}, m_short{0};
  std::atomic<int> m_stamps{0};
  std::mutex m_mutex;
  int m_files = 0;
  std::vector<std::string> m_made;
  Host m_other{small_movie(m_other_path)};
  std::atomic<void*> m_other_session{nullptr};

 public:
  const CutRecording m_cut{{"Movie", "mp4", false, false}};
};

}  // namespace meru_test
