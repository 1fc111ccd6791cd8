// Recordings of raw media, of records valid and invalid, pushed to from two threads.
#include <climits>
#include <cstring>
#include <memory>
#include <thread>

#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"
#include "fuzz/session/capture_record.h"
#include "meru/recording.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace session_fuzz {

namespace {

constexpr AVRational kUsec{1, 1000000};
/// Keeps the video frames or drops some of them; the session deletes it, or nobody took it.
class VideoFilter : public FilterBase {
 public:
  VideoFilter(std::atomic<int>* alive, Dice dice) : m_alive(alive), m_dice(dice) { ++*m_alive; }
  ~VideoFilter() override { --*m_alive; }
  int on_audio_packet(AVPacket*) override { return 0; }
  AVFrame* on_video_frame(AVFrame* frame) override { return m_dice.one_in(200) ? nullptr : frame; }

 private:
  std::atomic<int>* m_alive;
  Dice m_dice;
};

class AudioFilter : public FilterBase {
 public:
  int on_audio_packet(AVPacket*) override { return 0; }
  AVFrame* on_video_frame(AVFrame* frame) override { return frame; }
};

bool converts(int format, int (*supported)(AVPixelFormat)) {
  return av_get_pix_fmt_name(static_cast<AVPixelFormat>(format)) != nullptr &&
         supported(static_cast<AVPixelFormat>(format)) > 0;
}

/// The timestamps of one track.
class Clock {
 public:
  Clock(Dice* dice, int64_t step) : m_dice(dice), m_step(step) {}
  /// @param bounded  not so far away that the time between would have to be filled with hours of silence
  int64_t next(bool bounded) {
    static constexpr int64_t kStrange[] = {LLONG_MIN, -1, 0, -(INT64_C(1) << 60)};
    switch (m_dice->below(16)) {
      case 0:
        return m_now;
      case 1:
        return m_now = std::max<int64_t>(m_now - m_dice->below(10) * m_step, 0);
      case 2:
        return m_now += m_dice->below(2000000);
      case 3:
        if (!bounded && m_begun && m_dice->one_in(4)) return m_dice->of(kStrange);
        [[fallthrough]];
      default:
        m_begun = true;  // the first timestamp says where time begins
        return m_now += m_step;
    }
  }

 private:
  Dice* m_dice;
  int64_t m_step;
  bool m_begun = false;
  int64_t m_now = MERU_current_sys_usec();
};

class VideoPusher {
 public:
  VideoPusher(void* session, const MovieInfo& info, Dice dice)
      : m_session(session), m_info(info), m_dice(dice), m_clock(&m_dice, 1000000 / 25) {
    const auto format = static_cast<AVPixelFormat>(info.pix_fmt_src);
    m_valid = converts(info.pix_fmt_src, &sws_isSupportedInput) && info.width_src > 0 && info.height_src > 0 &&
              info.width_src < 10000 && info.height_src < 10000;
    m_linesize = m_valid ? av_image_get_linesize(format, info.width_src, 0) : 256;
    // Exactly as large as a tight image of that format.
    const int size = m_valid ? av_image_get_buffer_size(format, info.width_src, info.height_src, 1) : 65536;
    m_image.resize(static_cast<size_t>(std::max(size, 1)), 77);
  }
  void run(int pushes) {
    for (int i = 0; i < pushes; ++i) push();
  }

