#include "packet_source.h"

#include <cmath>
#include <utility>

#include "failure.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

namespace meru_tool {

namespace {

constexpr AVRational kUsec{1, 1000000};
constexpr double kUsecPerSec = 1e6;
constexpr double kUsualFps = 25;
constexpr int kReadSize = 65536;

std::string av_text(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof(text));
  return text;
}

AVMediaType media_type(PacketSource::Kind kind) {
  return kind == PacketSource::kVideo ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
}

AVCodecID wanted_codec(PacketSource::Kind kind) {
  return kind == PacketSource::kVideo ? AV_CODEC_ID_H264 : AV_CODEC_ID_AAC;
}

const char* elementary_format(PacketSource::Kind kind) { return kind == PacketSource::kVideo ? "h264" : "aac"; }

[[noreturn]] void fail(const std::string& path, int error) {
  throw Failure("cannot read " + path + ": " + av_text(error));
}

void check(const std::string& path, int result) {
  if (result < 0) fail(path, result);
}

}  // namespace

void PacketSource::Free::operator()(AVFormatContext* p) const { avformat_close_input(&p); }
void PacketSource::Free::operator()(AVPacket* p) const { av_packet_free(&p); }
void PacketSource::Free::operator()(AVBSFContext* p) const { av_bsf_free(&p); }

/// Puts ADTS headers before AAC frames, by FFmpeg's own writer of such streams.
class PacketSource::AdtsWriter {
 public:
  AdtsWriter(const std::string& path, const AVStream* from) : m_path(path) {
    check(path, avformat_alloc_output_context2(&m_format, nullptr, "adts", nullptr));
    AVStream* to = avformat_new_stream(m_format, nullptr);
    check(path, to != nullptr ? avcodec_parameters_copy(to->codecpar, from->codecpar) : AVERROR(ENOMEM));
    to->codecpar->codec_tag = 0;
    to->time_base = from->time_base;
    open_buffer();
    check(path, avformat_write_header(m_format, nullptr));
    take();
  }
  ~AdtsWriter() {
    close_buffer();
    av_free(m_bytes);
    avformat_free_context(m_format);
  }
  AdtsWriter(const AdtsWriter&) = delete;
  AdtsWriter& operator=(const AdtsWriter&) = delete;

  /// The frame with its header, valid until the next one.
  void wrap(AVPacket* frame, Packet* out) {
    frame->stream_index = 0;
    check(m_path, av_write_frame(m_format, frame));
    out->size = take();
    out->data = m_bytes;
  }

 private:
  void open_buffer() { check(m_path, avio_open_dyn_buf(&m_format->pb)); }

  void close_buffer() {
    if (m_format == nullptr || m_format->pb == nullptr) return;
    av_freep(&m_bytes);
    avio_close_dyn_buf(std::exchange(m_format->pb, nullptr), &m_bytes);
  }

  /// Takes what was written. @return its size
  int take() {
    av_freep(&m_bytes);
    const int size = avio_close_dyn_buf(std::exchange(m_format->pb, nullptr), &m_bytes);
    open_buffer();
    return size;
  }

  std::string m_path;
  AVFormatContext* m_format = nullptr;
  uint8_t* m_bytes = nullptr;
};

PacketSource::PacketSource(std::string path, Kind kind, bool elementary, double fps)
    : m_path(std::move(path)), m_kind(kind), m_elementary(elementary), m_fps(fps), m_packet(av_packet_alloc()) {
  open(elementary);
  check_codec();
  if (elementary) {
    const AVRational rate = av_guess_frame_rate(m_format.get(), m_stream, nullptr);
    if (m_fps <= 0) m_fps = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : kUsualFps;
  } else if (kind == kAudio) {
    m_adts = std::make_unique<AdtsWriter>(m_path, m_stream);
  } else {
    make_annex_b_filter();
  }
}

PacketSource::~PacketSource() = default;

void PacketSource::open(bool elementary) {
  AVFormatContext* format = nullptr;
  auto* input = elementary ? av_find_input_format(elementary_format(m_kind)) : nullptr;
  check(m_path, avformat_open_input(&format, m_path.c_str(), input, nullptr));
  m_format.reset(format);
  // Elementary streams are read in pieces of a kilobyte otherwise. Movies have no such option.
  av_opt_set_int(format, "raw_packet_size", kReadSize, AV_OPT_SEARCH_CHILDREN);
  // Without a frame rate to be found there is nothing to be looked for in many packets.
  if (elementary && (m_kind == kAudio || m_fps > 0)) format->fps_probe_size = format->max_ts_probe = 0;
  check(m_path, avformat_find_stream_info(format, nullptr));
  const int index = av_find_best_stream(format, media_type(m_kind), -1, -1, nullptr, 0);
  if (index < 0) throw Failure(m_path + " has no " + (m_kind == kVideo ? "pictures" : "sound"));
  m_stream = format->streams[index];
  // What is not wanted is not read: the other medium has a reader of its own.
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    if (format->streams[i] != m_stream) format->streams[i]->discard = AVDISCARD_ALL;
  }
}

