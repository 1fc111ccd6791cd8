#include "ReSample/finite_samples.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/ffmpeg_compat.h"

namespace MR {

namespace {

template <class Sample>
void make_finite(AVFrame* frame, int nb_samples) {
  constexpr Sample kLoudest = 1024;  // 60 dB above full scale
  const bool planar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame->format)) != 0;
  const int channels = meru_compat::channels_of(frame);
  const ptrdiff_t count = ptrdiff_t{nb_samples} * (planar ? 1 : channels);
  for (int plane = 0; plane < (planar ? channels : 1); ++plane) {
    auto* samples = reinterpret_cast<Sample*>(frame->extended_data[plane]);
    for (ptrdiff_t i = 0; i < count; ++i) {
      samples[i] = std::isnan(samples[i]) ? Sample{0} : std::clamp(samples[i], -kLoudest, kLoudest);
    }
  }
}

}  // namespace

void make_finite(AVFrame* frame, int nb_samples) {
  switch (frame->format) {
    case AV_SAMPLE_FMT_FLT:
    case AV_SAMPLE_FMT_FLTP:
      return make_finite<float>(frame, nb_samples);
    case AV_SAMPLE_FMT_DBL:
    case AV_SAMPLE_FMT_DBLP:
      return make_finite<double>(frame, nb_samples);
    default:
      return;
  }
}

}  // namespace MR