 private:
  void push() {
    const int64_t pts = m_clock.next(false);
    switch (m_dice.below(12)) {
      case 0:
        return push_refused(pts);
      case 1:
        return push_frame(pts, m_dice.of(kPixelFormats), m_dice.between(1, 200), m_dice.between(1, 200));
      case 2:
      case 3:
        return push_frame(pts, m_info.pix_fmt_src, m_info.width_src, m_info.height_src);
      case 4:
        return push_test_frame(pts);
      default:
        m_image[static_cast<size_t>(m_dice.below(static_cast<int>(m_image.size())))] ^= 0x55;
        CALL(MERU_write_video_bgra, m_session, m_image.data(), static_cast<int>(m_image.size()), pts, m_linesize);
    }
  }
  void push_refused(int64_t pts) {
    static constexpr int kLineSizes[] = {0, -1, 1, INT_MIN};
    if (m_dice.one_in(2)) {
      CALL(MERU_write_video_bgra, m_session, nullptr, m_dice.between(-5, 5), pts, m_linesize);
    } else if (m_linesize > 1) {
      CALL(MERU_write_video_bgra, m_session, m_image.data(), -1, pts, m_dice.of(kLineSizes));
    }
  }
  void push_frame(int64_t pts, int format, int width, int height) {
    // The process ends where there is no conversion of a ready frame.
    if (!converts(format, &sws_isSupportedInput) || width < 1 || height < 1 || width > 4000 || height > 4000) return;
    const FramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->width = width;
    frame->height = height;
    const bool without_pixels = m_dice.one_in(10);
    if (!without_pixels) {
      if (av_frame_get_buffer(frame.get(), 0) < 0) return;
      for (size_t i = 0; i < 4 && frame->buf[i] != nullptr; ++i) memset(frame->buf[i]->data, 99, frame->buf[i]->size);
    }
    frame->pts = pts;
    CALL(MERU_write_video_frame, m_session, frame.get(), kUsec);
    CALL(MERU_write_video_frame, m_session, nullptr, kUsec);
  }
  void push_test_frame(int64_t pts) {
    // So it does where there is none to the format of the test picture.
    if (!m_valid || !converts(m_info.pix_fmt_src, &sws_isSupportedOutput) || m_info.width_src < 16 ||
        m_info.height_src < 16) {
      return;
    }
    AVFrame* frame = CALL(MERU_generate_testing_vFrame, m_session, kUsec);
    if (frame == nullptr) return;
    frame->pts = pts;
    CALL(MERU_write_video_frame, m_session, frame, kUsec);
  }

  void* m_session;
  const MovieInfo& m_info;
  Dice m_dice;
  Clock m_clock;
  bool m_valid = false;
  int m_linesize = 0;
  std::vector<uint8_t> m_image;
};

class AudioPusher {
 public:
  AudioPusher(void* session, const MovieInfo& info, Dice dice)
      : m_session(session), m_info(info), m_dice(dice), m_clock(&m_dice, 20000), m_pcm(size_t{1} << 16) {
    for (size_t i = 0; i < m_pcm.size(); ++i) m_pcm[i] = static_cast<uint8_t>(i * 37);
  }
  void run(int pushes) {
    for (int i = 0; i < pushes; ++i) push();
  }

 private:
  void push() {
    const int64_t pts = m_clock.next(true);
    switch (m_dice.below(10)) {
      case 0:
        CALL(MERU_write_audio_pcm, m_session, nullptr, m_dice.between(-5, 5), pts);
        break;
      case 1:
        push_frame(pts);
        break;
      case 2:
        if (AVFrame* frame = CALL(MERU_generate_testing_aFrame, m_session, kUsec); frame != nullptr) {
          frame->pts = pts;
          CALL(MERU_write_audio_frame, m_session, frame, kUsec);
        }
        break;
      case 3:
        CALL(MERU_write_audio_pcm, m_session, m_pcm.data(), m_dice.between(-10, 60000), pts);
        break;
      default:
        CALL(MERU_write_audio_pcm, m_session, m_pcm.data(), 3840, pts);
    }
  }
  void push_frame(int64_t pts) {
    static constexpr int kRates[] = {8000, 44100, 48000};
    const bool right = m_dice.one_in(2) && m_info.channels > 0 && m_info.channels <= 64 && m_info.sample_rate_src > 0;
    const FramePtr frame(av_frame_alloc());
    frame->format = right ? m_info.sample_fmt : m_dice.between(0, 9);
    frame->sample_rate = right ? m_info.sample_rate_src : m_dice.of(kRates);
    frame->nb_samples = m_dice.between(1, 3000);
    const int channels = right ? m_info.channels : m_dice.between(1, 8);
    const uint64_t layout = meru_compat::default_layout(channels);
    if (layout == 0 || av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame->format)) <= 0) return;
    meru_compat::set_layout(frame.get(), layout);
    if (av_frame_get_buffer(frame.get(), 0) < 0) return;
    for (const AVBufferRef* buffer : frame->buf) {
      if (buffer != nullptr) memset(buffer->data, 0, buffer->size);
    }
    frame->pts = pts;
    CALL(MERU_write_audio_frame, m_session, frame.get(), kUsec);
    CALL(MERU_write_audio_frame, m_session, nullptr, kUsec);
  }

  void* m_session;
  const MovieInfo& m_info;
  Dice m_dice;
  Clock m_clock;
  std::vector<uint8_t> m_pcm;
};

