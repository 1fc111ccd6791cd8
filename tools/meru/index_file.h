#pragma once

#include <array>
#include <cstdint>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace meru_tool {

/// Reads a side index by the description of its format, one packet after another, whatever its length.
class IndexFile {
 public:
  struct Packet {
    int64_t stream = 0;
    int64_t position = 0;  ///< in the movie; not known behind a damaged record
    int64_t size = 0;
    int64_t pts = 0, dts = 0, duration = 0;  ///< in the stream's time base
    bool key = false;
  };

  /// Throws a Failure when the file cannot be read or describes no stream.
  explicit IndexFile(const std::string& path);

  int version() const { return m_version; }
  /// The streams as their lines have them, "qv" replaced by "parameters", its length in bytes.
  const std::vector<nlohmann::ordered_json>& streams() const { return m_streams; }
  /// @return false at the end
  bool next(Packet* packet);
  /// Whether records of this version can be read.
  bool readable() const { return m_version == 1 || m_version == 2; }
  /// Records read so far that could not be read; the rest of their line is left out.
  int damaged() const { return m_damaged; }
  /// Whether the last line ends in the middle of a record, as a recording that was cut leaves it.
  bool cut() const { return m_cut; }

 private:
  using Fields = std::array<int64_t, 7>;

  void read_header(const std::string& path);
  bool take_header_line(const std::string& line);
  bool next_line();
  static bool take_record(const std::string& record, Fields* fields);
  Packet rebuild(const Fields& fields);

  std::ifstream m_in;
  int m_version = 0;
  int m_header_lines = 0;
  std::vector<nlohmann::ordered_json> m_streams;
  int64_t m_audio_index = -1, m_frame_size = 0;
  std::string m_line;  // of records
  size_t m_at = 0;
  bool m_have_line = false;
  int64_t m_end = 0;  // where the last packet ended in the movie
  struct Stamps {
    int64_t pts = 0, dts = 0;
  } m_last_audio, m_last_video;
  int m_damaged = 0;
  bool m_cut = false;
};

}  // namespace meru_tool
