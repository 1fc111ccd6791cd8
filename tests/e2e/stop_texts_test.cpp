// What a host may free as soon as MERU_stop has returned.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "support/eventually.h"
#include "support/host.h"
#include "support/local_listener.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

/// A text that cannot be read any more once it is gone, sanitizer or not.
class MortalText {
 public:
  explicit MortalText(const std::string& text)
      : m_page(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    if (m_page == MAP_FAILED || text.size() >= kSize) throw std::runtime_error("no page for a text");
    std::memcpy(m_page, text.c_str(), text.size() + 1);
  }
  ~MortalText() { munmap(m_page, kSize); }
  MortalText(const MortalText&) = delete;
  MortalText& operator=(const MortalText&) = delete;
  const char* get() const { return static_cast<const char*>(m_page); }

 private:
  static constexpr size_t kSize = 4096;
  void* m_page;
};

TEST(StopTextsTest, StartThatIsLeftBehindNeedsNoTextOfTheHost) {
  LogCapture log;
  const TempDir dir;
  const SilentServer server;
  {
    const MortalText further(server.url("rtmp"));
    MovieInfo info = small_movie(dir.file("a.mp4"));
    info.other_urls[0] = further.get();
    void* session = MERU_start(info, nullptr, nullptr, nullptr, true);
    MERU_stop(&session);
  }
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 1; }));
}

TEST(StopTextsTest, StopInsideACallbackNeedsNoTextOfTheHost) {
  LogCapture log;
  const TempDir dir;
  auto further = std::make_unique<MortalText>(dir.file("b.mkv"));
  MovieInfo info = small_movie(dir.file("a.mp4"));
  info.other_urls[0] = further->get();
  struct Stopper {
    void* session = nullptr;
    std::unique_ptr<MortalText>* text = nullptr;
    std::atomic<bool> known{false};
  } stopper;
  stopper.text = &further;
  const auto stop = [](int, const char*, void* user) {
    auto* s = static_cast<Stopper*>(user);
    eventually([s] { return s->known.load(); });
    MERU_stop(&s->session);
    s->text->reset();
  };
  stopper.session = MERU_start(info, stop, &stopper, nullptr, true);
  stopper.known = true;
  EXPECT_TRUE(eventually([&] { return log.count(4, "--- stop OK") == 1; }));
  EXPECT_EQ(further, nullptr);
}

}  // namespace
}  // namespace meru_test