/// Read-outs, pauses and filters, while others push.
void meddle(void* session, AudioFilter* filter, Dice* dice, int times) {
  for (int i = 0; i < times; ++i) {
    MovieInfo info;
    switch (dice->below(9)) {
      case 0:
        CALL(MERU_pause, session);
        break;
      case 1:
      case 2:
        CALL(MERU_resume, session);
        break;
      case 3:
        CALL(MERU_movie_time, session);
        CALL(MERU_last_usec_pts, session);
        break;
      case 4:
        CALL(MERU_get_mInfo, session, &info);
        break;
      case 5:
        CALL(MERU_is_paused, session);
        break;
      case 6:
        CALL(MERU_add_audio_filter, session, dice->one_in(2) ? filter : nullptr);
        break;
      case 7:
        CALL(MERU_audio_dst_frame, session);
        CALL(MERU_video_dst_frame, session);
        break;
      default:
        std::this_thread::sleep_for(std::chrono::microseconds(dice->below(3000)));
    }
  }
  CALL(MERU_add_audio_filter, session, nullptr);
}

void push_all(void* session, const Record& record, Dice* dice) {
  AudioFilter audio_filter;
  std::atomic<int> alive{0};
  if (dice->one_in(4)) {
    auto* filter = new VideoFilter(&alive, dice->branch());
    const bool has_video = CALL(MERU_video_dst_frame, session) != nullptr;
    if (has_video) {
      CALL(MERU_add_video_filter, session, filter);
    } else {
      delete filter;
    }
    require(alive == (has_video ? 1 : 0), "a filter lives as long as its session");
  }
  const int most = dice->one_in(8) ? 120 : 25;
  Dice video_dice = dice->branch(), audio_dice = dice->branch();
  const int images = dice->below(most), sounds = dice->below(2 * most);
  std::thread video([&] { VideoPusher(session, record.info(), video_dice).run(images); });
  std::thread audio([&] { AudioPusher(session, record.info(), audio_dice).run(sounds); });
  meddle(session, &audio_filter, dice, dice->below(12));
  video.join();
  audio.join();
}

/// Waits until the start has been reported, for a while.
void await_report(const Told& told, Dice* dice) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(dice->one_in(8) ? 0 : 300);
  while (told.successes + told.failures == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
}

void stop(void** session, Told* told) {
  CALL(MERU_stop, session);
  told->stopped = true;
  require(*session == nullptr, "a stop clears the handle");
  CALL(MERU_stop, session);
}

/// Ends a session from inside its own callback, if one comes after it is known.
void stop_from_inside(void* session, Told* told) {
  told->stop_from_inside = session;
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  void* left = told->stop_from_inside.exchange(nullptr);
  if (left != nullptr) stop(&left, told);
}

void use_null_handle(Dice* dice) {
  char byte = 0;
  require(CALL(MERU_write_video_bgra, nullptr, &byte, 1, 0, 4) == 0, "a null handle takes nothing");
  require(CALL(MERU_write_audio_pcm, nullptr, &byte, 1, 0) == 0, "a null handle takes nothing");
  require(!CALL(MERU_pause, nullptr) && !CALL(MERU_resume, nullptr), "a null handle cannot be paused");
  require(CALL(MERU_movie_time, nullptr) == 0, "a null handle has recorded nothing");
  if (dice->one_in(2)) MERU_stop(nullptr);
}

}  // namespace

void record(Worker* worker) {
  Dice* dice = &worker->dice;
  const bool inside = dice->one_in(12);
  Told* told = new_told();
  const auto kept = std::make_shared<Record>(worker, inside);  // a stop from inside may need it a little longer
  told->keep = kept;
  const Record& record = *kept;
  MovieInfo out{};
  const bool async = inside || dice->one_in(2);
  count_start();
  void* session = CALL(MERU_start, record.info(), dice->one_in(20) ? nullptr : &Told::callback, told,
                       dice->one_in(2) ? &out : nullptr, async);
  require(session != nullptr, "there is memory for a session");
  if (inside) {
    stop_from_inside(session, told);
    return;
  }
  if (async && dice->one_in(3)) {
    std::this_thread::sleep_for(std::chrono::microseconds(dice->below(1500)));
  } else {
    await_report(*told, dice);
    push_all(session, record, dice);
  }
  stop(&session, told);
  if (record.info().snapshot_path[0] != '\0') {
    worker->folder->note_movie(record.info().url, record.info().snapshot_path);
  }
  if (dice->one_in(10)) use_null_handle(dice);
}

}  // namespace session_fuzz
