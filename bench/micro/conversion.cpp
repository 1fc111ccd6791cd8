// A BGRA image of 1920x1080 to YUV420P and NV12: the library's loops, compiled for AVX2 and for what every processor
// has, and libswscale with the settings that the library gives it. The time of an iteration is that of an image.
#include <benchmark/benchmark.h>

#include "ReSample/rgb_to_yuv.h"
#include "support/media_frames.h"

namespace {

using MR::RgbToYuv;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

FramePtr make_target(AVPixelFormat format) { return meru_test::make_picture(format, kWidth, kHeight); }

void with_loops(benchmark::State& state, RgbToYuv::Vectors vectors, AVPixelFormat format) {
  const FramePtr source = meru_test::make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight);
  const FramePtr target = make_target(format);
  const auto converter =
      RgbToYuv::make({kWidth, kHeight, AV_PIX_FMT_BGRA}, {kWidth, kHeight, format}, AVCOL_SPC_UNSPECIFIED, 0, vectors);
  for (auto _ : state) {
    converter->convert(source->data[0], source->linesize[0], target->data, target->linesize);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(with_loops, best, RgbToYuv::Vectors::kBest, AV_PIX_FMT_YUV420P)
    ->Name("1080p to YUV420P/the library, best vectors")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(with_loops, baseline, RgbToYuv::Vectors::kBaseline, AV_PIX_FMT_YUV420P)
    ->Name("1080p to YUV420P/the library, baseline vectors")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(with_loops, best_nv12, RgbToYuv::Vectors::kBest, AV_PIX_FMT_NV12)
    ->Name("1080p to NV12/the library, best vectors")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(with_loops, baseline_nv12, RgbToYuv::Vectors::kBaseline, AV_PIX_FMT_NV12)
    ->Name("1080p to NV12/the library, baseline vectors")
    ->Unit(benchmark::kMillisecond);

void with_libswscale(benchmark::State& state, AVPixelFormat format) {
  const FramePtr source = meru_test::make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight);
  const FramePtr target = make_target(format);
  const SwsPtr scaler =
      make_scaler({kWidth, kHeight, AV_PIX_FMT_BGRA}, {kWidth, kHeight, format}, AVCOL_SPC_UNSPECIFIED, 0);
  for (auto _ : state) {
    sws_scale(scaler.get(), source->data, source->linesize, 0, kHeight, target->data, target->linesize);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(with_libswscale, yuv420p, AV_PIX_FMT_YUV420P)
    ->Name("1080p to YUV420P/libswscale")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(with_libswscale, nv12, AV_PIX_FMT_NV12)
    ->Name("1080p to NV12/libswscale")
    ->Unit(benchmark::kMillisecond);

}  // namespace
