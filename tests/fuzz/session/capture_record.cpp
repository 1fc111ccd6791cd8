#include "fuzz/session/capture_record.h"

#include <climits>

#include "support/small_movie.h"

namespace session_fuzz {

namespace {

using meru_test::set_text;

constexpr const char* kUsualExtensions[] = {"mp4", "mov", "mkv", "flv", "ts", "avi", "webm", "MP4", ""};

}  // namespace

Record::Record(Worker* worker, bool once) {
  Dice* dice = &worker->dice;
  choose_outputs(worker, once);
  m_info.no_audio = dice->one_in(6);
  m_info.no_video = dice->one_in(8);
  m_info.timeout_sec = m_live ? 1 : dice->below(2);
  static constexpr int kTunes[] = {TUNE_ZEROLATENCY, TUNE_NONE, TUNE_FILM};
  m_info.tune = dice->of(kTunes);
  if (m_info.tune != TUNE_ZEROLATENCY) m_info.profile = PROFILE_NONE;
  while (dice->one_in(2)) make_odd(dice);
  if (!sound_encoder_opens(m_info.url, m_info.sample_rate_dst, m_info.a_bitrate, m_live)) m_info.no_audio = true;
}

void Record::choose_outputs(Worker* worker, bool once) {
  Dice* dice = &worker->dice;
  Folder* folder = worker->folder;
  const std::string extension = dice->one_in(2) ? dice->of(kUsualExtensions) : dice->of(worker->world->extensions());
  std::string url = once ? folder->unique(extension) : folder->movie(dice, extension);
  if (dice->one_in(20)) url = folder->bad_path(dice);
  if (dice->one_in(25)) {
    url = worker->world->bad_address(dice);
    m_live = true;
  } else if (dice->one_in(10)) {
    url = folder->alias(dice, url);
  }
  m_info = meru_test::small_movie(url);
  if (once) return;  // nobody knows when its other files are free again
  if (dice->one_in(2)) set_text(m_info.snapshot_path, folder->index(dice));
  if (dice->one_in(25)) set_text(m_info.snapshot_path, folder->alias(dice, url));
  if (dice->one_in(25)) set_text(m_info.snapshot_path, folder->bad_path(dice));
  if (dice->one_in(4)) set_text(m_info.metadata, "title:fuzz;movflags:+faststart;bad;comment:a:b");
  while (m_others.size() < 4 && dice->one_in(3)) add_output(worker);
  for (size_t i = 0; i < m_others.size(); ++i) m_info.other_urls[i] = m_others[i].c_str();
}

void Record::add_output(Worker* worker) {
  Dice* dice = &worker->dice;
  if (m_others.empty()) m_others.reserve(4);  // the record points into it
  switch (dice->below(10)) {
    case 0:
      m_others.push_back(worker->folder->alias(dice, m_info.url));
      break;
    case 1:
      m_others.push_back(worker->folder->bad_path(dice));
      break;
    case 2:
      if (!dice->one_in(3)) return;  // each takes its time
      m_others.push_back(worker->world->bad_address(dice));
      m_live = true;
      break;
    default:
      m_others.push_back(
          worker->folder->file("other" + std::to_string(dice->below(4)) + "." + dice->of(kUsualExtensions)));
  }
}

void Record::make_odd(Dice* dice) {
  static constexpr int kSizes[] = {0, -1, 1, 2, 17, 64, 66, 130, 321, INT_MAX, INT_MIN};
  static constexpr int kSmallSizes[] = {1, 2, 17, 33, 64, 66, 130, 321};
  static constexpr int kRates[] = {0, -1, 1, 5, 30, 60, 1000, INT_MAX};
  static constexpr int kSampleRates[] = {0, -1, 8000, 11025, 22050, 44100, 48000, 96000, 192000};
  static constexpr int kChannels[] = {0, -1, 1, 2, 3, 6, 8, 9, 16, 24, 63, 64, 65, INT_MAX};
  static constexpr int kOddities[] = {-1, 0, 1, 2, 3, 5, 9, 255, INT_MAX};
  static constexpr int kBitRates[] = {-1, 0, 1, 8, 200, 100000, INT_MAX};
  int* const small[] = {&m_info.width_src, &m_info.height_src};
  int* const sizes[] = {&m_info.width, &m_info.height, &m_info.width_src, &m_info.height_src};
  int* const oddities[] = {
      &m_info.color_primaries, &m_info.color_trc, &m_info.colorspace, &m_info.color_range, &m_info.preset,
      &m_info.profile,         &m_info.tune,      &m_info.crf,        &m_info.qp,          &m_info.pix_fmt,
      &m_info.rate_control};
  switch (dice->below(10)) {
    case 0:
      *dice->of(small) = dice->of(kSmallSizes);
      break;
    case 1:
      *dice->of(sizes) = dice->of(kSizes);
      break;
    case 2:
      (dice->one_in(2) ? m_info.fps : m_info.gop_size) = dice->of(kRates);
      break;
    case 3:
      (dice->one_in(2) ? m_info.sample_rate_src : m_info.sample_rate_dst) = dice->of(kSampleRates);
      break;
    case 4:
      m_info.channels = dice->of(kChannels);
      break;
    case 5:
      m_info.sample_fmt = dice->between(-1, 12);
      break;
    case 6:
      m_info.pix_fmt_src = dice->of(kPixelFormats);
      break;
    case 7:
      (dice->one_in(3) ? m_info.a_bitrate : m_info.v_bitrate) = dice->of(kBitRates);
      break;
    case 8:
      m_info.use_hardware = dice->one_in(4);
      break;
    default:
      *dice->of(oddities) = dice->of(kOddities);
  }
}

}  // namespace session_fuzz
