/// The exported functions once more under their plain names, for hosts in C and for loaders that look a name up. Each
/// plain name is the assembler name of a function here, because a C++ function of that name exists already.

extern "C" {
#include <libavutil/rational.h>
}

#include "meru/meru.h"

#define MERU_STRING_(x) #x
#define MERU_STRING(x) MERU_STRING_(x)
#define PLAIN_NAME(name) __asm__(MERU_STRING(__USER_LABEL_PREFIX__) #name)

namespace {

/// A null time base stands for microseconds, so that no reference to nothing is made.
const AVRational& or_usec(const AVRational* tb) {
  static constexpr AVRational kUsec{1, 1000000};
  return tb != nullptr ? *tb : kUsec;
}

}  // namespace

extern "C" {

#define MERU_PLAIN(result, name, params, args)             \
  MERU_EXPORT result plain_##name params PLAIN_NAME(name); \
  result plain_##name params { return name args; }

MERU_PLAIN(void, MERU_Log_On, (const char* path), (path))
MERU_PLAIN(void, MERU_Log_On2, (FILE * fp), (fp))
MERU_PLAIN(void, MERU_Log_Level, (int level), (level))
MERU_PLAIN(void, MERU_Log_Off, (), ())

MERU_PLAIN(void*, MERU_start,
           (const MovieInfo* info, MovieStatusCallback cb, void* user, MovieInfo* out_info, bool async),
           (*info, cb, user, out_info, async))
MERU_PLAIN(void, MERU_stop, (void** session), (session))
MERU_PLAIN(bool, MERU_pause, (void* session), (session))
MERU_PLAIN(bool, MERU_resume, (void* session), (session))
MERU_PLAIN(bool, MERU_is_paused, (void* session), (session))
MERU_PLAIN(long long, MERU_movie_time, (void* session), (session))
MERU_PLAIN(int, MERU_write_video_bgra, (void* session, void* bgra, int nbytes, long long pts_usec, int linesize),
           (session, bgra, nbytes, pts_usec, linesize))
MERU_PLAIN(int, MERU_write_audio_pcm, (void* session, void* pcm, int nbytes, long long pts_usec),
           (session, pcm, nbytes, pts_usec))
MERU_PLAIN(int, MERU_write_video_frame, (void* session, AVFrame* frame, const AVRational* tb),
           (session, frame, or_usec(tb)))
MERU_PLAIN(int, MERU_write_audio_frame, (void* session, AVFrame* frame, const AVRational* tb),
           (session, frame, or_usec(tb)))
MERU_PLAIN(bool, MERU_add_audio_filter, (void* session, FilterBase* filter), (session, filter))
MERU_PLAIN(bool, MERU_add_video_filter, (void* session, FilterBase* filter), (session, filter))
MERU_PLAIN(AVFrame*, MERU_audio_dst_frame, (void* session), (session))
MERU_PLAIN(AVFrame*, MERU_video_dst_frame, (void* session), (session))
MERU_PLAIN(bool, MERU_get_mInfo, (void* session, MovieInfo* out), (session, out))
MERU_PLAIN(long long, MERU_current_sys_usec, (), ())
MERU_PLAIN(long long, MERU_last_usec_pts, (void* session), (session))
MERU_PLAIN(AVFrame*, MERU_generate_testing_vFrame, (void* session, const AVRational* tb), (session, or_usec(tb)))
MERU_PLAIN(AVFrame*, MERU_generate_testing_aFrame, (void* session, const AVRational* tb), (session, or_usec(tb)))

MERU_PLAIN(void*, MERU2_start, (const MovieInfo2* info, MovieStatusCallback cb, void* user), (*info, cb, user))
MERU_PLAIN(bool, MERU2_write_video_packet, (void* session, void* data, int size, long long pts),
           (session, data, size, pts))
MERU_PLAIN(bool, MERU2_write_video_packet_ts, (void* session, void* data, int size, long long pts, long long dts),
           (session, data, size, pts, dts))
MERU_PLAIN(bool, MERU2_write_audio_packet, (void* session, void* data, int size, long long pts),
           (session, data, size, pts))
MERU_PLAIN(void, MERU2_stop, (void** session), (session))

MERU_PLAIN(void*, MERU_StartRepair_Async,
           (const char* broken, const char* moov, const char* output, MovieRepairCallback cb, void* user),
           (broken, moov, output, cb, user))
MERU_PLAIN(bool, MERU_StartRepair_sync,
           (const char* broken, const char* moov, const char* output, MovieRepairCallback cb, void* user),
           (broken, moov, output, cb, user))
MERU_PLAIN(void, MERU_StopRepair, (void** handle), (handle))
MERU_PLAIN(bool, MERU_Repair_IsRunning, (void* handle), (handle))

}  // extern "C"
