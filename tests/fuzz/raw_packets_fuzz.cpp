// A session of packets, whatever a host pushes and however it stamps it. The input is a script of pushes, a line of
// percent signs, the bytes that the packets of video are cut from, another such line, and those of audio.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/fuzzing.h"
#include "fuzz/tiny_packets.h"
#include "meru/raw_packets.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

using meru_fuzz::require;

constexpr char kBetween[] = "\n%%%%\n";

// What a host may be ahead with before both media have begun: 500 packets.
constexpr size_t kMaxAhead = 480;
constexpr size_t kMaxPushes = 700;
constexpr size_t kMaxBytes = size_t{1} << 18;
constexpr size_t kBeginning = 12;

struct Push {
  bool audio = false;
  bool null_data = false;
  int size = 0;
  std::string data;
  long long pts = 0;
};
using Pushes = std::vector<Push>;

long long wrapping_sum(long long a, long long b) {
  return static_cast<long long>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

/// The bytes at the head of the input, in turn; 0 behind their end.
class Script {
 public:
  explicit Script(std::string bytes) : m_bytes(std::move(bytes)) {}
  bool ended() const { return m_at >= m_bytes.size(); }
  unsigned next() { return ended() ? 0U : static_cast<unsigned char>(m_bytes[m_at++]); }
  long long next_number(int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | next();
    return static_cast<long long>(value);
  }

 private:
  std::string m_bytes;
  size_t m_at = 0;
};

/// What the packets of a medium are cut from, over and over, and its clock.
class Medium {
 public:
  Medium(std::string stream, std::string good, std::string mark, long long step)
      : m_good(std::move(good)), m_stream(std::move(stream)), m_mark(std::move(mark)), m_step(step) {
    if (m_stream.empty()) m_stream = m_good;
  }
  const std::string& good() const { return m_good; }

  /// Up to where the next packet seems to begin.
  std::string unit() {
    const size_t end = std::min(m_stream.find(m_mark, m_at + 1), m_stream.size());
    std::string cut = m_stream.substr(m_at, end - m_at);
    m_at = end % m_stream.size();
    return cut;
  }
  std::string bytes(size_t count) {
    std::string cut;
    while (cut.size() < count) {
      cut += m_stream.substr(m_at, count - cut.size());
      m_at = (m_at + std::min(count, m_stream.size() - m_at)) % m_stream.size();
    }
    return cut;
  }

  long long step_on(long long steps = 1) { return m_pts = wrapping_sum(m_pts, steps * m_step); }
  long long stamp(unsigned kind, Script* script) {
    static constexpr long long kStrange[] = {
        LLONG_MAX, LLONG_MIN,           0, -1, INT_MAX, -(1LL << 60), 1LL << 60, 1LL << 53, LLONG_MAX - 1,
        UINT_MAX,  LLONG_MAX / 1000000, 1};
    if (kind == 3) return step_on(-2);
    if (kind == 4) return m_pts;
    if (kind == 5) return m_pts = script->next_number(8);
    if (kind == 6) return m_pts = wrapping_sum(m_pts, static_cast<int16_t>(script->next_number(2)) * 1000LL);
    if (kind == 7) return m_pts = kStrange[script->next() % std::size(kStrange)];
    return step_on();
  }

 private:
  std::string m_good;
  std::string m_stream;
  std::string m_mark;
  long long m_step;
  long long m_pts = 0;
  size_t m_at = 0;
};

/// Turns the script into pushes. A byte says what to push: its medium, where it is cut, and how its stamp follows.
class Host {
 public:
  Host(Script* script, std::string video, std::string audio, size_t max_ahead)
      : m_script(script),
        m_media{{std::move(video), meru_fuzz::picture(), {"\0\0\0\1\x09", 5}, 33333},
                {std::move(audio), meru_fuzz::silence(), "\xff\xf1", 21333}},
        m_max_ahead(max_ahead) {}

  /// Packets with which both media begin for certain.
  void begin_well() {
    for (size_t i = 0; i < kBeginning; ++i) {
      for (const bool audio : {false, true}) add(audio, m_media[audio].good(), m_media[audio].step_on());
    }
    for (const bool audio : {false, true}) m_pushes.push_back({audio, true, 0, {}, 0});
  }
  Pushes read_script() {
    while (!m_script->ended() && m_pushes.size() < kMaxPushes && m_bytes < kMaxBytes) read_push();
    return std::move(m_pushes);
  }

 private:
  void add(bool audio, std::string data, long long pts) {
    if (++m_counts[audio] > m_max_ahead) return;
    m_bytes += data.size();
    const int size = static_cast<int>(data.size());
    m_pushes.push_back({audio, false, size, std::move(data), pts});
  }
  void read_push() {
    const unsigned what = m_script->next();
    const bool audio = (what & 1) != 0;
    const unsigned cut = what >> 1 & 7;
    Medium* medium = &m_media[audio];
    const long long pts = medium->stamp(what >> 4 & 7, m_script);
    const unsigned number = cut >= 3 ? m_script->next() : 0;
    if (cut < 3) return add(audio, medium->unit(), pts);
    if (cut == 3) return add(audio, medium->bytes(size_t{number} * number), pts);
    if (cut == 4) return add(audio, medium->unit().erase(0, number), pts);
    if (cut == 5) return m_pushes.push_back({audio, true, 0, {}, pts});
    if (cut == 6) return add_refused(audio, number, pts);
    add(audio, medium->unit(), pts);
    for (unsigned i = 0; i < number && m_bytes < kMaxBytes; ++i) add(audio, medium->unit(), medium->step_on());
  }
  void add_refused(bool audio, unsigned number, long long pts) {
    const bool null_data = (number & 1) != 0;
    const int size = static_cast<int>(number) * (null_data ? 1 : -1);
    m_pushes.push_back({audio, null_data, number > 250 ? INT_MIN : size, "refused", pts});
  }

  Script* m_script;
  Medium m_media[2];
  size_t m_max_ahead;
  size_t m_counts[2] = {};
  size_t m_bytes = 0;
  Pushes m_pushes;
};

/// What the library tells the host.
struct Status {
  std::atomic<int> successes{0};
  std::atomic<int> failures{0};
  std::atomic<bool> stopped{false};

  static void callback(int code, const char* text, void* user) {
    auto* status = static_cast<Status*>(user);
    require(!status->stopped, "nothing is told to a host that has stopped");
    require(code <= 0 && text != nullptr && text[0] != '\0', "what is told has a text");
    ++(code == 0 ? status->successes : status->failures);
  }
};

void push_all(void* session, const Pushes& pushes, bool video, bool audio) {
  for (const Push& push : pushes) {
    if (!(push.audio ? audio : video)) continue;
    // A block of its own size, so that reading behind it is seen.
    std::vector<char> data(push.data.begin(), push.data.end());
    const auto write = push.audio ? &MERU2_write_audio_packet : &MERU2_write_video_packet;
    require(write(session, push.null_data ? nullptr : data.data(), push.size, push.pts), "a push is taken");
  }
}

void record(const MovieInfo2& info, const Pushes& pushes, bool two_threads, Status* status) {
  void* session = MERU2_start(info, &Status::callback, status);
  require(session != nullptr, "there is a session");
  std::thread other;
  if (two_threads) other = std::thread([&] { push_all(session, pushes, false, true); });
  push_all(session, pushes, true, !two_threads);
  if (other.joinable()) other.join();
  MERU2_stop(&session);
  status->stopped = true;
  require(session == nullptr, "the handle is cleared");
}

/// An MP4 file cannot be opened without its trailer; of others that says nothing.
void expect_complete(const char* path) {
  if (strstr(path, ".mp4") == nullptr && strstr(path, ".mov") == nullptr) return;
  AVFormatContext* movie = nullptr;
  require(avformat_open_input(&movie, path, nullptr, nullptr) >= 0, "a movie without a failure is complete");
  avformat_close_input(&movie);
}

void set_text(char* field, const std::string& text) { strcpy(field, text.c_str()); }

struct Formats {
  const char* video;
  const char* audio;
};
constexpr Formats kFormats[] = {{"h264", "aac"}, {"h264", "aac"}, {"h264", nullptr}, {"h264", "aac"},
                                {"", "aac"},     {"h264", "aac"}, {nullptr, ""},     {"h264", "no such format"}};
constexpr const char* kNames[] = {"a.mp4", "a.mkv", "a.flv", "a.mp4", "a.mov", "a.mkv", "a.mp4", "a.ts"};

MovieInfo2 read_movie(Script* script, const std::string& further) {
  const unsigned choice = script->next();
  const Formats& formats = kFormats[choice >> 3 & 7];
  MovieInfo2 info{};
  set_text(info.url, meru_fuzz::folder().file(kNames[choice & 7]));
  if ((choice & 0x40) != 0) set_text(info.snapshot_path, meru_fuzz::folder().file("a.idx"));
  if ((choice & 0x80) != 0) info.other_urls[0] = further.c_str();
  info.video_format = formats.video;
  info.audio_format = formats.audio;
  return info;
}

/// Cuts off what comes before the next line of percent signs.
std::string take_part(std::string* input) {
  const size_t between = input->find(kBetween);
  std::string part = input->substr(0, between);
  input->erase(0, between == std::string::npos ? between : between + strlen(kBetween));
  return part;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  meru_fuzz::be_quiet();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  Script script(take_part(&input));
  std::string video = take_part(&input);
  const std::string further = meru_fuzz::folder().file("further.mkv");
  const MovieInfo2 info = read_movie(&script, further);
  const unsigned manner = script.next();

  const bool begun = (manner & 1) != 0;
  const bool both = info.video_format != nullptr && info.audio_format != nullptr;
  Host host(&script, std::move(video), std::move(input), both && !begun ? kMaxAhead : kMaxPushes);
  if (begun) host.begin_well();
  const Pushes pushes = host.read_script();

  Status status;
  record(info, pushes, (manner & 2) != 0, &status);
  require(status.successes == 1, "the output is open");
  require(status.failures <= 1, "a failure is told once");
  if (status.failures == 0) expect_complete(info.url);
  return 0;
}
