/* Records a few seconds from plain C, on one thread. What it pushes comes from no device, so nothing has to wait: only
 * the time stamps say when an image was seen and a sound heard.
 *   record_c FILE [SECONDS]
 */
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "meru/meru.h"

enum {
  WIDTH = 320,
  HEIGHT = 240,
  FPS = 25,
  SAMPLE_RATE = 44100,
  SAMPLES_PER_IMAGE = SAMPLE_RATE / FPS,
  PIXELS_BGRA = 28, /* AV_PIX_FMT_BGRA */
  SAMPLES_S16 = 1,  /* AV_SAMPLE_FMT_S16 */
  COLORSPACE_UNSPECIFIED = 2
};

static uint8_t image[HEIGHT][WIDTH][4];
static int16_t pcm[SAMPLES_PER_IMAGE];

/* A failure while recording comes from a thread of the library. */
static void on_status(int code, const char* text, void* user) {
  fprintf(stderr, "status %d: %s\n", code, text);
  if (code != MERU_STATUS_OK) atomic_store((atomic_bool*)user, true);
}

static MovieInfo describe(const char* file) {
  MovieInfo info;
  memset(&info, 0, sizeof(info));
  snprintf(info.url, sizeof(info.url), "%s", file);
  info.a_bitrate = 96;
  info.sample_rate_src = info.sample_rate_dst = SAMPLE_RATE;
  info.channels = 1;
  info.sample_fmt = SAMPLES_S16;
  info.rate_control = RATE_CONTROL_CQP;
  info.qp = 24;
  info.width = info.width_src = WIDTH;
  info.height = info.height_src = HEIGHT;
  info.fps = info.gop_size = FPS;
  info.pix_fmt_src = PIXELS_BGRA;
  info.colorspace = COLORSPACE_UNSPECIFIED;
  info.preset = QUALITY_ULTRAFAST;
  info.profile = PROFILE_NONE;
  info.tune = TUNE_NONE;
  return info;
}

/* A bright bar that walks to the right. */
static void draw(int n) {
  for (int y = 0; y < HEIGHT; ++y) {
    for (int x = 0; x < WIDTH; ++x) {
      const int lit = (x - 4 * n % WIDTH + WIDTH) % WIDTH < 32;
      image[y][x][0] = (uint8_t)(lit ? 255 : y);
      image[y][x][1] = (uint8_t)(lit ? 255 : 64);
      image[y][x][2] = (uint8_t)(lit ? 255 : x / 2);
      image[y][x][3] = 255;
    }
  }
}

/* A square wave of 441 Hz. */
static void sound(int n) {
  for (int i = 0; i < SAMPLES_PER_IMAGE; ++i) {
    pcm[i] = (int16_t)((n * SAMPLES_PER_IMAGE + i) / 50 % 2 == 0 ? 4000 : -4000);
  }
}

/* Pushes image and sound by turns, until the time is over or the file fails. */
static void record(void* session, int seconds, const atomic_bool* failed) {
  for (int n = 0; n < seconds * FPS && !atomic_load(failed); ++n) {
    const long long pts_usec = n * 1000000LL / FPS;
    draw(n);
    MERU_write_video_bgra(session, image, sizeof(image), pts_usec, WIDTH * 4);
    sound(n);
    MERU_write_audio_pcm(session, pcm, sizeof(pcm), pts_usec);
  }
}

int main(int argc, char** argv) {
  const int seconds = argc > 2 ? atoi(argv[2]) : 3;
  if (argc < 2 || seconds < 1 || strlen(argv[1]) >= sizeof(((MovieInfo*)0)->url)) {
    fprintf(stderr, "usage: %s FILE [SECONDS]\n", argv[0]);
    return 2;
  }
  atomic_bool failed = false;
  const MovieInfo info = describe(argv[1]);
  MovieInfo used;
  void* session = MERU_start(&info, on_status, &failed, NULL, false);
  /* Asked, not told: an encoder that refuses its settings is not reported. */
  const bool started = MERU_get_mInfo(session, &used);
  if (started) record(session, seconds, &failed);
  MERU_stop(&session); /* from here on nothing touches `failed` */
  return started && !failed ? 0 : 1;
}
