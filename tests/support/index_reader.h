#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace meru_test {

/// A whole file as it stands.
inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// A side index, read by what the description of the file format says and by nothing of the library. Strict: whatever
/// a writer must not write makes it throw.
class IndexReader {
 public:
  struct Record {
    int stream = 0;
    int64_t pos = 0;  ///< as written: 0 when the field is empty
    int64_t size = 0;
    int64_t pts_delta = 0;
    int64_t dts_delta = 0;
    int64_t duration = 0;
    int64_t key = 0;
    std::string text;
  };
  struct Packet {
    int stream = 0;
    int64_t pos = 0;
    int64_t size = 0;
    int64_t pts = 0;
    int64_t dts = 0;
    int64_t duration = 0;
    bool key = false;
  };

  explicit IndexReader(std::string text) : m_text(std::move(text)) {
    size_t at = read_comment();
    at = read_streams(at);
    read_body(at);
  }
  static IndexReader of_file(const std::string& path) { return IndexReader(read_file(path)); }

  int version = 0;
  std::vector<std::string> stream_lines;
  std::vector<nlohmann::json> streams;  ///< one for each line that is not empty
  int audio_index = -1;                 ///< the last audio stream's
  std::vector<std::string> body_lines;  ///< without the line feeds
  bool ends_with_line_feed = false;
  std::vector<Record> records;

  std::string body() const { return m_text.substr(m_body_at); }

  /// The packets that the records stand for. The duration of sound that is not written is the stream's frame size.
  std::vector<Packet> packets() const {
    struct Stamps {
      int64_t pts = 0;
      int64_t dts = 0;
    };
    std::map<bool, Stamps> last;  // of the audio kind, and of the other
    std::vector<Packet> out;
    int64_t end = 0;
    for (const Record& record : records) {
      const bool audio = record.stream == audio_index;
      Stamps& stamps = last[audio];
      Packet packet;
      packet.stream = record.stream;
      packet.pos = record.pos != 0 ? record.pos : end;
      packet.size = record.size;
      packet.pts = stamps.pts + record.pts_delta;
      packet.dts = record.dts_delta != 0 ? stamps.dts + record.dts_delta : packet.pts;
      packet.duration = record.duration == 0 && audio ? frame_size() : record.duration;
      packet.key = record.key == 1;
      stamps = {packet.pts, packet.dts};
      end = packet.pos + packet.size;
      out.push_back(packet);
    }
    return out;
  }

 private:
  std::string line_at(size_t at) const {
    const size_t end = m_text.find('\n', at);
    if (end == std::string::npos) throw std::runtime_error("header line without a line feed");
    return m_text.substr(at, end - at);
  }

  size_t read_comment() {
    const std::string line = line_at(0);
    const std::string begin = "## version=";
    if (line.rfind(begin, 0) != 0) throw std::runtime_error("first line: " + line);
    char* rest = nullptr;
    version = static_cast<int>(std::strtol(line.c_str() + begin.size(), &rest, 10));
    if (std::string(rest).rfind(", ", 0) != 0 || std::string(rest).size() < 3) throw std::runtime_error("no address");
    return line.size() + 1;
  }

  size_t read_streams(size_t at) {
    while (at < m_text.size() && (m_text[at] == '{' || m_text[at] == '\n')) {
      const std::string line = line_at(at);
      stream_lines.push_back(line);
      at += line.size() + 1;
      if (line.empty()) continue;
      streams.push_back(nlohmann::json::parse(line));
      if (streams.back().at("type") == "audio") audio_index = streams.back().at("index").get<int>();
    }
    return at;
  }

  void read_body(size_t at) {
    m_body_at = at;
    while (at < m_text.size()) {
      const size_t end = m_text.find('\n', at);
      const std::string line = m_text.substr(at, end == std::string::npos ? end : end - at);
      body_lines.push_back(line);
      read_records(line);
      ends_with_line_feed = end != std::string::npos;
      at += line.size() + (ends_with_line_feed ? 1 : 0);
    }
  }

  void read_records(const std::string& line) {
    size_t at = 0;
    while (at < line.size()) {
      const size_t end = line.find(';', at);
      if (end == std::string::npos) throw std::runtime_error("unfinished record: " + line.substr(at));
      records.push_back(read_record(line.substr(at, end + 1 - at)));
      at = end + 1;
    }
  }

  static Record read_record(const std::string& text) {
    std::vector<int64_t> fields;
    size_t at = 0;
    while (at < text.size()) {
      const size_t end = text.find_first_of(",;", at);
      fields.push_back(read_number(text.substr(at, end - at)));
      at = end + 1;
    }
    if (fields.size() != 7 || text.back() != ';') throw std::runtime_error("bad record: " + text);
    return {static_cast<int>(fields[0]), fields[1], fields[2], fields[3], fields[4], fields[5], fields[6], text};
  }

  /// Decimal without leading zeros or blanks; nothing stands for 0, which is never written.
  static int64_t read_number(const std::string& digits) {
    if (digits.empty()) return 0;
    const int64_t value = std::stoll(digits);
    if (std::to_string(value) != digits || value == 0) throw std::runtime_error("bad number: " + digits);
    return value;
  }

  int64_t frame_size() const {
    for (const auto& stream : streams) {
      if (stream.at("index") == audio_index && stream.at("type") == "audio") return stream.at("frame_size");
    }
    return 0;
  }

  std::string m_text;
  size_t m_body_at = 0;
};

}  // namespace meru_test
