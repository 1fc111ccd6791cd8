#include "IO_Cvt/audio_input.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "IO_Cvt/io_cvt.h"
#include "capture/movie_capture2.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "meru/recording.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

namespace {

constexpr AVRational kUsec{1, 1000000};
constexpr int64_t kLongestSilenceUsec = int64_t{30} * 24 * 3600 * 1000000;
constexpr int64_t kMaxPieceSamples = 768000;
constexpr int64_t kMaxPieceBytes = int64_t{4} << 20;
// A packet lasts until the next one, and MP4 counts that in 31 bits.
constexpr int64_t kLongestGap = int64_t{1} << 30;
// Farther apart are timestamps of different clocks.
constexpr int64_t kMostBridges = 2000;

bool is_planar(const AVFrame* frame) {
  return av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame->format)) != 0;
}

int planes_of(const AVFrame* frame) { return is_planar(frame) ? meru_compat::channels_of(frame) : 1; }

/// Makes places for the planes that AVFrame::data has none for.
/// @return false when there is no memory
bool make_places(AVFrame* frame) {
  const int planes = planes_of(frame);
  if (planes <= AV_NUM_DATA_POINTERS) return true;
  auto** places = static_cast<uint8_t**>(av_calloc(static_cast<size_t>(planes), sizeof(uint8_t*)));
  if (places == nullptr) return false;
  frame->extended_data = places;  // av_frame_free frees it
  return true;
}

void set_plane(AVFrame* frame, int plane, uint8_t* data) {
  frame->extended_data[plane] = data;
  if (plane < AV_NUM_DATA_POINTERS) frame->data[plane] = data;
}

/// A frame without buffers that describes the samples of `frame` from `skipped` on; null without memory.
FramePtr view_from(const AVFrame* frame, int skipped) {
  FramePtr view(av_frame_alloc());
  if (view == nullptr) return nullptr;
  view->format = frame->format;
  view->sample_rate = frame->sample_rate;
  view->nb_samples = frame->nb_samples - skipped;
  view->pts = frame->pts;
  meru_compat::copy_layout(view.get(), frame);
  if (!make_places(view.get())) return nullptr;
  const ptrdiff_t offset = static_cast<ptrdiff_t>(skipped) *
                           av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame->format)) *
                           (is_planar(frame) ? 1 : meru_compat::channels_of(frame));
  for (int i = 0; i < planes_of(frame); ++i) set_plane(view.get(), i, frame->extended_data[i] + offset);
  return view;
}

/// Silence that looks like `frame`; null without memory.
FramePtr silence_like(const AVFrame* frame) {
  FramePtr silence(av_frame_alloc());
  if (silence == nullptr) return nullptr;
  silence->format = frame->format;
  silence->sample_rate = frame->sample_rate;
  silence->nb_samples = frame->nb_samples;
  meru_compat::copy_layout(silence.get(), frame);
  if (av_frame_get_buffer(silence.get(), 0) < 0) return nullptr;
  av_samples_set_silence(silence->extended_data, 0, silence->nb_samples, meru_compat::channels_of(frame),
                         static_cast<AVSampleFormat>(frame->format));
  return silence;
}

}  // namespace

AudioInput::~AudioInput() { drop_rest(); }

MR::CaptureBooks& AudioInput::books() const { return m_owner->books(); }

void AudioInput::drop_rest() {
  if (m_resample != nullptr) books().encoder_samples.drop(MR::Drop::kLeftOver, m_resample->buffered());
}

bool AudioInput::release_resampler() {
  drop_rest();
  const bool existed = m_resample != nullptr;
  m_resample.reset();
  return existed;
}

bool AudioInput::release_wrapper() {
  const bool existed = m_pcm_frame != nullptr;
  m_pcm_frame.reset();
  return existed;
}

FramePtr AudioInput::alloc_pcm_frame(const MovieInfo* info) {
  FramePtr frame(av_frame_alloc());
  if (frame == nullptr) return nullptr;
  frame->format = info->sample_fmt;
  frame->sample_rate = info->sample_rate_src;
  const uint64_t usual = meru_compat::default_layout(info->channels);
  meru_compat::set_layout(frame.get(), usual != 0 ? usual : meru_compat::unplaced_layout(info->channels));
  return make_places(frame.get()) ? std::move(frame) : nullptr;
}

