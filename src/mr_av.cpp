#include <exception>
#include <memory>
#include <thread>

#include "base/MR_AVWriter.h"
#include "capture/movie_capture2.h"
#include "common/clock.h"
#include "common/guarded.h"
#include "common/log_site.h"
#include "common/printf_i64.h"
#include "meru/recording.h"

namespace {

constexpr int kMaxCache = 60;
constexpr int kExtraCache = 1000;

MovieCapture2* as_session(void* handle) { return static_cast<MovieCapture2*>(handle); }

/// In a forked child the session of its parent counts as none: nothing is pushed to threads that are not there.
bool is_own(void* handle) { return handle != nullptr && !as_session(handle)->is_foreign(); }

void destroy(MovieCapture2* session) {
  delete session;
  MERU_LOG(4, "--- stop OK");
}

/// Stops and destroys a session, unless its start is still running: then the start does the rest when it can.
void end(MovieCapture2* session) {
  const std::shared_ptr<StatusRelay> relay = session->relay();
  session->stop();
  if (relay != nullptr) {
    relay->mute();
    relay->wait_until_quiet();
  }
  if (!session->leave_to_start([session] { destroy(session); })) destroy(session);
}

std::unique_ptr<MovieCapture2> make_session() {
  auto writer = std::make_unique<MR::MR_AVWriter>(kMaxCache, kExtraCache, nullptr);
  auto session = std::make_unique<MovieCapture2>(writer.get());
  writer.release();  // NOLINT(bugprone-unused-return-value): the session's now
  return session;
}

}  // namespace

void* MERU_start(const MovieInfo& info, MovieStatusCallback cb, void* user, MovieInfo* out_info, bool async) {
  std::unique_ptr<MovieCapture2> session = guarded<std::unique_ptr<MovieCapture2>>(nullptr, make_session);
  if (session == nullptr) return nullptr;
  try {
    session->start(info, cb, user, async);
  } catch (const std::exception& e) {
    MERU_LOG(2, "the recording could not be started: %s", e.what());
  }
  if (out_info != nullptr) *out_info = session->mInfo(nullptr);
  return session.release();
}

void MERU_stop(void** handle) {
  MERU_LOG(4, "--- before stop");
  if (handle == nullptr || *handle == nullptr) return;
  MovieCapture2* session = as_session(*handle);
  *handle = nullptr;
  if (session->is_foreign()) return;
  if (session->relay() == nullptr || !session->relay()->inside_callback()) {
    end(session);
    return;
  }
  // The thread that is calling the host cannot wait for itself to end, so another one does.
  session->relay()->mute();
  session->relay()->wait_until_quiet();  // but for this thread's own
  session->add_audio_filter(nullptr);    // the host's own: it may be gone before the rest is encoded
  try {
    std::thread(&end, session).detach();
  } catch (const std::exception& e) {
    MERU_LOG(2, "the recording could not be ended: %s", e.what());
  }
}

bool MERU_pause(void* handle) { return is_own(handle) && as_session(handle)->pause(); }

bool MERU_resume(void* handle) { return is_own(handle) && as_session(handle)->resume(); }

bool MERU_is_paused(void* handle) { return is_own(handle) && as_session(handle)->is_paused(); }

long long MERU_movie_time(void* handle) { return is_own(handle) ? as_session(handle)->movieTime() : 0; }

int MERU_write_video_bgra(void* handle, void* bgra, int nbytes, long long pts_usec, int linesize) {
  if (!is_own(handle)) return 0;
  if (as_session(handle)->video_disabled()) {
    nuv::print_stderr("--- disable video, ignore bgra frame\n");
    MR::Taken(&as_session(handle)->books().video_frames, 1).drop(MR::Drop::kDisabled);
    return 0;
  }
  return guarded(0, [&] { return as_session(handle)->fill_video_frame(bgra, nbytes, pts_usec, linesize); });
}

int MERU_write_audio_pcm(void* handle, void* pcm, int nbytes, long long pts_usec) {
  if (!is_own(handle)) return 0;
  if (as_session(handle)->audio_disabled()) {
    nuv::print_stderr("--- disable audio, ignore pcm frame\n");
    as_session(handle)->drop_disabled_audio(pcm, nbytes);
    return 0;
  }
  return guarded(0, [&] { return as_session(handle)->fill_audio_frame(pcm, nbytes, pts_usec); });
}

int MERU_write_video_frame(void* handle, AVFrame* frame, const AVRational& tb) {
  if (!is_own(handle) || frame == nullptr) return 0;
  return guarded(0, [&] { return as_session(handle)->fill_video_frame(frame, tb); });
}

int MERU_write_audio_frame(void* handle, AVFrame* frame, const AVRational& tb) {
  if (!is_own(handle) || frame == nullptr) return 0;
  return guarded(0, [&] { return as_session(handle)->fill_audio_frame(frame, tb); });
}

bool MERU_add_audio_filter(void* handle, FilterBase* filter) {
  if (!is_own(handle)) return false;
  as_session(handle)->add_audio_filter(filter);
  return true;
}

bool MERU_add_video_filter(void* handle, FilterBase* filter) {
  if (!is_own(handle)) return false;
  as_session(handle)->add_video_filter(filter);
  return true;
}

AVFrame* MERU_audio_dst_frame(void* handle) { return is_own(handle) ? as_session(handle)->audio_dst_frame() : nullptr; }

AVFrame* MERU_video_dst_frame(void* handle) { return is_own(handle) ? as_session(handle)->video_dst_frame() : nullptr; }

bool MERU_get_mInfo(void* handle, MovieInfo* out) {
  if (!is_own(handle)) return false;
  bool started = false;
  *out = as_session(handle)->mInfo(&started);
  return started;
}

long long MERU_current_sys_usec() { return global_pts(); }

long long MERU_last_usec_pts(void* handle) { return is_own(handle) ? as_session(handle)->last_usec_pts() : 0; }

AVFrame* MERU_generate_testing_vFrame(void* handle, const AVRational& tb) {
  return is_own(handle) ? as_session(handle)->get_testing_vframe(tb) : nullptr;
}

AVFrame* MERU_generate_testing_aFrame(void* handle, const AVRational& tb) {
  return is_own(handle) ? as_session(handle)->get_testing_aframe(tb) : nullptr;
}
