#include "media_source.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "failure.h"
#include "formats.h"
#include "meru/recording.h"
#include "y4m.h"

// The library's headers only declare it; a host without FFmpeg's headers completes it.
struct AVRational {
  int num;
  int den;
};

namespace meru_tool {

namespace {

constexpr int64_t kUsec = 1000000;
constexpr AVRational kUsecBase{1, 1000000};
constexpr size_t kSamplesPerPiece = 1024;
constexpr size_t kSoundBuffers = 16;
constexpr int kPrimingFrames = 64;
constexpr Size kTestSize{1280, 720};

int64_t frames_in(double seconds, const VideoShape& shape) {
  return std::max<int64_t>(1, std::llround(seconds * shape.fps_num / shape.fps_den));
}

int64_t frame_time(int64_t index, const VideoShape& shape) { return index * kUsec * shape.fps_den / shape.fps_num; }

int64_t samples_in(double seconds, int rate) { return std::max<int64_t>(1, std::llround(seconds * rate)); }

/// Pieces of a file or a pipe, the first of which can be waited for in advance.
class PieceSource : public MediaSource {
 public:
  explicit PieceSource(std::unique_ptr<PieceReader> reader) : m_reader(std::move(reader)) {}
  bool ready() override {
    if (m_fetched.data == nullptr) m_fetched = m_reader->next();
    return m_fetched.data != nullptr;
  }
  void stop() override { m_reader->stop(); }
  std::string trouble() const override { return m_reader->trouble(); }
  std::string name() const override { return m_reader->name(); }

 protected:
  bool fetch() {
    m_piece = m_fetched.data != nullptr ? std::exchange(m_fetched, Piece()) : m_reader->next();
    return m_piece.data != nullptr;
  }

  std::unique_ptr<PieceReader> m_reader;
  Piece m_piece;

 private:
  Piece m_fetched;  // got by ready(), not handed out yet
};

class ImageSource : public PieceSource {
 public:
  ImageSource(std::unique_ptr<PieceReader> reader, const VideoShape& shape, int linesize)
      : PieceSource(std::move(reader)), m_shape(shape), m_linesize(linesize) {}
  bool next(int64_t) override { return fetch(); }
  int64_t units() const override { return 1; }
  int64_t time_of(int64_t index) const override { return frame_time(index, m_shape); }
  int64_t units_in(double seconds) const override { return frames_in(seconds, m_shape); }
  int push(void* session) override {
    return MERU_write_video_bgra(session, m_piece.data, static_cast<int>(m_piece.size), time_of(m_index++), m_linesize);
  }

 private:
  VideoShape m_shape;
  int m_linesize;
  int64_t m_index = 0;  // images pushed
};

class PcmSource : public PieceSource {
 public:
  PcmSource(std::unique_ptr<PieceReader> reader, int rate, size_t sample_bytes)
      : PieceSource(std::move(reader)), m_rate(rate), m_sample_bytes(sample_bytes) {}
  bool next(int64_t room) override {
    if (!fetch()) return false;
    m_piece.size = std::min(m_piece.size, static_cast<size_t>(room) * m_sample_bytes);
    return true;
  }
  int64_t units() const override { return static_cast<int64_t>(m_piece.size / m_sample_bytes); }
  int64_t time_of(int64_t index) const override { return index * kUsec / m_rate; }
  int64_t units_in(double seconds) const override { return samples_in(seconds, m_rate); }
  int push(void* session) override {
    const int64_t stamp = time_of(m_index);
    m_index += units();
    return MERU_write_audio_pcm(session, m_piece.data, static_cast<int>(m_piece.size), stamp);
  }

 private:
  int m_rate;
  size_t m_sample_bytes;
  int64_t m_index = 0;  // samples pushed
};

class TestPicture : public MediaSource {
 public:
  explicit TestPicture(const VideoShape& shape) : m_shape(shape) {}
  bool next(int64_t) override { return true; }
  int64_t units() const override { return 1; }
  int64_t time_of(int64_t index) const override { return frame_time(index, m_shape); }
  int64_t units_in(double seconds) const override { return frames_in(seconds, m_shape); }
  bool endless() const override { return true; }
  int push(void* session) override {
    AVFrame* frame = MERU_generate_testing_vFrame(session, kUsecBase);
    if (frame == nullptr) throw Failure("the library gives no test picture");
    return MERU_write_video_frame(session, frame, kUsecBase);
  }

