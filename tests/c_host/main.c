/* A host in plain C: loads the library at run time, records a short movie, has a session of packets refused, unloads
 * the library, and does it all again. Usage: c_host LIBRARY MOVIE MOVIE. Exit status 0 when everything went as the
 * headers say. */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "meru/meru.h"

enum { kWidth = 64, kHeight = 48, kFps = 25, kImages = 25, kRate = 48000 };

static const long long kUsecPerSec = 1000000;

/* The functions of the library that this host uses. */
static struct {
  __typeof__(&MERU_Log_Level) log_level;
  __typeof__(&MERU_start) start;
  __typeof__(&MERU_stop) stop;
  __typeof__(&MERU_pause) pause;
  __typeof__(&MERU_resume) resume;
  __typeof__(&MERU_is_paused) is_paused;
  __typeof__(&MERU_movie_time) movie_time;
  __typeof__(&MERU_get_mInfo) get_info;
  __typeof__(&MERU_current_sys_usec) now;
  __typeof__(&MERU_write_video_bgra) write_video;
  __typeof__(&MERU_write_audio_pcm) write_audio;
  __typeof__(&MERU2_start) start_packets;
  __typeof__(&MERU2_write_video_packet) write_video_packet;
  __typeof__(&MERU2_write_audio_packet) write_audio_packet;
  __typeof__(&MERU2_stop) stop_packets;
} meru;

static int load_function(void* library, const char* name, void* target, size_t size) {
  void* const found = dlsym(library, name);
  if (found == NULL) {
    fprintf(stderr, "no %s in the library\n", name);
    return 0;
  }
  memcpy(target, &found, size); /* ISO C has no conversion from an object's pointer to a function's */
  return 1;
}

#define LOAD(member, name) load_function(library, #name, &meru.member, sizeof(meru.member))

static int load_functions(void* library) {
  return LOAD(log_level, MERU_Log_Level) && LOAD(start, MERU_start) && LOAD(stop, MERU_stop) &&
         LOAD(pause, MERU_pause) && LOAD(resume, MERU_resume) && LOAD(is_paused, MERU_is_paused) &&
         LOAD(movie_time, MERU_movie_time) && LOAD(get_info, MERU_get_mInfo) && LOAD(now, MERU_current_sys_usec) &&
         LOAD(write_video, MERU_write_video_bgra) && LOAD(write_audio, MERU_write_audio_pcm) &&
         LOAD(start_packets, MERU2_start) && LOAD(write_video_packet, MERU2_write_video_packet) &&
         LOAD(write_audio_packet, MERU2_write_audio_packet) && LOAD(stop_packets, MERU2_stop);
}

static void on_status(int code, const char* msg, void* user) {
  printf("status %d: %s\n", code, msg);
  *(int*)user = code;
}

static MovieInfo describe(const char* path) {
  MovieInfo info;
  memset(&info, 0, sizeof(info));
  strncpy(info.url, path, sizeof(info.url) - 1);
  info.a_bitrate = 64;
  info.sample_rate_src = info.sample_rate_dst = kRate;
  info.channels = 2;
  info.sample_fmt = 1; /* signed 16 bit, interleaved */
  info.rate_control = RATE_CONTROL_ABR;
  info.v_bitrate = 200;
  info.width = info.width_src = kWidth;
  info.height = info.height_src = kHeight;
  info.fps = info.gop_size = kFps;
  info.pix_fmt_src = 28; /* BGRA */
  info.colorspace = 2;   /* not said */
  info.preset = QUALITY_ULTRAFAST;
  info.profile = PROFILE_NONE;
  info.tune = TUNE_NONE;
  return info;
}

static int push_scene(void* session) {
  static uint8_t image[kWidth * kHeight * 4];
  static int16_t sound[kRate / kFps * 2];
  const long long begin = meru.now();
  for (int i = 0; i < kImages; ++i) {
    const long long pts = begin + i * kUsecPerSec / kFps;
    memset(image, i * 10, sizeof(image));
    if (meru.write_video(session, image, sizeof(image), pts, kWidth * 4) == 0) return 0;
    meru.write_audio(session, sound, sizeof(sound), pts);
  }
  return meru.movie_time(session) > 0;
}

static int record(const char* path) {
  const MovieInfo info = describe(path);
  MovieInfo used;
  int status = 1;
  void* session = meru.start(&info, &on_status, &status, &used, false);
  int fine = session != NULL && status == MERU_STATUS_OK && meru.get_info(session, &used) && used.fps == kFps;
  fine = fine && push_scene(session);
  fine = fine && meru.pause(session) && meru.is_paused(session) && meru.resume(session) && !meru.is_paused(session);
  meru.stop(&session);
  return fine && session == NULL;
}

/* A session of packets, which is told that no container is known for its output. */
static int refuse_packets(void) {
  char data[] = "data";
  MovieInfo2 info;
  int status = 0;
  memset(&info, 0, sizeof(info));
  strncpy(info.url, "movie.nothing", sizeof(info.url) - 1);
  info.video_format = "h264";
  info.audio_format = "aac";
  void* session = meru.start_packets(&info, &on_status, &status);
  const int fine = session != NULL && meru.write_video_packet(session, data, sizeof(data), 0) &&
                   meru.write_audio_packet(session, data, sizeof(data), 0) &&
                   !meru.write_video_packet(NULL, data, sizeof(data), 0);
  meru.stop_packets(&session);
  return fine && session == NULL && status < 0;
}

static int load_record_unload(const char* library_path, const char* movie) {
  void* const library = dlopen(library_path, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 0;
  }
  const int fine = load_functions(library) && record(movie) && refuse_packets();
  return dlclose(library) == 0 && fine;
}

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  for (int i = 2; i < 4; ++i) {
    if (!load_record_unload(argv[1], argv[i])) return 1;
    printf("recorded and unloaded\n");
  }
  return 0;
}
