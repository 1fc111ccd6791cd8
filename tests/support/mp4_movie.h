#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace meru_test {

/// The tables of a finished MP4 or MOV file, read by the container's description alone. Strict: a file that was not
/// completed, or whose tables do not fit together or into the file, makes it throw.
class Mp4Movie {
 public:
  struct Sample {
    uint64_t offset = 0;
    uint64_t size = 0;
  };
  struct Track {
    std::string handler;  ///< "vide" or "soun"
    std::vector<Sample> samples;
  };

  explicit Mp4Movie(const std::string& bytes) : m_bytes(bytes) {
    bool found = false;
    for_boxes(0, m_bytes.size(), [&](const std::string& type, size_t begin, size_t end) {
      if (type != "moov") return;
      found = true;
      for_boxes(begin, end, [&](const std::string& inner, size_t b, size_t e) {
        if (inner == "trak") read_track(b, e);
      });
    });
    if (!found) throw std::runtime_error("no moov box");
  }

  std::vector<Track> tracks;

  /// The samples of all tracks, in no particular order.
  std::vector<Sample> samples() const {
    std::vector<Sample> all;
    for (const Track& track : tracks) all.insert(all.end(), track.samples.begin(), track.samples.end());
    return all;
  }

  /// Where the first box of this type begins.
  static size_t find_box(const std::string& bytes, const std::string& wanted) {
    Mp4Movie reader(bytes, 0);
    size_t at = std::string::npos;
    reader.for_boxes(0, bytes.size(), [&](const std::string& type, size_t begin, size_t) {
      if (type == wanted && at == std::string::npos) at = begin - 8;
    });
    return at;
  }

 private:
  struct Tables {
    std::vector<uint64_t> chunks;
    std::vector<uint64_t> sizes;
    std::vector<std::pair<uint64_t, uint64_t>> runs;  ///< first chunk (from 1), samples per chunk
  };

  Mp4Movie(const std::string& bytes, int) : m_bytes(bytes) {}

  uint64_t number(size_t at, size_t length) const {
    if (at + length > m_bytes.size()) throw std::runtime_error("box cut short");
    uint64_t value = 0;
    for (size_t i = 0; i < length; ++i) value = value << 8 | static_cast<unsigned char>(m_bytes[at + i]);
    return value;
  }

  template <class Visit>
  void for_boxes(size_t begin, size_t end, Visit visit) const {
    while (begin < end) {
      uint64_t size = number(begin, 4);
      const std::string type = m_bytes.substr(begin + 4, 4);
      size_t head = 8;
      if (size == 1) {
        size = number(begin + 8, 8);
        head = 16;
      }
      if (size < head || size > end - begin) throw std::runtime_error("box \"" + type + "\" does not fit");
      visit(type, begin + head, begin + size);
      begin += size;
    }
  }

  void read_track(size_t begin, size_t end) {
    Track track;
    Tables tables;
    read_inner(begin, end, &track, &tables);
    place(tables, &track);
    tracks.push_back(track);
  }

  void read_inner(size_t begin, size_t end, Track* track, Tables* tables) const {
    for_boxes(begin, end, [&](const std::string& type, size_t b, size_t e) {
      if (type == "mdia" || type == "minf" || type == "stbl") read_inner(b, e, track, tables);
      if (type == "hdlr" && track->handler.empty()) track->handler = m_bytes.substr(b + 8, 4);
      if (type == "stco" || type == "co64") {
        const size_t width = type == "stco" ? 4 : 8;
        for (uint64_t i = 0, n = number(b + 4, 4); i < n; ++i)
          tables->chunks.push_back(number(b + 8 + i * width, width));
      }
      if (type == "stsz") {
        const uint64_t all = number(b + 4, 4);
        for (uint64_t i = 0, n = number(b + 8, 4); i < n; ++i) {
          tables->sizes.push_back(all != 0 ? all : number(b + 12 + i * 4, 4));
        }
      }
      if (type == "stsc") {
        for (uint64_t i = 0, n = number(b + 4, 4); i < n; ++i) {
          tables->runs.emplace_back(number(b + 8 + i * 12, 4), number(b + 12 + i * 12, 4));
        }
      }
    });
  }

  void place(const Tables& tables, Track* track) const {
    size_t run = 0;
    size_t next = 0;
    for (size_t chunk = 0; chunk < tables.chunks.size(); ++chunk) {
      while (run + 1 < tables.runs.size() && tables.runs[run + 1].first <= chunk + 1) ++run;
      if (tables.runs.empty()) throw std::runtime_error("chunks without samples");
      uint64_t offset = tables.chunks[chunk];
      for (uint64_t i = 0; i < tables.runs[run].second; ++i) {
        if (next >= tables.sizes.size()) throw std::runtime_error("samples without a size");
        const uint64_t size = tables.sizes[next++];
        if (offset + size > m_bytes.size()) throw std::runtime_error("sample outside the file");
        track->samples.push_back({offset, size});
        offset += size;
      }
    }
    if (next != tables.sizes.size()) throw std::runtime_error("samples without a place");
  }

  const std::string& m_bytes;
};

}  // namespace meru_test
