#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "base/base_writer.h"
#include "support/packets.h"

namespace meru_test {

inline int write_video(BaseWriter* writer, int64_t pts, int size = 100, bool flag = false) {
  AVPacket packet = make_packet(kVideoStream, pts, size);
  const int result = writer->writePacket(&kVideoTimeBase, &packet, flag);
  EXPECT_EQ(packet.buf, nullptr) << "consumed";
  return result;
}

inline int write_audio(BaseWriter* writer, int64_t pts) {
  AVPacket packet = make_packet(kAudioStream, pts);
  return writer->writePacket(&kAudioTimeBase, &packet, false);
}

/// What a writer reports to its owner.
struct Reports {
  struct Entry {
    int id;
    std::string text;
  };
  std::mutex mutex;
  std::vector<Entry> entries;  // guarded by mutex

  static void callback(int id, const char* text, void* user) {
    auto* self = static_cast<Reports*>(user);
    const std::lock_guard<std::mutex> lock(self->mutex);
    self->entries.push_back({id, text});
  }
  void listen_to(BaseWriter* writer) {
    writer->m_status_cb = &Reports::callback;
    writer->m_status_user = this;
  }
  size_t count() {
    const std::lock_guard<std::mutex> lock(mutex);
    return entries.size();
  }
};

}  // namespace meru_test
