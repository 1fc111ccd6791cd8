#include "playable.h"

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace meru_tool {

namespace {

/// How many packets may pass before a frame comes out.
constexpr int kMostPackets = 1000;

struct Free {
  void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
  void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
  void operator()(AVPacket* p) const { av_packet_free(&p); }
  void operator()(AVFrame* p) const { av_frame_free(&p); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

Owned<AVCodecContext> open_decoder(const AVStream* stream) {
  const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
  if (codec == nullptr) return nullptr;
  Owned<AVCodecContext> decoder(avcodec_alloc_context3(codec));
  if (decoder == nullptr || avcodec_parameters_to_context(decoder.get(), stream->codecpar) < 0) return nullptr;
  return avcodec_open2(decoder.get(), codec, nullptr) >= 0 ? std::move(decoder) : nullptr;
}

/// Whether a frame of the stream can be decoded.
bool gives_a_frame(AVFormatContext* movie, const AVStream* stream) {
  const Owned<AVCodecContext> decoder = open_decoder(stream);
  const Owned<AVPacket> packet(av_packet_alloc());
  const Owned<AVFrame> frame(av_frame_alloc());
  if (decoder == nullptr || packet == nullptr || frame == nullptr) return false;
  for (int packets = 0; packets < kMostPackets; av_packet_unref(packet.get())) {
    const bool more = av_read_frame(movie, packet.get()) >= 0;
    if (more && packet->stream_index != stream->index) continue;
    ++packets;
    avcodec_send_packet(decoder.get(), more ? packet.get() : nullptr);
    if (avcodec_receive_frame(decoder.get(), frame.get()) >= 0) return true;
    if (!more) return false;
  }
  return false;
}

}  // namespace

bool can_be_opened(const std::string& path) {
  AVFormatContext* opened = nullptr;
  const bool can = avformat_open_input(&opened, path.c_str(), nullptr, nullptr) >= 0;
  const Owned<AVFormatContext> movie(opened);
  return can;
}

std::string why_not_playable(const std::string& path) {
  AVFormatContext* opened = nullptr;
  if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) return "it cannot be opened";
  const Owned<AVFormatContext> movie(opened);
  if (avformat_find_stream_info(opened, nullptr) < 0) return "its streams cannot be read";
  int index = av_find_best_stream(opened, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (index < 0) index = av_find_best_stream(opened, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
  if (index < 0) return "it holds neither pictures nor sound";
  return gives_a_frame(opened, opened->streams[index]) ? "" : "nothing in it can be decoded";
}

}  // namespace meru_tool