bool AudioInput::init(const MovieInfo& info) {
  m_rate = info.sample_rate_src;
  m_channels = info.channels;
  m_format = static_cast<AVSampleFormat>(info.sample_fmt);
  m_sample_bytes = av_get_bytes_per_sample(m_format);
  if (m_pcm_frame == nullptr) m_pcm_frame = alloc_pcm_frame(&info);
  if (m_silence_frame == nullptr) m_silence_frame = alloc_pcm_frame(&info);
  if (m_resample != nullptr || m_pcm_frame == nullptr || m_silence_frame == nullptr) return false;
  const AVFrame* dst = MERU_audio_dst_frame(m_owner);
  if (dst == nullptr) {
    MERU_LOG(2, "=== No audio dst_frame ..");
    return false;
  }
  auto resample = std::make_unique<MR::QVResample>();
  const bool possible = m_sample_bytes > 0 && m_channels > 0 && m_rate > 0;
  if (!possible || resample->qv_config_frame(dst, m_pcm_frame.get(), {1, info.sample_rate_dst}) < 0) {
    MERU_LOG(2, "=== config QVResample failed ..");
    return false;
  }
  m_resample = std::move(resample);
  return true;
}

int AudioInput::refuse(int64_t nb_samples) {
  const bool exists = MERU_audio_dst_frame(m_owner) != nullptr;
  books().source_samples.take(nb_samples);
  const MR::Drop reason = exists ? MR::Drop::kRefused : MR::Drop::kDisabled;
  const bool first = books().source_samples.drop(reason, nb_samples);
  MR::report_drop("audio", reason, first && exists, "it is not of the rate, sample format and channels of the record");
  return 0;
}

/// Points the planes of a frame that describes the host's format at `data`.
void AudioInput::wrap(AVFrame* frame, uint8_t* data, int nb_samples, long long pts) const {
  const int planes = planes_of(frame);
  const int plane_bytes = nb_samples * m_sample_bytes * (m_channels / planes);
  frame->nb_samples = nb_samples;
  frame->pts = pts;
  frame->linesize[0] = plane_bytes;
  for (int i = 0; i < planes; ++i) set_plane(frame, i, data + static_cast<ptrdiff_t>(i) * plane_bytes);
}

int AudioInput::fill_pcm(void* data, int nbytes, long long pts) {
  if (data == nullptr || nbytes < 0) return 0;
  const int nb_samples = nbytes / m_sample_bytes / m_channels;
  books().source_samples.take(nb_samples);
  if (nb_samples < 1) return 0;
  wrap(m_pcm_frame.get(), static_cast<uint8_t*>(data), nb_samples, pts);
  return push(m_pcm_frame.get(), &kUsec);
}

int AudioInput::fill_frame(AVFrame* frame, const AVRational* tb) {
  if (frame->nb_samples < 1) return 0;
  if (!m_resample->accepts(frame)) return refuse(frame->nb_samples);
  books().source_samples.take(frame->nb_samples);
  return push(frame, tb);
}

int AudioInput::fill_silence(long long dur, long long pts) {
  // A gap of months comes from a wrong stamp. Filling it would take for ever; without it the next audio keeps its time.
  if (dur > kLongestSilenceUsec) return 0;
  const int64_t nb_samples = av_rescale_rnd(std::max(dur, 0LL), m_rate, kUsec.den, AV_ROUND_ZERO);
  return push_silence(silence_at(nb_samples, &pts), pts);
}

/// Where samples are to be aligned, so is the silence before them. @return how many samples of silence that takes
int64_t AudioInput::silence_at(int64_t nb_samples, long long* pts) const {
  if (m_align == Align::kNone || nb_samples == 0) return nb_samples;
  const int64_t gap = m_resample->samples_until(*pts, kUsec);
  if (std::llabs(gap) >= m_rate / 2) return nb_samples;
  *pts -= av_rescale(gap, kUsec.den, m_rate);
  return std::max<int64_t>(nb_samples + gap, 0);
}

/// Feeds silence in chunks of at most a second, so that a long gap costs no memory and a stop does not wait for it.
int AudioInput::push_silence(int64_t nb_samples, long long pts) {
  const std::lock_guard<std::mutex> lock(m_silence_mutex);
  const int64_t frame_bytes = int64_t{m_sample_bytes} * m_channels;
  const int64_t longest =
      std::max<int64_t>(std::min({int64_t{m_rate}, kMaxPieceSamples, kMaxPieceBytes / frame_bytes}), 1);
  const uint8_t level = m_format == AV_SAMPLE_FMT_U8 || m_format == AV_SAMPLE_FMT_U8P ? 0x80 : 0;
  int result = 0;
  int64_t done = 0;
  while (done < nb_samples && m_owner->is_started()) {
    const auto chunk = static_cast<int>(std::min(nb_samples - done, longest));
    m_silence.resize(std::max(m_silence.size(), static_cast<size_t>(chunk * frame_bytes)), level);
    wrap(m_silence_frame.get(), m_silence.data(), chunk, pts + av_rescale(done, kUsec.den, m_rate));
    m_samples += chunk;
    m_silent = true;
    const int pushed = m_cvt->in_frame(false, m_silence_frame.get(), &kUsec);
    m_silent = false;
    if (pushed != 0) result = pushed;
    done += chunk;
  }
  return result;
}

