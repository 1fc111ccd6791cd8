#include "screen/x11_screen.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "failure.h"
#include "screen/pointer_image.h"
#include "screen/xcb_reply.h"

namespace meru_tool {

namespace {

constexpr int kMostLooks = 5;

/// Empty when there is none.
std::string display_of_environment() {
  char* host = nullptr;
  int display = 0, screen = 0;
  if (xcb_parse_display(nullptr, &host, &display, &screen) == 0) return {};
  const XcbReply<char> owned(host);
  return host + (":" + std::to_string(display)) + "." + std::to_string(screen);
}

const xcb_screen_t* screen_of(xcb_connection_t* connection, int number) {
  auto screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (; screens.rem > 0 && number > 0; --number) xcb_screen_next(&screens);
  return screens.rem > 0 ? screens.data : nullptr;
}

/// How many bits a pixel of this depth takes in an image.
int bits_a_pixel(const xcb_setup_t* setup, int depth) {
  for (auto format = xcb_setup_pixmap_formats_iterator(setup); format.rem > 0; xcb_format_next(&format)) {
    if (format.data->depth == depth) return format.data->bits_per_pixel;
  }
  return 0;
}

const xcb_visualtype_t* visual_of(const xcb_screen_t& screen) {
  for (auto depth = xcb_screen_allowed_depths_iterator(&screen); depth.rem > 0; xcb_depth_next(&depth)) {
    for (auto visual = xcb_depth_visuals_iterator(depth.data); visual.rem > 0; xcb_visualtype_next(&visual)) {
      if (visual.data->visual_id == screen.root_visual) return visual.data;
    }
  }
  return nullptr;
}

bool is_bgra(const xcb_visualtype_t* visual) {
  return visual != nullptr && visual->red_mask == 0xFF0000U && visual->green_mask == 0xFF00U &&
         visual->blue_mask == 0xFFU;
}

}  // namespace

X11Screen::X11Screen(const ScreenWish& wish) : m_pointer(wish.pointer) {
  connect(wish.display);
  choose_region(wish.region);
  if (m_pointer) prepare_pointer();
  watch_size();
  share_images(wish.places);
}

X11Screen::~X11Screen() = default;

void X11Screen::connect(const std::string& display) {
  m_name = display.empty() ? display_of_environment() : display;
  if (m_name.empty()) throw Failure("no display: DISPLAY is not set to one, and --display is not given");
  int number = 0;
  m_connection.reset(xcb_connect(m_name.c_str(), &number));
  if (xcb_connection_has_error(m_connection.get()) != 0) throw Failure("cannot open the display " + m_name);
  const xcb_screen_t* screen = screen_of(m_connection.get(), number);
  if (screen == nullptr) throw Failure("the display " + m_name + " has no such screen");
  check_format(*screen);
  m_root = screen->root;
  m_screen = {0, 0, screen->width_in_pixels, screen->height_in_pixels};
}

void X11Screen::check_format(const xcb_screen_t& screen) const {
  const xcb_setup_t* setup = xcb_get_setup(m_connection.get());
  if (bits_a_pixel(setup, screen.root_depth) == 32 && setup->image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST &&
      is_bgra(visual_of(screen))) {
    return;
  }
  throw Failure("the display " + m_name + " has a colour depth of " + std::to_string(screen.root_depth) +
                " bits in a form that is not recorded: 24 bits in four bytes are, blue first");
}

bool X11Screen::has(xcb_extension_t* extension) const {
  const auto* data = xcb_get_extension_data(m_connection.get(), extension);
  return data != nullptr && data->present != 0;
}

void X11Screen::choose_region(const Region& wished) {
  // The screen may have another size by now than when the server greeted.
  look_at_size();
  m_region = wished.empty() ? m_screen : wished;
  if (m_region.within(m_screen) != m_region) {
    throw UsageError("--region: " + m_region.text() + " does not fit into the screen of " + m_screen.size_text());
  }
  m_region = m_region.even();
  if (m_region.empty()) throw UsageError("the region is too small");
}

void X11Screen::prepare_pointer() {
  if (!has(&xcb_xfixes_id)) {
    throw Failure("the display " + m_name + " does not show its pointer to programs: --no-pointer goes without it");
  }
  // The server serves nobody who has not said which version he knows.
  const XcbReply<xcb_xfixes_query_version_reply_t> version(
      xcb_xfixes_query_version_reply(m_connection.get(), xcb_xfixes_query_version(m_connection.get(), 4, 0), nullptr));
}

void X11Screen::watch_size() const {
  const uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
  xcb_change_window_attributes(m_connection.get(), m_root, XCB_CW_EVENT_MASK, &events);
}

void X11Screen::share_images(size_t places) {
  if (!has(&xcb_shm_id)) {
    throw Failure("the display " + m_name + " cannot share memory: it lacks the extension MIT-SHM");
  }
  m_images = std::make_unique<SharedImages>(m_connection.get(), static_cast<size_t>(image_bytes()), places);
}

void X11Screen::abandon() { shutdown(xcb_get_file_descriptor(m_connection.get()), SHUT_RDWR); }

void X11Screen::read_events() {
  while (const XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(m_connection.get())}) {
    if ((event->response_type & 0x7FU) != XCB_CONFIGURE_NOTIFY) continue;
    const auto* change = reinterpret_cast<const xcb_configure_notify_event_t*>(event.get());
    if (change->window == m_root) m_screen = {0, 0, change->width, change->height};
  }
}

