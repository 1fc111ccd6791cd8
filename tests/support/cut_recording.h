#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/host.h"
#include "support/index_reader.h"
#include "support/meru_tool.h"
#include "support/mp4_movie.h"
#include "support/temp_dir.h"

namespace meru_test {

/// A recording with its side index, and a copy of it as an interrupted recording leaves it: every packet there, and no
/// table of them.
class CutRecording {
 public:
  struct Kind {
    const char* name;
    const char* extension;
    bool no_video;
    bool no_audio;
  };

  explicit CutRecording(const Kind& kind, int images = 50, int width = 64, int height = 48, int fps = 25)
      : whole(m_dir.file(std::string("whole.") + kind.extension)),
        broken(m_dir.file(std::string("broken.") + kind.extension)),
        index(m_dir.file("broken.idx")),
        output(m_dir.file(std::string("repaired.") + kind.extension)) {
    MovieInfo info = small_movie(whole);
    set_text(info.snapshot_path, index);
    info.no_video = kind.no_video;
    info.no_audio = kind.no_audio;
    info.width = info.width_src = width;
    info.height = info.height_src = height;
    info.fps = fps;
    info.tune = TUNE_ZEROLATENCY;
    Host host(info);
    host.push_scene(images, 5 * kUsecPerSec);
    host.stop();
    const std::string bytes = file_text(whole);
    const size_t table = Mp4Movie::find_box(bytes, "moov");
    if (table == std::string::npos) throw std::runtime_error("no recording");
    write_file(broken, bytes.substr(0, table));
  }

  std::string file(const std::string& name) const { return m_dir.file(name); }
  std::string path() const { return m_dir.path(); }

 private:
  TempDir m_dir{TempDir::fast_parent()};

 public:
  const std::string whole, broken, index, output;
};

/// The bytes of every sample of a movie, stream by stream, sorted, so that the order of writing does not matter.
inline std::vector<std::string> sorted_samples(const std::string& path) {
  const std::string bytes = file_text(path);
  std::vector<std::string> data;
  for (const Mp4Movie::Sample& sample : Mp4Movie(bytes).samples())
    data.push_back(bytes.substr(sample.offset, sample.size));
  std::sort(data.begin(), data.end());
  return data;
}

/// The bytes that an index names in a broken movie, sorted.
inline std::vector<std::string> sorted_named_bytes(const std::string& index, const std::string& broken) {
  const std::string bytes = file_text(broken);
  std::vector<std::string> data;
  for (const IndexReader::Packet& packet : IndexReader::of_file(index).packets()) {
    data.push_back(bytes.substr(static_cast<size_t>(packet.pos), static_cast<size_t>(packet.size)));
  }
  std::sort(data.begin(), data.end());
  return data;
}

}  // namespace meru_test
