#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "base/base_writer.h"

namespace meru_test {

/// A writer that keeps what it is given instead of writing it, and answers what the test says.
class FakeWriter : public BaseWriter {
 public:
  struct Packet {
    int stream_index;
    int64_t pts;
    int64_t dts;
    AVRational time_base;
    bool audio;
    bool key;
    std::vector<uint8_t> data;
  };

  void create_other_writers(const char** list) override {
    for (; list != nullptr && *list != nullptr; ++list) urls.emplace_back(*list);
  }
  void start() override {
    ++starts;
    if (on_start) on_start();
  }
  void stop() override { ++stops; }
  int writeHeader(AVFormatContext* s, const char* metainfo) override {
    m_fmt_ctx = s;
    metadata = metainfo;
    if (on_header) on_header(s);
    return header_result;
  }
  int writePacket(const AVRational* tb, AVPacket* pkt, bool flag) override {
    const std::lock_guard<std::mutex> lock(mutex);
    ++calls;
    if (packet_result < 0) return packet_result;
    packets.push_back({pkt->stream_index, pkt->pts, pkt->dts, *tb, flag, (pkt->flags & AV_PKT_FLAG_KEY) != 0,
                       std::vector<uint8_t>(pkt->data, pkt->data + pkt->size)});
    return packet_result;
  }
  int writeTailer() override { return 0; }

  std::vector<Packet> of_kind(bool audio) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<Packet> chosen;
    for (const Packet& packet : packets) {
      if (packet.audio == audio) chosen.push_back(packet);
    }
    return chosen;
  }

  std::function<void(AVFormatContext*)> on_header;
  std::function<void()> on_start;
  int header_result = 0;
  int packet_result = 0;
  int starts = 0;
  int stops = 0;
  std::string metadata;
  std::vector<std::string> urls;

  std::mutex mutex;
  int calls = 0;                // guarded by mutex: packets offered
  std::vector<Packet> packets;  // guarded by mutex: packets taken
};

}  // namespace meru_test
