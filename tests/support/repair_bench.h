#pragma once

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "MVRepair/restore/mv_repair.h"
#include "support/log_capture.h"
#include "support/meru_tool.h"
#include "support/temp_dir.h"

namespace meru_test {

constexpr char kIndexVideo[] =
    R"({"type":"video","index":0,"codec":"h264","format":"yuv420p","h":48,"w":64,"tb.num":1,"tb.den":12800,)"
    R"("qv":"AAAAAWdkAAystCPQgAAAAwCAAAAeB4oVUAAAAAFo7zyw"})"
    "\n";
constexpr char kIndexAudio[] =
    R"({"type":"audio","index":1,"codec":"aac","format":"fltp","channels":2,"frame_size":1024,"sample_rate":48000,)"
    R"("tb.num":1,"tb.den":48000,"qv":"EZA="})"
    "\n";

/// The first lines of an index of both kinds.
inline std::string index_header(int version = 2) {
  return "## version=" + std::to_string(version) + ", x\n" + kIndexVideo + kIndexAudio;
}

/// printf into a string.
[[gnu::format(printf, 1, 2)]] inline std::string text_of(const char* format, ...) {
  char text[1000];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof(text), format, ap);
  va_end(ap);
  return text;
}

struct RepairReport {
  double progress;
  int code;
  std::string text;
};

inline bool operator==(const RepairReport& a, const RepairReport& b) {
  return std::abs(a.progress - b.progress) < 1e-9 && a.code == b.code && a.text == b.text;
}
inline void PrintTo(const RepairReport& r, std::ostream* out) {
  *out << "(" << r.progress << ", " << r.code << ", \"" << r.text << "\")";
}

/// A packet of the repaired movie.
struct MoviePacket {
  int stream = 0;
  int64_t pts = 0, dts = 0, duration = 0;
  bool key = false;
  std::string data;
};

inline std::vector<MoviePacket> demuxed_packets(const std::string& path) {
  AVFormatContext* opened = nullptr;
  if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) throw std::runtime_error("no movie: " + path);
  const std::unique_ptr<AVFormatContext, FreeBy<avformat_close_input>> in(opened);
  in->flags |= AVFMT_FLAG_NOPARSE;  // the bytes are no real codec's
  std::vector<MoviePacket> packets;
  for (const PacketPtr p(av_packet_alloc()); av_read_frame(in.get(), p.get()) >= 0; av_packet_unref(p.get())) {
    packets.push_back({p->stream_index, p->pts, p->dts, p->duration, (p->flags & AV_PKT_FLAG_KEY) != 0,
                       std::string(reinterpret_cast<const char*>(p->data), static_cast<size_t>(p->size))});
  }
  return packets;
}

/// A repair of a movie whose bytes are made up, since no muxer looks at them, with an index written by hand.
class RepairBench : public testing::Test {
 protected:
  /// Every packet's bytes are told from every other's.
  static std::string made_bytes(size_t count) {
    std::string bytes(count, '\0');
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 31 % 251 + 1);
    return bytes;
  }
  void SetUp() override { write_file(broken, made_bytes(5000)); }
  std::string bytes(size_t from, size_t count) const { return file_text(broken).substr(from, count); }

  void write_index(const std::string& text) { write_file(index, text); }
  MVRepair::Callback callback() {
    return [this](double progress, int code, const char* text) {
      if (on_report) on_report(progress);
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_reports.push_back({progress, code, text});
    };
  }
  /// Repairs on this thread and collects what is printed.
  bool run(const std::string& index_text) {
    write_index(index_text);
    return run();
  }
  bool run() { return run(broken.c_str(), index.c_str(), output.c_str()); }
  bool run(const char* movie, const char* moov, const char* out) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const bool done = repair->start_sync(movie, moov, out, callback());
    printed = testing::internal::GetCapturedStdout();
    complained = testing::internal::GetCapturedStderr();
    return done;
  }
  std::vector<RepairReport> reports() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports;
  }
  /// The lines that go with the reports.
  std::string progress_lines() {
    std::string lines;
    for (const RepairReport& report : reports()) lines += text_of("progress:%.6f\n", report.progress);
    return lines;
  }
  std::vector<std::string> restored() {
    std::vector<std::string> data;
    for (const MoviePacket& packet : demuxed_packets(output)) data.push_back(packet.data);
    return data;
  }
  /// Messages of the log that begin like this.
  long begins(int level, const std::string& begin) {
    long found = 0;
    for (const auto& line : log.lines()) found += line.level == level && line.text.rfind("\"" + begin, 0) == 0 ? 1 : 0;
    return found;
  }

  TempDir dir;
  LogCapture log;
  std::string broken = dir.file("broken.mp4");
  std::string index = dir.file("broken.idx");
  std::string output = dir.file("whole.mp4");
  std::shared_ptr<MVRepair> repair = std::make_shared<MVRepair>();
  std::function<void(double)> on_report;
  std::string printed, complained;

 private:
  std::mutex m_mutex;
  std::vector<RepairReport> m_reports;  // guarded by m_mutex
};

}  // namespace meru_test
