// Records images at the pace of a screen and tells how long each push of one took, and how many images were lost: into
// a file alone, and with a further output whose receiver stops reading now and then.
#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "durations.h"
#include "program.h"
#include "settings.h"
#include "stalling_reader.h"
#include "support/temp_dir.h"

namespace {

using namespace meru_bench;
using std::chrono::steady_clock;

constexpr int kDistinctImages = 16;
/// Of every kStallPeriod images the receiver sleeps through kStallImages: fewer than the 66 packets that the queue of
/// the first further output holds, so that the host must not notice.
constexpr int kStallPeriod = 120;
constexpr int kStallImages = 48;

struct Result {
  Durations pushes;
  int refused = 0;  ///< by the library
  int late = 0;     ///< left out because the push before was not over when the next image was there
  int stalls = 0;
  int64_t bytes_read = 0;
  int64_t bytes_read_while_stalled = 0;
};

class Screen {
 public:
  explicit Screen(const Settings& settings) : m_linesize(settings.width * 4) {
    for (int i = 0; i < kDistinctImages; ++i) {
      m_images.push_back(meru_test::moving_image(settings.width, settings.height, i));
    }
  }
  int push(void* session, int index, long long pts_usec) {
    std::vector<uint8_t>& image = m_images[static_cast<size_t>(index % kDistinctImages)];
    return MERU_write_video_bgra(session, image.data(), static_cast<int>(image.size()), pts_usec, m_linesize);
  }

 private:
  int m_linesize;
  std::vector<std::vector<uint8_t>> m_images;
};

/// Lets the receiver sleep and wakes it; counts what it took meanwhile.
class Stalls {
 public:
  Stalls(StallingReader* reader, Result* result) : m_reader(reader), m_result(result) {}

  void before_image(int index) {
    if (m_reader == nullptr) return;
    if (index % kStallPeriod == kStallPeriod - kStallImages) {
      m_reader->stall(true);
      m_bytes_before = m_reader->bytes();
      ++m_result->stalls;
    } else if (index % kStallPeriod == 0 && index > 0) {
      m_result->bytes_read_while_stalled += m_reader->bytes() - m_bytes_before;
      m_reader->stall(false);
    }
  }
  void finish() {
    if (m_reader == nullptr) return;
    m_reader->stall(false);
    m_result->bytes_read = m_reader->bytes();
  }

 private:
  StallingReader* m_reader;
  Result* m_result;
  int64_t m_bytes_before = 0;
};

void push_images(void* session, Screen* screen, const Settings& settings, int images, Stalls* stalls, Result* result) {
  const auto interval = std::chrono::nanoseconds(std::chrono::seconds(1)) / settings.fps;
  const auto begin = steady_clock::now();
  const long long begin_usec = MERU_current_sys_usec();
  for (int i = 0; i < images; ++i) {
    stalls->before_image(i);
    const auto due = begin + interval * i;
    // A screen shows its next image whether or not anybody has taken this one.
    if (steady_clock::now() >= due + interval) {
      ++result->late;
      continue;
    }
    std::this_thread::sleep_until(due);
    const auto before = steady_clock::now();
    if (screen->push(session, i, begin_usec + i * meru_test::kUsecPerSec / settings.fps) == 0) ++result->refused;
    result->pushes.add(steady_clock::now() - before);
  }
}

Result measure(const Settings& settings, int images, bool stalling) {
  const meru_test::TempDir folder(meru_test::TempDir::fast_parent());
  MovieInfo info = settings.movie(folder.file("movie.mp4"), meru_test::kPixelsBgra);
  const std::string pipe = folder.file("stalling.ts");
  std::unique_ptr<StallingReader> reader;
  if (stalling) {
    reader = std::make_unique<StallingReader>(pipe);
    info.other_urls[0] = pipe.c_str();
  }
  Screen screen(settings);
  Result result;
  Stalls stalls(reader.get(), &result);
  meru_test::Host host(info);
  if (!host.started()) throw std::runtime_error("the recording did not start");
  push_images(host.session(), &screen, settings, images, &stalls, &result);
  stalls.finish();
  host.stop();
  return result;
}

void print_row(const char* name, const Result& result) {
  std::printf("| %s | %zu | %.2f | %.2f | %.2f | %d |\n", name, result.pushes.count(), result.pushes.quantile_ms(0.5),
              result.pushes.quantile_ms(0.99), result.pushes.quantile_ms(1), result.refused + result.late);
  std::fflush(stdout);
}

void measure_both(const Settings& settings, int seconds) {
  const int images = seconds * settings.fps;
  std::printf("%s at %d images a second, %s, %d s each\n\n", settings.size().c_str(), settings.fps, kPreset, seconds);
  std::printf("| recording | pushes | p50 ms | p99 ms | max ms | dropped |\n|---|---|---|---|---|---|\n");
  print_row("a file", measure(settings, images, false));
  const Result stalled = measure(settings, images, true);
  print_row("a file and a pipe that stalls", stalled);
  std::printf("\nThe pipe: %d stalls of %d images each; %.1f MiB read, %.1f MiB of them during stalls.\n",
              stalled.stalls, kStallImages, static_cast<double>(stalled.bytes_read) / (1 << 20),
              static_cast<double>(stalled.bytes_read_while_stalled) / (1 << 20));
}

int run(int argc, char** argv) {
  CLI::App app("Measures how long a push of an image takes while recording at the pace of a screen.");
  Settings settings;
  int seconds = 20;
  settings.add_options(&app);
  app.add_option("--seconds", seconds, "Length of each of the two recordings")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  measure_both(settings, seconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return run_program("latency", [=] { return run(argc, argv); });
}
