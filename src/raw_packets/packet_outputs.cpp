#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "AVSnapshot/snapshot.h"
#include "base/MR_AVWriter.h"
#include "base/stream_url.h"
#include "common/log_site.h"
#include "output/cloned_context.h"
#include "output/distinct_outputs.h"
#include "output/local_file.h"
#include "raw_packets/av_packet_mux.h"

/// The outputs of a session of packets: AVPacketMux up to the written header.

namespace {

constexpr int kMaxCache = 60;
constexpr int kExtraCache = 1000;

/// A live output that takes nothing for so long counts as broken: it would hold up the host's pushes for ever.
constexpr int kLiveTimeoutSec = 10;

}  // namespace

const AVOutputFormat* output_format(const MovieInfo2& info) {
  const char* short_name = nullptr;
  if (MR::isRtspStream(info.url)) short_name = "rtsp";
  if (strstr(info.url, "rtmp://") != nullptr) short_name = "flv";
  return av_guess_format(short_name, short_name == nullptr ? info.url : nullptr, nullptr);
}

class AVPacketMux::Opening {
 public:
  explicit Opening(AVPacketMux* session) : m_session(session) { tell(true); }
  ~Opening() { tell(false); }
  Opening(const Opening&) = delete;
  Opening& operator=(const Opening&) = delete;

 private:
  void tell(bool opening) {
    const std::lock_guard<std::mutex> lock(m_session->m_mutex);
    m_session->m_opening = opening;
    m_session->m_opening_since = Clock::now();
    m_session->m_changed.notify_all();
  }
  AVPacketMux* m_session;
};

/// Whether an output is a local file, whose path the host may use again. A pipe whose reader comes late gets
/// everything.
bool AVPacketMux::writes_files() const {
  const auto is_file = [](const char* url) { return url != nullptr && !MR::local_path(url).empty(); };
  return is_file(m_info.url) || is_file(m_info.snapshot_path) ||
         std::any_of(std::begin(m_info.other_urls), std::end(m_info.other_urls), is_file);
}

bool AVPacketMux::open_output() {
  const auto result = make_output();
  if (result.has_error) return fail(result.code, result.message);
  m_out_ctx.reset(result.value);
  m_relay->report(MERU_STATUS_OK, "start success");
  return true;
}

nuv::Expected_<AVFormatContext*> AVPacketMux::make_output() {
  nuv::Expected_<AVFormatContext*> result;
  const std::string shared = MR::shared_file(m_info.url, m_info.snapshot_path, m_info.other_urls);
  if (!shared.empty()) return result.set_error(AVERROR(EINVAL), "%s", shared.c_str());
  const AVOutputFormat* format = output_format(m_info);
  if (format == nullptr) {
    return result.set_error(AVERROR_UNKNOWN, "could not find suitable output format: %s", m_info.url);
  }
  m_oformat = std::make_unique<meru_compat::OutputFormatCopy>(format);
  AVFormatContext* made = nullptr;
  int ret = avformat_alloc_output_context2(&made, m_oformat->get(), nullptr, m_info.url);
  FormatContextPtr ctx(made);
  if (ret >= 0) ret = open_io(ctx.get());
  if (ret < 0 && m_interrupt.too_late()) ret = AVERROR(ETIMEDOUT);
  m_interrupt.opening_over();
  if (ret >= 0) return result.set_value(ctx.release());
  MR::log_failed_output(0, m_info.url, ret);
  return result.set_error(ret, "could not open output url '%s': %s", m_info.url, AvError(ret).text);
}

/// A server that lets bytes trickle must not keep the session opening: what is pushed waits meanwhile.
int AVPacketMux::open_io(AVFormatContext* ctx) {
  ctx->interrupt_callback = m_interrupt.callback();
  if (MR::isRtspStream(m_info.url)) MR::set_rtsp_options(ctx, kLiveTimeoutSec);
  const Opening opening(this);
  if (m_network) m_interrupt.limit_opening(int64_t{kLiveTimeoutSec} * 1000000);
  int ret = AVERROR_EXIT;
  const auto open = [&] { return (ret = MR::open_io(ctx, m_info.url, kLiveTimeoutSec)) >= 0; };
  m_gate.open(MR::local_path(m_info.url), open, [ctx] { avio_closep(&ctx->pb); });
  return ret;
}

void AVPacketMux::make_writer() {
  std::array<const char*, 5> urls{};  // ends in a null, which the record has no room for when all four are used
  std::copy(std::begin(m_info.other_urls), std::end(m_info.other_urls), urls.begin());
  auto writer = std::make_unique<MR::MR_AVWriter>(kMaxCache, kExtraCache, nullptr);
  writer->m_status_cb = [](int id, const char* text, void* relay) {
    static_cast<StatusRelay*>(relay)->report(id, text);
  };
  writer->m_status_user = m_relay.get();
  writer->m_live = m_network;
  writer->m_gate = &m_gate;
  writer->m_io = &m_interrupt;
  writer->m_timeout_sec = kLiveTimeoutSec;
  writer->create_other_writers(urls.data());
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_writer = std::move(writer);
  if (m_limited) limit_outputs();
}

/// @return false when the session was stopped meanwhile
bool AVPacketMux::open_snapshot() {
  if (m_info.snapshot_path[0] == '\0') return true;
  const Opening opening(this);
  m_snapshot = std::make_unique<Snapshot>();
  bool opened = false;
  const auto open = [&] {
    opened = m_snapshot->open(m_info.snapshot_path);
    m_writer->m_indexed = opened && m_snapshot->write_header(m_out_ctx.get());
    return opened;
  };
  if (!m_gate.open(MR::local_path(m_info.snapshot_path), open, [this] { m_snapshot->close(); })) return false;
  if (opened) {
    MERU_LOG(2, "启动快照 (%s): %s", m_writer->m_indexed ? "success" : "failed", m_info.snapshot_path);
  } else {
    MERU_LOG(2, "启动快照失败: %s", m_info.snapshot_path);
  }
  return true;
}

bool AVPacketMux::write_header() {
  const Opening opening(this);  // the further outputs
  if (m_network) m_interrupt.limit_opening(int64_t{kLiveTimeoutSec} * 1000000);
  try {
    if (m_writer->writeHeader(m_out_ctx.get(), m_info.metadata) == 0) return true;
  } catch (const MR::MRException&) {  // stopped meanwhile
    return false;
  }
  return fail(kHeaderFailed, "failed to writing header");
}
