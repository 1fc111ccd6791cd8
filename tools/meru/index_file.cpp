#include "index_file.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "failure.h"

namespace meru_tool {

namespace {

/// The number at the head of a text, 0 for an empty one.
bool read_number(const std::string& text, int64_t* value) {
  *value = 0;
  if (text.empty()) return true;
  char* end = nullptr;
  errno = 0;
  *value = std::strtoll(text.c_str(), &end, 10);
  return *end == '\0' && errno == 0;
}

/// Sums of a damaged index may be anything: they wrap.
int64_t add(int64_t a, int64_t b) { return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b)); }

int64_t decoded_length(const std::string& base64) {
  const auto characters = static_cast<int64_t>(base64.find_last_not_of('=') + 1);
  return characters * 3 / 4;
}

int64_t integer(const nlohmann::ordered_json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number_integer() ? found->get<int64_t>() : 0;
}

}  // namespace

IndexFile::IndexFile(const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) throw Failure("cannot read " + path + ": " + error_text(EISDIR));
  m_in.open(path, std::ios::binary);
  if (!m_in) throw Failure("cannot read " + path + ": " + error_text(errno));
  read_header(path);
}

void IndexFile::read_header(const std::string& path) {
  while (std::getline(m_in, m_line)) {
    if (!take_header_line(m_line)) {
      m_have_line = true;
      break;
    }
  }
  if (m_streams.empty()) throw Failure(path + " is not a side index: it describes no stream");
}

/// @return false for the first line that is none of the header
bool IndexFile::take_header_line(const std::string& line) {
  if (!line.empty() && line[0] == '#') {
    // Only the file's first line says the version.
    const size_t at = m_header_lines == 0 ? line.find("version=") : std::string::npos;
    if (at != std::string::npos) m_version = static_cast<int>(std::strtol(line.c_str() + at + 8, nullptr, 10));
    ++m_header_lines;
    return true;
  }
  nlohmann::ordered_json stream = nlohmann::ordered_json::parse(line, nullptr, false);
  if (!stream.is_object()) return false;
  if (stream.contains("qv") && stream["qv"].is_string()) {
    stream["parameters"] = decoded_length(stream["qv"].get<std::string>());
    stream.erase("qv");
  }
  if (stream.value("type", nlohmann::ordered_json()) == "audio") {
    m_audio_index = integer(stream, "index");
    m_frame_size = integer(stream, "frame_size");
  }
  ++m_header_lines;
  m_streams.push_back(std::move(stream));
  return true;
}

/// Goes to the next line of records. @return false at the end
bool IndexFile::next_line() {
  if (!std::getline(m_in, m_line)) return false;
  // Only the last line may be cut.
  if (std::exchange(m_cut, false)) ++m_damaged;
  m_at = 0;
  return true;
}

bool IndexFile::next(Packet* packet) {
  for (;;) {
    if (!m_have_line && !next_line()) return false;
    m_have_line = m_at < m_line.size();
    if (!m_have_line) continue;
    const size_t end = m_line.find(';', m_at);
    m_cut = end == std::string::npos;
    Fields fields{};
    if (!m_cut && take_record(m_line.substr(m_at, end - m_at), &fields)) {
      m_at = end + 1;
      *packet = rebuild(fields);
      return true;
    }
    if (!m_cut) ++m_damaged;
    m_have_line = false;
  }
}

bool IndexFile::take_record(const std::string& record, Fields* fields) {
  size_t at = 0;
  for (size_t i = 0; i < fields->size(); ++i) {
    const bool last = i + 1 == fields->size();
    const size_t end = last ? record.size() : record.find(',', at);
    if (end == std::string::npos || !read_number(record.substr(at, end - at), &(*fields)[i])) return false;
    at = end + 1;
  }
  return true;
}

IndexFile::Packet IndexFile::rebuild(const Fields& fields) {
  const bool audio = fields[0] == m_audio_index;
  Stamps& last = audio ? m_last_audio : m_last_video;
  last.pts = add(last.pts, fields[3]);
  last.dts = fields[4] != 0 ? add(last.dts, fields[4]) : last.pts;
  Packet packet;
  packet.stream = fields[0];
  packet.position = fields[1] != 0 ? fields[1] : m_end;
  packet.size = fields[2];
  packet.pts = last.pts;
  packet.dts = last.dts;
  packet.duration = audio && fields[5] == 0 ? m_frame_size : fields[5];
  packet.key = fields[6] != 0;
  m_end = add(packet.position, packet.size);
  return packet;
}

}  // namespace meru_tool
