#include "fuzz/session/world.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace session_fuzz {

namespace {

bool encodes(AVCodecID codec) { return codec == AV_CODEC_ID_NONE || avcodec_find_encoder(codec) != nullptr; }

bool opens(AVCodecID codec_id, int sample_rate, int kbit) {
  const AVCodec* codec = avcodec_find_encoder(codec_id);
  if (codec == nullptr) return false;
  const CodecContextPtr enc(avcodec_alloc_context3(codec));
  const AVSampleFormat* formats = meru_compat::supported_sample_fmts(codec);
  const int* rates = meru_compat::supported_sample_rates(codec);
  enc->sample_fmt = formats != nullptr ? *formats : AV_SAMPLE_FMT_S16;
  enc->sample_rate = sample_rate;
  for (const int* rate = rates; rate != nullptr && *rate != 0 && enc->sample_rate != *rates; ++rate) {
    if (*rate == sample_rate) break;
    if (rate[1] == 0) enc->sample_rate = *rates;
  }
  meru_compat::set_layout(enc.get(), meru_compat::choose_layout(codec, AV_CH_LAYOUT_STEREO));
  enc->bit_rate = int64_t{1000} * kbit;
  enc->time_base = {1, std::max(enc->sample_rate, 1)};
  return enc->sample_rate > 0 && avcodec_open2(enc.get(), codec, nullptr) >= 0;
}

}  // namespace

World::World() {
  void* state = nullptr;
  while (const AVOutputFormat* format = av_muxer_iterate(&state)) {
    if (format->extensions == nullptr || format->extensions[0] == '\0') continue;
    const std::string extensions = format->extensions;
    const std::string first = extensions.substr(0, extensions.find(','));
    const AVOutputFormat* guessed = av_guess_format(nullptr, ("a." + first).c_str(), nullptr);
    if (guessed == nullptr || !encodes(guessed->video_codec) || !encodes(guessed->audio_codec)) continue;
    m_extensions.push_back(first);
  }
  using meru_test::Manners;
  for (const Manners manners : {Manners::kHalfAHandshake, Manners::kByteASecond, Manners::kResetAtFirstBytes,
                                Manners::kResetAfterHandshake, Manners::kForbids}) {
    m_servers.push_back(std::make_unique<meru_test::MisbehavingServer>(manners));
    m_ports.push_back(m_servers.back()->port());
  }
  m_full = std::make_unique<meru_test::FullBacklog>();
  m_silent = std::make_unique<meru_test::SilentServer>();
  m_ports.insert(m_ports.end(), {m_full->port(), m_silent->port(), 1});  // nobody listens on the last one
}

std::string World::bad_address(Dice* dice) const {
  static constexpr const char* kSchemes[] = {"rtmp", "rtmp", "rtsp"};
  if (dice->one_in(12)) return std::string(dice->of(kSchemes)) + "://" + std::string(64, 'n') + ".invalid/live/key";
  return std::string(dice->of(kSchemes)) + "://127.0.0.1:" + std::to_string(dice->of(m_ports)) + "/live/key";
}

bool sound_encoder_opens(const std::string& url, int sample_rate, int kbit, bool with_live_output) {
  const AVOutputFormat* format = av_guess_format(nullptr, url.c_str(), nullptr);
  const AVCodecID codec = format != nullptr ? format->audio_codec : AV_CODEC_ID_AAC;
  if (with_live_output && !(opens(AV_CODEC_ID_AAC, sample_rate, kbit) && opens(AV_CODEC_ID_OPUS, sample_rate, kbit))) {
    return false;
  }
  return codec == AV_CODEC_ID_NONE || opens(codec, sample_rate, kbit);
}

Folder::Folder() { mkdir(m_dir.file("locked").c_str(), 0500); }

std::string Folder::movie(Dice* dice, const std::string& extension) {
  return m_dir.file("movie" + std::to_string(dice->below(4)) + "." + extension);
}

std::string Folder::alias(Dice* dice, const std::string& path) {
  switch (dice->below(4)) {
    case 0:
      return path;
    case 1:
      return m_dir.path() + "/./" + std::filesystem::path(path).filename().string();
    case 2:
      return "file:" + path;
    default:
      const std::string link = m_dir.file("link" + std::filesystem::path(path).extension().string());
      unlink(link.c_str());
      return symlink(path.c_str(), link.c_str()) == 0 ? link : path;
  }
}

std::string Folder::bad_path(Dice* dice) {
  switch (dice->below(6)) {
    case 0:
      return m_dir.file("missing/movie.mp4");
    case 1:
      return m_dir.path();
    case 2:
      return "/dev/full";
    case 3:
      return "/dev/null";
    case 4:
      return "/proc/version";
    default:
      return "";
  }
}

}  // namespace session_fuzz
