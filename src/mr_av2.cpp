#include <exception>
#include <memory>

#include "common/log_site.h"
#include "meru/raw_packets.h"
#include "meru/session.h"
#include "raw_packets/av_packet_mux.h"

namespace {

AVPacketMux* as_session(void* handle) { return static_cast<AVPacketMux*>(handle); }

/// In a forked child the session of its parent counts as none.
bool is_own(void* handle) { return handle != nullptr && !as_session(handle)->is_foreign(); }

}  // namespace

void* MERU2_start(const MovieInfo2& info, MovieStatusCallback cb, void* user) {
  try {
    auto session = std::make_unique<AVPacketMux>();
    session->start(info, cb, user);
    return session.release();
  } catch (const std::exception& e) {
    MERU_LOG(2, "the session could not be started: %s", e.what());
    return nullptr;
  }
}

bool MERU2_write_video_packet(void* handle, void* data, int size, long long pts) {
  return is_own(handle) && push_data(as_session(handle)->video(), data, size, pts);
}

bool MERU2_write_video_packet_ts(void* handle, void* data, int size, long long pts, long long dts) {
  return is_own(handle) && push_data_ts(as_session(handle)->video(), data, size, pts, dts);
}

bool MERU2_write_audio_packet(void* handle, void* data, int size, long long pts) {
  return is_own(handle) && push_data(as_session(handle)->audio(), data, size, pts);
}

void MERU2_stop(void** handle) {
  if (handle == nullptr || *handle == nullptr) return;
  AVPacketMux* session = as_session(*handle);
  *handle = nullptr;
  if (!session->is_foreign()) AVPacketMux::end(session);
}
