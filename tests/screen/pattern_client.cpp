// Fills the screen with a known pattern whose number rises by the clock, until it is killed or the display goes.
//   pattern_client [still NUMBER] [pointer X Y] [unshare]
// `still` keeps the number; `pointer` puts a red pointer of 16 by 16 pixels there. `unshare` takes the
// memory away that other programs share with the display, which lets any of them do so. "ready" is said when all is
// drawn.

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/pattern.h"

namespace {

using meru_test::Pattern;

class Client {
 public:
  Client() : m_connection(xcb_connect(nullptr, nullptr)) {
    if (xcb_connection_has_error(m_connection) != 0) std::exit(1);
    m_screen = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data;
    m_window = xcb_generate_id(m_connection);
    const uint32_t unmanaged = 1;
    xcb_create_window(m_connection, XCB_COPY_FROM_PARENT, m_window, m_screen->root, 0, 0, m_screen->width_in_pixels,
                      m_screen->height_in_pixels, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, m_screen->root_visual,
                      XCB_CW_OVERRIDE_REDIRECT, &unmanaged);
    xcb_map_window(m_connection, m_window);
    m_context = xcb_generate_id(m_connection);
    xcb_create_gc(m_connection, m_context, m_window, 0, nullptr);
  }
  ~Client() { xcb_disconnect(m_connection); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void draw_fields() const {
    const auto width = static_cast<uint16_t>(m_screen->width_in_pixels / 2);
    const auto height = static_cast<uint16_t>(m_screen->height_in_pixels / 2);
    for (unsigned i = 0; i < 4; ++i) {
      fill(Pattern::kColours[i],
           {static_cast<int16_t>(i % 2 * width), static_cast<int16_t>(i / 2 * height), width, height});
    }
  }

  /// In one request, which the server carries out as a whole: so no picture shows half of two numbers.
  void draw_number(unsigned number) const {
    constexpr size_t kBlock = Pattern::kBlock, kWidth = Pattern::kBits * kBlock;
    std::vector<uint32_t> pixels(kWidth * kBlock);
    for (size_t i = 0; i < pixels.size(); ++i) {
      const size_t bit = Pattern::kBits - 1 - i % kWidth / kBlock;
      pixels[i] = (number >> bit & 1U) != 0 ? 0xFFFFFF : 0;
    }
    xcb_put_image(m_connection, XCB_IMAGE_FORMAT_Z_PIXMAP, m_window, m_context, kWidth, kBlock, 0, 0, 0,
                  m_screen->root_depth, static_cast<uint32_t>(pixels.size() * sizeof(uint32_t)),
                  reinterpret_cast<const uint8_t*>(pixels.data()));
  }

  /// A square pointer whose spot is its left upper corner.
  void show_pointer(int x, int y) const {
    const xcb_pixmap_t all = xcb_generate_id(m_connection);
    xcb_create_pixmap(m_connection, 1, all, m_window, 16, 16);
    const xcb_gcontext_t context = xcb_generate_id(m_connection);
    const uint32_t one = 1;
    xcb_create_gc(m_connection, context, all, XCB_GC_FOREGROUND, &one);
    const xcb_rectangle_t square{0, 0, 16, 16};
    xcb_poly_fill_rectangle(m_connection, all, context, 1, &square);
    const xcb_cursor_t cursor = xcb_generate_id(m_connection);
    xcb_create_cursor(m_connection, cursor, all, all, 0xFFFF, 0, 0, 0, 0, 0, 0, 0);
    xcb_change_window_attributes(m_connection, m_window, XCB_CW_CURSOR, &cursor);
    xcb_warp_pointer(m_connection, XCB_NONE, m_screen->root, 0, 0, 0, 0, static_cast<int16_t>(x),
                     static_cast<int16_t>(y));
  }

  /// A program's numbers of things begin where the server says, one space a program, and its memory is among the first.
  void unshare_memory_of_others() const {
    constexpr uint32_t kMostPrograms = 32, kFirstThings = 16;
    const uint32_t space = xcb_get_setup(m_connection)->resource_id_mask + 1;
    for (uint32_t program = 1; program < kMostPrograms; ++program) {
      for (uint32_t thing = 0; thing < kFirstThings; ++thing) xcb_shm_detach(m_connection, program * space + thing);
    }
  }

  /// Waits until the server has drawn everything. @return false when it has gone
  bool finish() const {
    std::free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
    return xcb_connection_has_error(m_connection) == 0;
  }

 private:
  void fill(uint32_t colour, const xcb_rectangle_t& where) const {
    xcb_change_gc(m_connection, m_context, XCB_GC_FOREGROUND, &colour);
    xcb_poly_fill_rectangle(m_connection, m_window, m_context, 1, &where);
  }

  xcb_connection_t* m_connection;
  const xcb_screen_t* m_screen = nullptr;
  xcb_window_t m_window = XCB_NONE;
  xcb_gcontext_t m_context = XCB_NONE;
};

}  // namespace

int main(int argc, char** argv) {
  Client client;
  client.draw_fields();
  int still = -1;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "still" && i + 1 < argc) still = std::atoi(argv[i + 1]);
    if (word == "unshare") client.unshare_memory_of_others();
    if (word == "pointer" && i + 2 < argc) client.show_pointer(std::atoi(argv[i + 1]), std::atoi(argv[i + 2]));
  }
  constexpr std::chrono::microseconds kStep{1000000 / Pattern::kPerSecond};
  const auto begin = std::chrono::steady_clock::now();
  for (bool first = true;; first = false) {
    // The number is that of the clock, also when the client was held up.
    const auto steps = (std::chrono::steady_clock::now() - begin) / kStep;
    client.draw_number(static_cast<unsigned>(still < 0 ? steps : still));
    if (!client.finish()) return 0;
    if (first) std::puts("ready");
    std::fflush(stdout);
    std::this_thread::sleep_until(begin + (steps + 1) * kStep);
  }
}