PacketSource::Contents PacketSource::look_into(const std::string& path) {
  AVFormatContext* format = nullptr;
  check(path, avformat_open_input(&format, path.c_str(), nullptr, nullptr));
  const std::unique_ptr<AVFormatContext, Free> closed_at_end(format);
  check(path, avformat_find_stream_info(format, nullptr));
  const auto holds = [&](Kind kind) { return av_find_best_stream(format, media_type(kind), -1, -1, nullptr, 0) >= 0; };
  const std::string name = format->iformat->name;
  return {holds(kVideo), holds(kAudio), name == elementary_format(kVideo) || name == elementary_format(kAudio)};
}

void PacketSource::check_codec() const {
  const AVCodecParameters* par = m_stream->codecpar;
  if (par->codec_id != wanted_codec(m_kind)) {
    throw Failure(m_path + " holds " + avcodec_get_name(par->codec_id) + ", and only " +
                  avcodec_get_name(wanted_codec(m_kind)) + " can be remuxed");
  }
  const bool unknown = m_kind == kVideo ? par->width <= 0 : par->sample_rate <= 0;
  if (unknown) throw Failure(m_path + " holds no " + avcodec_get_name(wanted_codec(m_kind)) + " that can be read");
  if (par->video_delay > 0) throw Failure(m_path + " has B-frames, which cannot be remuxed");
}

/// Movies keep H.264 with the length before each unit; parameter sets then stand apart from the packets.
void PacketSource::make_annex_b_filter() {
  const AVCodecParameters* par = m_stream->codecpar;
  if (par->extradata_size < 1 || par->extradata[0] != 1) return;
  AVBSFContext* filter = nullptr;
  check(m_path, av_bsf_alloc(av_bsf_get_by_name("h264_mp4toannexb"), &filter));
  m_filter.reset(filter);
  check(m_path, avcodec_parameters_copy(filter->par_in, par));
  filter->time_base_in = m_stream->time_base;
  check(m_path, av_bsf_init(filter));
}

int64_t PacketSource::start_usec() const {
  if (m_elementary || m_stream->start_time == AV_NOPTS_VALUE) return 0;
  return av_rescale_q(m_stream->start_time, m_stream->time_base, kUsec);
}

/// The next packet of the medium as the file has it.
bool PacketSource::read() {
  for (;;) {
    av_packet_unref(m_packet.get());
    const int result = av_read_frame(m_format.get(), m_packet.get());
    if (result == AVERROR_EOF) return false;
    check(m_path, result);
    if (m_packet->stream_index == m_stream->index && m_packet->size > 0) return true;
  }
}

bool PacketSource::read_filtered() {
  if (m_filter == nullptr) return read();
  for (;;) {
    const int result = av_bsf_receive_packet(m_filter.get(), m_packet.get());
    if (result >= 0) return true;
    if (result == AVERROR_EOF) return false;
    if (result != AVERROR(EAGAIN)) fail(m_path, result);
    const bool more = read();
    check(m_path, av_bsf_send_packet(m_filter.get(), more ? m_packet.get() : nullptr));
  }
}

/// When the packet is due.
int64_t PacketSource::stamp() {
  if (!m_elementary) {
    const int64_t pts = m_packet->pts != AV_NOPTS_VALUE ? m_packet->pts : m_packet->dts;
    if (pts == AV_NOPTS_VALUE) throw Failure(m_path + " has packets without a time stamp");
    if (m_packet->dts != AV_NOPTS_VALUE && m_packet->dts != pts && m_kind == kVideo && m_count > 0 &&
        av_rescale_q(pts, m_stream->time_base, kUsec) < m_last_usec) {
      throw Failure(m_path + " has B-frames, which cannot be remuxed");
    }
    return av_rescale_q(pts, m_stream->time_base, kUsec);
  }
  if (m_kind == kVideo) return std::llround(static_cast<double>(m_count) * kUsecPerSec / m_fps);
  const int64_t begin = std::llround(m_sound_usec);
  constexpr double kUsualSamples = 1024;
  m_sound_usec += m_packet->duration > 0
                      ? static_cast<double>(m_packet->duration) * av_q2d(m_stream->time_base) * kUsecPerSec
                      : kUsualSamples * kUsecPerSec / m_stream->codecpar->sample_rate;
  return begin;
}

bool PacketSource::next(Packet* packet) {
  if (!read_filtered()) return false;
  packet->pts_usec = stamp();
  m_last_usec = packet->pts_usec;
  ++m_count;
  packet->data = m_packet->data;
  packet->size = m_packet->size;
  if (m_adts != nullptr) m_adts->wrap(m_packet.get(), packet);
  return true;
}

}  // namespace meru_tool
