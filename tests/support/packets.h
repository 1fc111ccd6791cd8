#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace meru_test {

constexpr AVRational kVideoTimeBase{1, 25};
constexpr AVRational kAudioTimeBase{1, 48000};
constexpr int kVideoStream = 0;
constexpr int kAudioStream = 1;

/// A reference-counted packet of `size` bytes. The counter, when given, is raised when its data are freed.
inline AVPacket make_packet(int stream, int64_t pts, int size = 100, std::atomic<int>* freed = nullptr) {
  AVPacket packet;
  meru_compat::init_packet(&packet);
  auto* data = static_cast<uint8_t*>(av_mallocz(static_cast<size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE));
  const auto release = [](void* counter, uint8_t* block) {
    av_free(block);
    if (counter != nullptr) ++*static_cast<std::atomic<int>*>(counter);
  };
  packet.buf = av_buffer_create(data, static_cast<size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE, release, freed, 0);
  packet.data = data;
  packet.size = size;
  packet.stream_index = stream;
  packet.pts = packet.dts = pts;
  packet.duration = stream == kVideoStream ? 1 : 25;
  packet.flags = AV_PKT_FLAG_KEY;
  return packet;
}

enum class Streams { kVideo, kVideoAndAudio };

/// An output context with streams whose packets may hold anything, and its I/O open when `url` is given.
class TestOutput {
 public:
  TestOutput(const char* format, const std::string& url, Streams streams = Streams::kVideo) {
    avformat_alloc_output_context2(&m_ctx, nullptr, format, url.c_str());
    AVCodecParameters* video = avformat_new_stream(m_ctx, nullptr)->codecpar;
    video->codec_type = AVMEDIA_TYPE_VIDEO;
    video->codec_id = AV_CODEC_ID_FFV1;
    video->width = 64;
    video->height = 48;
    video->format = AV_PIX_FMT_YUV420P;
    m_ctx->streams[0]->time_base = kVideoTimeBase;
    m_ctx->streams[0]->avg_frame_rate = av_inv_q(kVideoTimeBase);
    if (streams == Streams::kVideoAndAudio) add_audio();
    if (!url.empty()) avio_open(&m_ctx->pb, url.c_str(), AVIO_FLAG_WRITE);
  }
  ~TestOutput() { close(); }
  TestOutput(const TestOutput&) = delete;
  TestOutput& operator=(const TestOutput&) = delete;

  AVFormatContext* get() const { return m_ctx; }
  /// Writes out what is buffered and frees everything.
  void close() {
    if (m_ctx == nullptr) return;
    avio_closep(&m_ctx->pb);
    avformat_free_context(m_ctx);
    m_ctx = nullptr;
  }

 private:
  void add_audio() {
    AVStream* st = avformat_new_stream(m_ctx, nullptr);
    AVCodecParameters* par = st->codecpar;
    par->codec_type = AVMEDIA_TYPE_AUDIO;
    par->codec_id = AV_CODEC_ID_PCM_S16LE;
    par->format = AV_SAMPLE_FMT_S16;
    par->sample_rate = kAudioTimeBase.den;
    const CodecContextPtr layout(avcodec_alloc_context3(nullptr));
    meru_compat::set_layout(layout.get(), AV_CH_LAYOUT_MONO);
    layout->codec_type = AVMEDIA_TYPE_AUDIO;
    layout->codec_id = par->codec_id;
    layout->sample_fmt = AV_SAMPLE_FMT_S16;
    layout->sample_rate = par->sample_rate;
    avcodec_parameters_from_context(par, layout.get());
    par->bits_per_coded_sample = 16;
    par->block_align = 2;
    st->time_base = kAudioTimeBase;
  }

  AVFormatContext* m_ctx = nullptr;
};

/// What a demuxer finds in a file.
struct ReadBack {
  bool opened = false;
  std::string format;
  std::vector<std::vector<double>> seconds;  ///< of each stream's packets
  std::vector<int> sizes;                    ///< of the packets of stream 0
  std::vector<AVCodecID> codecs;
  bool has_duration = false;

  explicit ReadBack(const std::string& path) {
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) < 0) return;
    opened = true;
    format = ctx->iformat->name;
    has_duration = ctx->duration > 0;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) codecs.push_back(ctx->streams[i]->codecpar->codec_id);
    seconds.resize(ctx->nb_streams);
    AVPacket packet;
    meru_compat::init_packet(&packet);
    while (av_read_frame(ctx, &packet) >= 0) {
      const auto stream = static_cast<size_t>(packet.stream_index);
      seconds[stream].push_back(static_cast<double>(packet.pts) * av_q2d(ctx->streams[stream]->time_base));
      if (stream == 0) sizes.push_back(packet.size);
      av_packet_unref(&packet);
    }
    avformat_close_input(&ctx);
  }

  size_t packets(size_t stream) const { return stream < seconds.size() ? seconds[stream].size() : 0; }
};

/// The value of a metadata entry; "unset" when there is none.
inline std::string tag(const AVDictionary* dict, const char* key) {
  const AVDictionaryEntry* entry = av_dict_get(dict, key, nullptr, AV_DICT_MATCH_CASE);
  return entry != nullptr ? entry->value : "unset";
}

}  // namespace meru_test
