// Live streams of ready-made packets, taken by ffmpeg as the server.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "support/eventually.h"
#include "support/local_listener.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/run_command.h"
#include "support/temp_dir.h"
#include "support/within.h"

namespace meru_test {
namespace {

/// A port of this machine that nobody listens on.
std::string free_port() { return std::to_string(SilentServer().port()); }

/// Waits for one stream and records it, until the stream ends or half a minute has passed.
class Receiver {
 public:
  Receiver(const std::string& options, const std::string& url, const std::string& path)
      : m_running([=] {
          run_command("timeout 30 ffmpeg -nostdin -v error -y " + options + " -i " + meru_test::quoted(url) +
                      " -c copy -copyts " + meru_test::quoted(path));
        }) {}
  bool ends() const { return m_running.ends(); }

 private:
  Background m_running;
};

/// Starts a session anew until the receiver listens. @return null when it never does
std::unique_ptr<PacketHost> connect(const MovieInfo2& info) {
  std::unique_ptr<PacketHost> host;
  const bool connected = eventually([&] {
    host = std::make_unique<PacketHost>(info);
    return host->status().wait_for([](const StatusLog::Entry&) { return true; }) &&
           host->status().entries()[0].code == 0;
  });
  return connected ? std::move(host) : nullptr;
}

TEST(RawPacketsLiveTest, RtmpServerGetsEveryPacketWithItsStamp) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  const RawAudio audio = make_audio(dir);
  const std::string url = "rtmp://127.0.0.1:" + free_port() + "/live/key";
  const std::string path = dir.file("received.mkv");
  const Receiver receiver("-listen 1", url, path);
  const auto host = connect(raw_movie(url));
  ASSERT_NE(host, nullptr);
  host->push_from_two_threads(video.packets, audio.packets);
  host->stop();
  expect_success(host->status());
  ASSERT_TRUE(receiver.ends());
  // The stamps are rounded to milliseconds twice.
  expect_video(path, video.packets, 1.5 * kMillisecond);
  expect_audio(path, audio.packets, 1.5 * kMillisecond);
}

}  // namespace
}  // namespace meru_test