 private:
  VideoShape m_shape;
};

/// The test tone comes in frames whose length follows from the encoder's, which the interface does not tell.
class TestTone : public MediaSource {
 public:
  explicit TestTone(int rate) : m_rate(rate) {}
  bool next(int64_t) override { return true; }
  int64_t units() const override { return m_frame_samples; }
  int64_t time_of(int64_t index) const override { return index * kUsec / m_rate; }
  int64_t units_in(double seconds) const override { return samples_in(seconds, m_rate); }
  bool endless() const override { return true; }
  int64_t prime(void* session) override;
  int push(void* session) override {
    AVFrame* frame = MERU_generate_testing_aFrame(session, kUsecBase);
    if (frame == nullptr) throw Failure("the library gives no test tone");
    return MERU_write_audio_frame(session, frame, kUsecBase);
  }

 private:
  int m_rate;
  int64_t m_frame_samples = 0;
};

/// Pushes frames until two of the encoder's have come out: their distance is the length of one.
int64_t TestTone::prime(void* session) {
  MovieInfo info;
  MERU_get_mInfo(session, &info);
  long long first = -1;
  for (int pushed = 1; pushed <= kPrimingFrames; ++pushed) {
    push(session);
    const long long last = MERU_last_usec_pts(session);
    if (first >= 0 && last > first) {
      const int64_t encoded = std::llround(static_cast<double>(last - first) * info.sample_rate_dst / kUsec);
      m_frame_samples = (encoded * m_rate + info.sample_rate_dst - 1) / info.sample_rate_dst;
      return pushed * m_frame_samples;
    }
    if (last >= 0) first = last;
  }
  throw Failure("the audio encoder takes no samples");
}

std::unique_ptr<MediaSource> open_y4m(const std::string& path, VideoShape* shape) {
  auto source = std::make_unique<ByteSource>(path);
  *shape = read_y4m_header(source.get());
  const PixelFormat& format = pixel_format_of(shape->pix_fmt);
  PieceLayout layout;
  layout.bytes = layout.unit = format.image_bytes(shape->size.width, shape->size.height);
  layout.frame_lines = true;
  return std::make_unique<ImageSource>(open_images(std::move(source), layout), *shape,
                                       format.linesize(shape->size.width));
}

std::unique_ptr<MediaSource> open_raw_video(const RecordOptions& o, VideoShape* shape) {
  const PixelFormat& format = pixel_format("--pix-fmt", o.pix_fmt.empty() ? "bgra" : o.pix_fmt);
  shape->pix_fmt = format.value;
  PieceLayout layout;
  layout.bytes = layout.unit = format.image_bytes(shape->size.width, shape->size.height);
  return std::make_unique<ImageSource>(open_images(std::make_unique<ByteSource>(o.video_raw), layout), *shape,
                                       format.linesize(shape->size.width));
}

}  // namespace

std::unique_ptr<MediaSource> open_video(const RecordOptions& o, VideoShape* shape) {
  if (!o.wants_video()) return nullptr;
  if (!o.y4m.empty()) return open_y4m(o.y4m, shape);
  shape->fps_num = o.fps;
  shape->size = o.size.empty() ? kTestSize : parse_size("--size", o.size);
  if (!o.test_video()) return open_raw_video(o, shape);
  // The pattern is drawn in the encoder's size when it is drawn in the encoder's format.
  const bool scaled = !o.out_size.empty() && o.out_size != o.size;
  shape->pix_fmt = pixel_format("--pix-fmt", scaled ? "bgra" : "yuv420p").value;
  return std::make_unique<TestPicture>(*shape);
}

std::unique_ptr<MediaSource> open_audio(const RecordOptions& o) {
  if (!o.wants_audio()) return nullptr;
  if (o.test_audio()) return std::make_unique<TestTone>(o.rate);
  const size_t sample_bytes =
      static_cast<size_t>(o.channels) * static_cast<size_t>(sample_format("--sample-fmt", o.sample_fmt).bytes);
  PieceLayout layout;
  layout.bytes = kSamplesPerPiece * sample_bytes;
  layout.unit = sample_bytes;
  layout.what = "sample";
  auto reader = std::make_unique<BufferedPieces>(std::make_unique<ByteSource>(o.audio_raw), layout, kSoundBuffers);
  return std::make_unique<PcmSource>(std::move(reader), o.rate, sample_bytes);
}

}  // namespace meru_tool