void X11Screen::look_at_size() {
  const XcbReply<xcb_get_geometry_reply_t> reply(
      xcb_get_geometry_reply(m_connection.get(), xcb_get_geometry(m_connection.get(), m_root), nullptr));
  check_there();
  if (reply != nullptr) m_screen = {0, 0, reply->width, reply->height};
}

void X11Screen::check_there() const {
  if (xcb_connection_has_error(m_connection.get()) != 0) throw Failure("the display has gone");
}

void X11Screen::take(size_t place) {
  read_events();
  check_there();
  for (int look = 0; look < kMostLooks; ++look) {
    const Region screen = m_screen, seen = m_region.within(screen);
    if (seen.empty()) break;
    const int error = copy(seen, place);
    if (error == 0) return;
    // The screen may have become smaller since it was looked at. One that did not refuses its image for ever.
    look_at_size();
    if (look == kMostLooks - 1 && m_screen == screen) {
      throw Failure("the display gives no image: X11 error " + std::to_string(error));
    }
  }
  std::memset(image(place), 0, static_cast<size_t>(image_bytes()));
}

int X11Screen::copy(const Region& seen, size_t place) {
  xcb_connection_t* connection = m_connection.get();
  // Both are asked for at once, so that the pointer is where it was in the picture.
  const auto asked = xcb_shm_get_image(connection, m_root, static_cast<int16_t>(seen.x), static_cast<int16_t>(seen.y),
                                       static_cast<uint16_t>(seen.width), static_cast<uint16_t>(seen.height), ~0U,
                                       XCB_IMAGE_FORMAT_Z_PIXMAP, m_images->segment(), m_images->offset(place));
  const auto asked_pointer =
      m_pointer ? xcb_xfixes_get_cursor_image(connection) : xcb_xfixes_get_cursor_image_cookie_t{};
  xcb_generic_error_t* refusal = nullptr;
  const XcbReply<xcb_shm_get_image_reply_t> copied(xcb_shm_get_image_reply(connection, asked, &refusal));
  const XcbError error(refusal);
  const XcbReply<xcb_xfixes_get_cursor_image_reply_t> pointer(
      m_pointer ? xcb_xfixes_get_cursor_image_reply(connection, asked_pointer, nullptr) : nullptr);
  check_there();
  if (copied == nullptr) return error == nullptr ? -1 : error->error_code;
  spread(seen, image(place));
  if (pointer != nullptr) draw(*pointer, image(place));
  return 0;
}

/// The server wrote the rows of what was seen one after another. They go where they belong, with black around them.
void X11Screen::spread(const Region& seen, uint8_t* image) const {
  if (seen == m_region) return;
  const auto row = static_cast<size_t>(row_bytes());
  const size_t seen_row = static_cast<size_t>(seen.width) * 4;
  const auto rows = static_cast<size_t>(seen.height);
  // A region begins within the screen, so nothing is missing to the left or above; from below, no row is overwritten.
  for (size_t y = rows; y-- > 0;) {
    std::memmove(image + y * row, image + y * seen_row, seen_row);
    std::memset(image + y * row + seen_row, 0, row - seen_row);
  }
  std::memset(image + rows * row, 0, (static_cast<size_t>(m_region.height) - rows) * row);
}

void X11Screen::draw(const xcb_xfixes_get_cursor_image_reply_t& pointer, uint8_t* image) const {
  const Region place{pointer.x - pointer.xhot, pointer.y - pointer.yhot, pointer.width, pointer.height};
  if (xcb_xfixes_get_cursor_image_cursor_image_length(&pointer) < place.width * place.height) return;
  draw_pointer({xcb_xfixes_get_cursor_image_cursor_image(&pointer), place}, m_region, image);
}

}  // namespace meru_tool
