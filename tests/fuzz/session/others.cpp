// Sessions of packets, repairs and the log.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "fuzz/session/world.h"
#include "fuzz/tiny_packets.h"
#include "meru/log.h"
#include "meru/raw_packets.h"
#include "meru/recording.h"
#include "meru/repair.h"
#include "meru/session.h"
#include "support/small_movie.h"

namespace session_fuzz {

namespace {

using meru_test::set_text;

constexpr int kMostPushes = 400;  // fewer than a host may be ahead with one track before the other has begun
constexpr const char* kExtensions[] = {"mp4", "mp4", "mkv", "flv", "ts", "mov", "avi", "3gp", "wav", ""};

class PacketRecord {
 public:
  explicit PacketRecord(Worker* worker);
  const MovieInfo2& info() const { return m_info; }

 private:
  MovieInfo2 m_info{};
  std::vector<std::string> m_others;
};

PacketRecord::PacketRecord(Worker* worker) {
  Dice* dice = &worker->dice;
  Folder* folder = worker->folder;
  std::string url = folder->movie(dice, dice->of(kExtensions));
  if (dice->one_in(20)) url = folder->bad_path(dice);
  if (dice->one_in(30)) url = worker->world->bad_address(dice);
  set_text(m_info.url, url);
  if (dice->one_in(2)) set_text(m_info.snapshot_path, folder->index(dice));
  if (dice->one_in(25)) set_text(m_info.snapshot_path, folder->alias(dice, url));
  m_others.reserve(4);
  while (m_others.size() < 4 && dice->one_in(3)) {
    const std::string other = folder->file("other" + std::to_string(dice->below(4)) + "." + dice->of(kExtensions));
    const bool alias = dice->one_in(8);
    m_others.push_back(alias ? folder->alias(dice, url) : dice->one_in(10) ? folder->bad_path(dice) : other);
  }
  for (size_t i = 0; i < m_others.size(); ++i) m_info.other_urls[i] = m_others[i].c_str();
  static constexpr const char* kVideo[] = {"h264", "h264", "h264", "h264", nullptr, "", "no such format"};
  static constexpr const char* kAudio[] = {"aac", "aac", "aac", "aac", nullptr, "", "mp3"};
  m_info.video_format = dice->of(kVideo);
  m_info.audio_format = dice->of(kAudio);
}

class PacketPusher {
 public:
  PacketPusher(void* session, bool audio, Dice dice)
      : m_session(session),
        m_audio(audio),
        m_packet(audio ? meru_fuzz::silence() : meru_fuzz::picture()),
        m_dice(dice),
        m_both(!audio && m_dice.one_in(3)) {}
  void run(int pushes) {
    for (int i = 0; i < pushes; ++i) push();
  }

 private:
  void write(std::string data, int size) {
    if (m_both) {
      const long long dts = stamp();
      const long long pts = std::abs(dts / 2) < (1LL << 59) ? dts + m_dice.below(3) * 33333 - 100 : dts;
      require(CALL(MERU2_write_video_packet_ts, m_session, size < 0 ? nullptr : data.data(), size, pts, dts),
              "a push is taken");
      return;
    }
    const auto function = m_audio ? &MERU2_write_audio_packet : &MERU2_write_video_packet;
    const CallSite site(m_audio ? "MERU2_write_audio_packet" : "MERU2_write_video_packet");
    require(function(m_session, size < 0 ? nullptr : data.data(), size, stamp()), "a push is taken");
  }
  void push() {
    std::string data = m_packet;
    switch (m_dice.below(24)) {
      case 0:
        return write(data, m_dice.one_in(2) ? -1 : INT_MIN);
      case 1:
        return write(data, 0);
      case 2:
        data.resize(static_cast<size_t>(m_dice.between(1, static_cast<int>(data.size()))));
        break;
      case 3:
        data[static_cast<size_t>(m_dice.below(static_cast<int>(data.size())))] ^= 0x10;
        break;
      case 4:
        data.assign(static_cast<size_t>(m_dice.between(1, 3000)), static_cast<char>(m_dice.below(256)));
        break;
      case 5:
        data += m_packet;
        break;
      default:
        break;
    }
    const int size = static_cast<int>(data.size());
    write(std::move(data), size);
  }
  long long stamp() {
    static constexpr long long kStrange[] = {LLONG_MAX, LLONG_MIN, -1, 0, 1LL << 60, INT_MAX};
    switch (m_dice.below(40)) {
      case 0:
        return m_now -= m_dice.below(10) * 20000;
      case 1:
        return m_now;
      case 2:
        return m_dice.one_in(10) ? m_dice.of(kStrange) : m_now;
      default:
        return m_now += m_audio ? 21333 : 33333;
    }
  }

