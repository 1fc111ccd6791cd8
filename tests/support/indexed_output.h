#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "AVSnapshot/snapshot.h"
#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"

namespace meru_test {

/// An output that is muxed by hand, with a side index beside it. The codecs' data is made up: muxers do not look at it.
class IndexedOutput {
 public:
  IndexedOutput(const char* format, const std::string& path) {
    const AVOutputFormat* guessed = av_guess_format(format, nullptr, nullptr);
    if (guessed == nullptr) throw std::runtime_error("no such format");
    m_format = std::make_unique<meru_compat::OutputFormatCopy>(guessed);
    AVFormatContext* oc = nullptr;
    if (avformat_alloc_output_context2(&oc, m_format->get(), nullptr, path.c_str()) < 0) {
      throw std::runtime_error("no context");
    }
    m_oc.reset(oc);
    if (avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE) < 0) throw std::runtime_error("cannot write " + path);
  }
  ~IndexedOutput() {
    if (m_oc != nullptr) avio_closep(&m_oc->pb);
  }
  IndexedOutput(const IndexedOutput&) = delete;
  IndexedOutput& operator=(const IndexedOutput&) = delete;

  AVStream* add_video(AVCodecID codec = AV_CODEC_ID_MPEG4) {
    AVStream* st = add(AVMEDIA_TYPE_VIDEO, codec, {1, 25});
    st->codecpar->width = 64;
    st->codecpar->height = 48;
    st->codecpar->format = AV_PIX_FMT_YUV420P;
    st->avg_frame_rate = {25, 1};
    return st;
  }
  AVStream* add_audio(AVCodecID codec = AV_CODEC_ID_AAC) {
    AVStream* st = add(AVMEDIA_TYPE_AUDIO, codec, {1, 48000});
    st->codecpar->sample_rate = 48000;
    st->codecpar->format = AV_SAMPLE_FMT_FLTP;
    st->codecpar->frame_size = 1024;
    // Taken from a context, because the member that holds the layout differs between FFmpeg's versions.
    const CodecContextPtr layout(avcodec_alloc_context3(nullptr));
    layout->codec_type = AVMEDIA_TYPE_AUDIO;
    layout->codec_id = codec;
    layout->sample_rate = 48000;
    layout->frame_size = 1024;
    layout->sample_fmt = AV_SAMPLE_FMT_FLTP;
    meru_compat::set_layout(layout.get(), AV_CH_LAYOUT_STEREO);
    if (avcodec_parameters_from_context(st->codecpar, layout.get()) < 0) throw std::runtime_error("no parameters");
    set_extradata(st, std::string("\x11\x90", 2));
    return st;
  }
  AVStream* add(AVMediaType type, AVCodecID codec, AVRational time_base) {
    AVStream* st = avformat_new_stream(m_oc.get(), nullptr);
    st->codecpar->codec_type = type;
    st->codecpar->codec_id = codec;
    st->time_base = time_base;
    return st;
  }
  static void set_extradata(AVStream* st, const std::string& bytes) {
    av_freep(&st->codecpar->extradata);
    st->codecpar->extradata = static_cast<uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    bytes.copy(reinterpret_cast<char*>(st->codecpar->extradata), bytes.size());
    st->codecpar->extradata_size = static_cast<int>(bytes.size());
  }

  bool index_to(const std::string& path) {
    m_snapshot = std::make_unique<Snapshot>();
    return m_snapshot->open(path.c_str()) && m_snapshot->write_header(m_oc.get());
  }
  int write_header() { return avformat_write_header(m_oc.get(), nullptr); }
  /// Stamps are in the stream's own time base; the payload of `size` bytes begins with `mark`.
  int write(int stream, int64_t pts, int64_t dts, int64_t duration, bool key, int size = 100, uint8_t mark = 0) {
    const PacketPtr packet(av_packet_alloc());
    if (av_new_packet(packet.get(), size) < 0) throw std::runtime_error("no packet");
    for (int i = 0; i < size; ++i) packet->data[i] = static_cast<uint8_t>(mark + i);
    packet->stream_index = stream;
    packet->pts = pts;
    packet->dts = dts;
    packet->duration = duration;
    packet->flags = key ? AV_PKT_FLAG_KEY : 0;
    return av_write_frame(m_oc.get(), packet.get());
  }
  int write_trailer() {
    const int ret = av_write_trailer(m_oc.get());
    avio_closep(&m_oc->pb);
    return ret;
  }
  /// Ends the index, as the session does after the trailer or a host that loses interest does before it.
  void drop_snapshot() { m_snapshot.reset(); }

  AVFormatContext* context() const { return m_oc.get(); }
  Snapshot* snapshot() const { return m_snapshot.get(); }

 private:
  std::unique_ptr<meru_compat::OutputFormatCopy> m_format;
  FormatContextPtr m_oc;
  std::unique_ptr<Snapshot> m_snapshot;
};

}  // namespace meru_test
