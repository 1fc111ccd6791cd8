#pragma once

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "support/meru_tool.h"
#include "support/paced_pattern.h"
#include "support/pattern.h"
#include "support/probe.h"
#include "support/x_display.h"

namespace meru_test {

/// The first picture of a movie in BGRA.
inline std::string first_picture(const std::string& movie) {
  return decoded(movie, "-map 0:v -frames:v 1 -pix_fmt bgra -f rawvideo");
}

/// How far two pictures in BGRA are apart, on average over all values of colour.
inline double difference(const std::string& a, const std::string& b) {
  if (a.empty() || a.size() != b.size()) return 256;
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    if (i % 4 != 3) sum += std::abs(static_cast<uint8_t>(a[i]) - static_cast<uint8_t>(b[i]));
  }
  return sum / static_cast<double>(a.size() / 4 * 3);
}

/// The colour in a picture in BGRA: 0xRRGGBB.
inline uint32_t colour_at(const std::string& bgra, int width, int x, int y) {
  const size_t at = static_cast<size_t>(y * width + x) * 4;
  const auto value = [&](size_t i) { return static_cast<uint32_t>(static_cast<uint8_t>(bgra.at(at + i))); };
  return value(2) << 16U | value(1) << 8U | value(0);
}

/// Whether two colours are the same but for what an encoder makes of them.
inline bool looks_like(uint32_t a, uint32_t b) {
  for (const unsigned shift : {0U, 8U, 16U}) {
    if (std::abs(static_cast<int>(a >> shift & 0xFFU) - static_cast<int>(b >> shift & 0xFFU)) > 24) return false;
  }
  return true;
}

/// The events that the command printed; empty when one of the lines is none.
inline std::vector<nlohmann::json> events_in(const std::string& out) {
  std::vector<nlohmann::json> events;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    events.push_back(nlohmann::json::parse(line, nullptr, false));
    if (!events.back().is_object() || !events.back().contains("event") || !events.back().contains("time")) return {};
  }
  return events;
}

/// The last event of this name, null when there is none.
inline nlohmann::json event_in(const std::string& out, const std::string& name) {
  nlohmann::json found;
  for (const nlohmann::json& event : events_in(out)) {
    if (event["event"] == name) found = event;
  }
  return found;
}

/// The command recording a display in the background: small, quick to encode, and saying as JSON what happens.
class ScreenProcess : public ToolProcess {
 public:
  ScreenProcess(const ToolFolder& folder, const XDisplay& display, const std::string& arguments, int terminal = -1)
      : ToolProcess(folder, display.option() + "--audio none --preset ultrafast " + arguments, terminal, "screen") {}

  /// Waits for an event. The last line may be half a line.
  bool tells(const std::string& event) const { return says("{\"event\":\"" + event + "\""); }
  /// Waits until so much is in the movie.
  bool has_recorded(double seconds) const {
    return eventually([&] {
      const std::string text = out();
      const nlohmann::json progress = event_in(text.substr(0, text.rfind('\n') + 1), "progress");
      return !progress.is_null() && progress["time"] >= seconds;
    });
  }
};

}  // namespace meru_test