  void* m_session;
  bool m_audio;
  std::string m_packet;
  Dice m_dice;
  bool m_both;  // pushes both timestamps of each packet
  long long m_now = 0;
};

/// Cuts off the end of a movie, as a crash would, and damages some of it.
std::string broken_copy(const std::string& movie, Folder* folder, Dice* dice) {
  std::ifstream in(movie, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(in), {}};
  bytes.resize(bytes.size() - std::min(bytes.size(), static_cast<size_t>(dice->below(5000))));
  if (!bytes.empty() && dice->one_in(2)) bytes[static_cast<size_t>(dice->below(static_cast<int>(bytes.size())))] ^= 1;
  std::string broken = folder->file("broken.mp4");
  std::ofstream(broken, std::ios::binary) << bytes;
  return broken;
}

struct RepairTold {
  std::atomic<bool> stopped{false};
  static void callback(double progress, int code, const char* text, void* user) {
    require(!static_cast<RepairTold*>(user)->stopped, "nothing is told to a host that has stopped its repair");
    require(progress >= 0 && progress <= 1, "progress is a part of one");
    require(code <= 0 && text != nullptr, "a repair has a text to tell");
  }
};

}  // namespace

void record_packets(Worker* worker) {
  Dice* dice = &worker->dice;
  const PacketRecord record(worker);
  Told* told = new_told();
  told->packets = true;
  void* session = CALL(MERU2_start, record.info(), &Told::callback, told);
  require(session != nullptr, "there is memory for a session");
  if (dice->one_in(4)) {
    std::this_thread::sleep_for(std::chrono::microseconds(dice->below(1500)));
  } else {
    Dice video_dice = dice->branch(), audio_dice = dice->branch();
    const int images = dice->below(dice->one_in(4) ? kMostPushes : 40), sounds = dice->below(images + 20);
    std::thread video([&] { PacketPusher(session, false, video_dice).run(images); });
    PacketPusher(session, true, audio_dice).run(sounds);
    video.join();
  }
  CALL(MERU2_stop, &session);
  told->stopped = true;
  require(session == nullptr, "a stop clears the handle");
  CALL(MERU2_stop, &session);
  require(!MERU2_write_video_packet(nullptr, nullptr, 0, 0), "a null handle takes nothing");
  if (record.info().snapshot_path[0] != '\0') {
    worker->folder->note_movie(record.info().url, record.info().snapshot_path);
  }
}

void repair(Worker* worker) {
  Dice* dice = &worker->dice;
  Folder* folder = worker->folder;
  const auto& [movie, index] = folder->last_movie();
  if (movie.empty() || movie.find("://") != std::string::npos || movie.rfind("/dev/", 0) == 0) return;
  const std::string broken = dice->one_in(15) ? folder->bad_path(dice) : broken_copy(movie, folder, dice);
  const std::string moov = dice->one_in(15) ? folder->file("missing") : index;
  const std::string output =
      dice->one_in(10) ? folder->alias(dice, broken) : folder->file(std::string("repaired.") + dice->of(kExtensions));
  RepairTold told;
  if (dice->one_in(2)) {
    CALL(MERU_StartRepair_sync, broken.c_str(), moov.c_str(), output.c_str(), &RepairTold::callback, &told);
    return;
  }
  void* handle =
      CALL(MERU_StartRepair_Async, broken.c_str(), moov.c_str(), output.c_str(), &RepairTold::callback, &told);
  if (dice->one_in(2)) std::this_thread::sleep_for(std::chrono::microseconds(dice->below(5000)));
  CALL(MERU_Repair_IsRunning, handle);
  void* same = handle;
  std::thread rival([&same] { CALL(MERU_StopRepair, &same); });
  CALL(MERU_StopRepair, &handle);
  rival.join();
  told.stopped = true;
  require(handle == nullptr && !MERU_Repair_IsRunning(handle), "a stop clears the handle");
}

void use_log(Worker* worker) {
  Dice* dice = &worker->dice;
  switch (dice->below(6)) {
    case 0:
      if (dice->one_in(10)) CALL(MERU_Log_On, worker->folder->file("log").c_str());  // open to the process's end
      break;
    case 1:
      CALL(MERU_Log_On2, nullptr);
      break;
    case 2:
      if (dice->one_in(10)) CALL(MERU_Log_On, worker->folder->file("missing/log").c_str());
      break;
    case 3:
      MERU_Log_Off();
      break;
    default:
      CALL(MERU_Log_Level, dice->between(-1, 6));
  }
}

}  // namespace session_fuzz