int AudioInput::push(AVFrame* frame, const AVRational* tb) {
  m_samples += frame->nb_samples;
  return m_align == Align::kNone ? m_cvt->in_frame(false, frame, tb) : push_aligned(frame, tb);
}

/// Makes the audio so far end where `frame` begins. Timestamps that differ from the count of samples by less than half
/// a second are otherwise ignored; each pause cuts the audio at a place where no buffer ends, and without this the
/// differences would add up from pause to pause. From half a second on the timestamp counts anyway.
int AudioInput::push_aligned(AVFrame* frame, const AVRational* tb) {
  const int64_t half_second = m_rate / 2;
  const int64_t gap = m_resample->samples_until(frame->pts, *tb);
  const bool first = std::exchange(m_align, Align::kNone) == Align::kFirst;
  if (gap < 0) return gap > -half_second ? push_behind(-gap, frame, tb) : m_cvt->in_frame(false, frame, tb);
  const int64_t longest = first ? av_rescale(kLongestSilenceUsec, m_rate, kUsec.den) : half_second - 1;
  if (gap > 0 && gap <= longest) {
    push_silence(gap, av_rescale_q(frame->pts, *tb, kUsec) - av_rescale(gap, kUsec.den, m_rate));
    if (!m_owner->is_started()) {
      books().source_samples.drop(MR::Drop::kNotStarted, frame->nb_samples);
      return 0;
    }
  }
  return m_cvt->in_frame(false, frame, tb);
}

/// Pushes what is left of a frame without its first `overlap` samples, which may be all.
int AudioInput::push_behind(int64_t overlap, AVFrame* frame, const AVRational* tb) {
  const auto cut = static_cast<int>(std::min<int64_t>(overlap, frame->nb_samples));
  const FramePtr view = view_from(frame, cut);
  if (view == nullptr) return m_cvt->in_frame(false, frame, tb);
  books().source_samples.drop(MR::Drop::kOverlap, cut);
  if (cut == frame->nb_samples) {
    m_align = Align::kAfterPause;  // the next one may begin before that end too
    return 0;
  }
  view->pts += av_rescale_q(cut, {1, m_rate}, *tb);
  return m_cvt->in_frame(false, view.get(), tb);
}

int AudioInput::convert(const AVFrame* frame, const AVRational* tb) {
  if (m_resample == nullptr) return 0;
  int result = 0;
  AVFrame* out = m_resample->qv_convert_frame(frame, tb);
  account(frame->nb_samples);
  for (; out != nullptr; out = m_resample->qv_convert_frame(nullptr, tb)) result = pass_on(out);
  return result;
}

AVFrame* AudioInput::take_rest() {
  if (m_resample == nullptr) return nullptr;
  AVFrame* out = m_resample->qv_take_rest();
  account(0);
  return out;
}

/// Books what the resampler has made of `nb_samples` more.
void AudioInput::account(int nb_samples) {
  const MR::QVResample::Counts now = m_resample->counts();
  const int64_t in = now.in - m_accounted.in;
  const int64_t out = now.out - m_accounted.out;
  MR::Ledger& source = books().source_samples;
  if (!m_silent) {
    source.pass(in);
    if (in == 0) source.drop(now.no_memory ? MR::Drop::kMemory : MR::Drop::kRefused, nb_samples);
  }
  books().encoder_samples.take(out);
  books().encoder_samples.drop(MR::Drop::kMemory, now.lost - m_accounted.lost);
  if (m_silent) books().silence += out;
  m_accounted = now;
}

int AudioInput::pass_on(AVFrame* out) {
  bridge(out);
  m_passed_end = out->pts + out->nb_samples;
  m_passed_any = true;
  AVRational tb{0, 1};
  return m_cvt->out_frame(false, out, &tb) ? 1 : 0;
}

/// Puts a frame of silence now and then into a gap that no packet's duration can hold.
void AudioInput::bridge(const AVFrame* out) {
  if (!m_passed_any || out->pts / kLongestGap - m_passed_end / kLongestGap > kMostBridges) return;
  AVRational tb{0, 1};
  while (out->pts - m_passed_end > kLongestGap) {
    const FramePtr silence = silence_like(out);
    if (silence == nullptr) return;
    silence->pts = m_passed_end + kLongestGap - silence->nb_samples;
    m_passed_end += kLongestGap;
    books().encoder_samples.take(silence->nb_samples);
    books().silence += silence->nb_samples;
    m_cvt->out_frame(false, silence.get(), &tb);
  }
}
