#include "screen/screen_source.h"

#ifdef MERU_HAS_X11
#include "screen/x11_screen.h"
#else
#include "failure.h"
#endif

namespace meru_tool {

#ifdef MERU_HAS_X11
std::unique_ptr<ScreenSource> open_screen(const ScreenWish& wish) { return std::make_unique<X11Screen>(wish); }
#else
std::unique_ptr<ScreenSource> open_screen(const ScreenWish&) {
  throw Failure("this meru was built without X11 support");
}
#endif

}  // namespace meru_tool
