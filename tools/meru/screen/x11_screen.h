#pragma once

#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include "screen/screen_source.h"
#include "screen/shared_images.h"

namespace meru_tool {

/// An X11 screen, whose server copies the images into memory that it shares with this process. libxcb reports a lost
/// server where the older library would end the process.
class X11Screen : public ScreenSource {
 public:
  explicit X11Screen(const ScreenWish& wish);
  ~X11Screen() override;
  X11Screen(const X11Screen&) = delete;
  X11Screen& operator=(const X11Screen&) = delete;

  Region region() const override { return m_region; }
  Region screen() const override { return m_screen; }
  void take(size_t place) override;
  uint8_t* image(size_t place) override { return m_images->at(place); }
  void abandon() override;

 private:
  struct Disconnect {
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
  };

  void connect(const std::string& display);
  void check_format(const xcb_screen_t& screen) const;
  void choose_region(const Region& wished);
  void prepare_pointer();
  void watch_size() const;
  void share_images(size_t places);
  bool has(xcb_extension_t* extension) const;

  void read_events();
  void look_at_size();
  /// @return 0, or the display's error code
  int copy(const Region& seen, size_t place);
  void check_there() const;
  void draw(const xcb_xfixes_get_cursor_image_reply_t& pointer, uint8_t* image) const;
  void spread(const Region& seen, uint8_t* image) const;

  std::string m_name;
  std::unique_ptr<xcb_connection_t, Disconnect> m_connection;
  xcb_window_t m_root = XCB_NONE;
  Region m_screen, m_region;
  bool m_pointer;
  std::unique_ptr<SharedImages> m_images;
};

}  // namespace meru_tool
