// An X client that flashes and clicks at the same moment: its window turns white when the click that it plays is heard.
//   flash_client SINK COUNT
// The window is in the corner of the screen that DISPLAY names, the sink is one of the server that PULSE_SERVER names.
// Prints a line for each: when the click was heard and when the window was white, both in microseconds on the steady
// clock.

#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>

#include "support/eventually.h"
#include "support/pulse_player.h"

namespace {

using meru_test::eventually;
using meru_test::PulsePlayer;
using meru_test::steady_usec;

struct Disconnect {
  void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
};

class Window {
 public:
  Window() : m_connection(xcb_connect(nullptr, nullptr)) {
    if (xcb_connection_has_error(connection()) != 0) throw std::runtime_error("no display");
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection())).data;
    m_black = screen->black_pixel;
    m_white = screen->white_pixel;
    m_id = xcb_generate_id(connection());
    // No window manager is to move it.
    const uint32_t values[] = {m_black, 1};
    xcb_create_window(connection(), XCB_COPY_FROM_PARENT, m_id, screen->root, 0, 0, kSize, kSize, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT,
                      values);
    xcb_map_window(connection(), m_id);
    show(false);
  }

  /// Returns when it is on the screen.
  void show(bool white) {
    xcb_change_window_attributes(connection(), m_id, XCB_CW_BACK_PIXEL, white ? &m_white : &m_black);
    xcb_clear_area(connection(), 0, m_id, 0, 0, kSize, kSize);
    // Answered behind what was asked before.
    const auto asked = xcb_get_input_focus(connection());
    std::free(xcb_get_input_focus_reply(connection(), asked, nullptr));
    if (xcb_connection_has_error(connection()) != 0) throw std::runtime_error("the display has gone");
  }

 private:
  static constexpr uint16_t kSize = 200;

  xcb_connection_t* connection() const { return m_connection.get(); }

  std::unique_ptr<xcb_connection_t, Disconnect> m_connection;
  xcb_window_t m_id = 0;
  uint32_t m_black = 0, m_white = 0;
};

void wait_until(int64_t usec) {
  eventually([&] { return steady_usec() >= usec; });
}

void flash(const char* sink, size_t count) {
  constexpr int64_t kFlashUsec = 300000;
  Window window;
  PulsePlayer player(sink, PulsePlayer::clicks());
  for (size_t i = 0; i < count; ++i) {
    if (!eventually([&] { return player.heard().size() > i; })) throw std::runtime_error("nothing is played");
    const int64_t click = player.heard()[i];
    wait_until(click);
    window.show(true);
    const int64_t white = steady_usec();
    std::printf("%lld %lld\n", static_cast<long long>(click), static_cast<long long>(white));
    std::fflush(stdout);
    wait_until(white + kFlashUsec);
    window.show(false);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 3) throw std::runtime_error("usage: flash_client SINK COUNT");
    flash(argv[1], static_cast<size_t>(std::atoi(argv[2])));
    return EXIT_SUCCESS;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "flash_client: %s\n", e.what());
    return EXIT_FAILURE;
  }
}
