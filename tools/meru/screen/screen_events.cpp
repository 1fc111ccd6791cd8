#include "screen/screen_events.h"

#include <cmath>

#include "console.h"

namespace meru_tool {

void ScreenEvents::tell(const char* event, double seconds, const Json& more, const std::string& line) const {
  if (!m_json) {
    if (!line.empty()) Console::instance().line(line);
    return;
  }
  Json object = {{"event", event}, {"time", std::round(seconds * 1000) / 1000}};
  object.update(more);
  // A name need not be UTF-8.
  Console::instance().data(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace meru_tool
