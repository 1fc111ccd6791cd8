#include "packet_source.h"

#include <algorithm>
#include <cmath>
#include <cstring>
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
constexpr size_t kAhead = 32;

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

/// @return whether H.264 with start codes has a sequence parameter set
bool has_sequence_parameters(const AVPacket& packet) {
  for (int i = 0; i + 3 < packet.size; ++i) {
    const uint8_t* at = packet.data + i;
    if (at[0] == 0 && at[1] == 0 && at[2] == 1 && (at[3] & 0x1f) == 7) return true;
  }
  return false;
}

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

int64_t PacketSource::start_usec() {
  if (m_elementary) return 0;
  read_ahead();
  // Audio may begin with samples that only start its decoder, which FFmpeg takes off here.
  const bool known = m_kind == kAudio && m_stream->start_time != AV_NOPTS_VALUE && !m_ahead.empty();
  int64_t first = known ? m_stream->start_time : INT64_MAX;
  for (const auto& packet : m_ahead) {
    if (known) break;
    const int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    const bool shown = (packet->flags & AV_PKT_FLAG_DISCARD) == 0;
    if (shown && time != AV_NOPTS_VALUE) first = std::min(first, time);
  }
  // More than what was read ahead may be hidden.
  if (first == INT64_MAX && m_stream->start_time != AV_NOPTS_VALUE) first = m_stream->start_time;
  if (first == INT64_MAX && !m_ahead.empty()) first = m_ahead.front()->dts;
  return first == INT64_MAX || first == AV_NOPTS_VALUE ? INT64_MAX : to_usec(first);
}

int64_t PacketSource::to_usec(int64_t ticks) const { return av_rescale_q(ticks, m_stream->time_base, kUsec); }

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

/// Reads some packets of a movie ahead, so that its timestamps can be judged by more than the first.
void PacketSource::read_ahead() {
  while (!m_at_end && m_ahead.size() < kAhead) {
    m_at_end = !read_filtered();
    if (m_at_end) break;
    m_ahead.emplace_back(av_packet_clone(m_packet.get()));
    if (m_ahead.back() == nullptr) fail(m_path, AVERROR(ENOMEM));
  }
  choose_timestamps();
  if (m_exact) guess_dts();
}

/// Some containers keep only the time of decoding; the library then finds the order of presentation.
void PacketSource::choose_timestamps() {
  if (m_chosen) return;
  m_chosen = true;
  m_exact = m_kind == kVideo && std::all_of(m_ahead.begin(), m_ahead.end(),
                                            [](const auto& packet) { return packet->pts != AV_NOPTS_VALUE; });
}

/// Others keep only the time of presentation, of which FFmpeg makes that of decoding, but for the first packets.
void PacketSource::guess_dts() {
  const auto known =
      std::find_if(m_ahead.begin(), m_ahead.end(), [](const auto& packet) { return packet->dts != AV_NOPTS_VALUE; });
  if (m_ahead.empty() || known == m_ahead.begin()) return;
  const int64_t step = std::max<int64_t>(m_ahead.front()->duration, 1);
  int64_t dts = 0;
  if (known != m_ahead.end()) {
    dts = (*known)->dts;
  } else {
    for (const auto& packet : m_ahead) dts = std::min(dts, packet->pts);
  }
  for (auto packet = known; packet != m_ahead.begin();) {
    --packet;
    dts = std::min(dts - step, (*packet)->pts);
    (*packet)->dts = m_last_dts == INT64_MIN ? dts : std::max(dts, m_last_dts + 1);
  }
}

/// Takes the next packet of a movie into m_packet.
bool PacketSource::take_ahead() {
  read_ahead();
  if (m_ahead.empty()) return false;
  av_packet_unref(m_packet.get());
  av_packet_move_ref(m_packet.get(), m_ahead.front().get());
  m_ahead.pop_front();
  return true;
}

void PacketSource::stamp(Packet* packet) {
  packet->exact = false;
  if (m_elementary) {
    packet->pts_usec = packet->dts_usec = elementary_stamp();
    return;
  }
  const int64_t dts = m_packet->dts;
  const int64_t pts = m_packet->pts;
  const int64_t first_choice = m_kind == kVideo ? dts : pts;
  const int64_t usual = first_choice != AV_NOPTS_VALUE ? first_choice : m_kind == kVideo ? pts : dts;
  if (usual == AV_NOPTS_VALUE) throw Failure(m_path + " has packets without a time stamp");
  m_last_dts = usual;
  packet->dts_usec = packet->pts_usec = to_usec(usual);
  if (!m_exact) return;
  packet->exact = true;
  if (pts != AV_NOPTS_VALUE) packet->pts_usec = to_usec(pts);
}

/// When the packet of an elementary stream is due.
int64_t PacketSource::elementary_stamp() {
  if (m_kind == kVideo) return std::llround(static_cast<double>(m_count) * kUsecPerSec / m_fps);
  const int64_t begin = std::llround(m_sound_usec);
  constexpr double kUsualSamples = 1024;
  m_sound_usec += m_packet->duration > 0
                      ? static_cast<double>(m_packet->duration) * av_q2d(m_stream->time_base) * kUsecPerSec
                      : kUsualSamples * kUsecPerSec / m_stream->codecpar->sample_rate;
  return begin;
}

/// A movie that was trimmed may begin with a key frame that is no IDR frame: no parameter sets come with it.
void PacketSource::add_parameter_sets() {
  if (m_filter == nullptr || m_count > 0 || has_sequence_parameters(*m_packet)) return;
  const AVCodecParameters* par = m_filter->par_out;
  if (par->extradata_size < 1) return;
  const int size = m_packet->size;
  check(m_path, av_grow_packet(m_packet.get(), par->extradata_size));
  std::memmove(m_packet->data + par->extradata_size, m_packet->data, static_cast<size_t>(size));
  std::memcpy(m_packet->data, par->extradata, static_cast<size_t>(par->extradata_size));
}

bool PacketSource::next(Packet* packet) {
  if (m_elementary ? !read_filtered() : !take_ahead()) return false;
  add_parameter_sets();
  stamp(packet);
  ++m_count;
  packet->data = m_packet->data;
  packet->size = m_packet->size;
  if (m_adts != nullptr) m_adts->wrap(m_packet.get(), packet);
  return true;
}

}  // namespace meru_tool
