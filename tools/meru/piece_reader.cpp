#include "piece_reader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "failure.h"

namespace meru_tool {

namespace {

constexpr size_t kMaxFrameLine = 255;
constexpr size_t kImageBuffers = 2;
// Converters read some bytes beyond the last pixel with their vector instructions.
constexpr size_t kPadding = 64;

size_t page_bytes() {
  static const auto bytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return bytes;
}

}  // namespace

PieceReader::PieceReader(std::unique_ptr<ByteSource> source, const PieceLayout& layout)
    : m_source(std::move(source)), m_layout(layout) {}

size_t PieceReader::note_end(size_t got, bool begun) {
  const std::string& error = m_source->error();
  if (!error.empty()) {
    m_trouble = "cannot read " + name() + ": " + error;
    return 0;
  }
  const size_t rest = got % m_layout.unit;
  if ((rest != 0 || (begun && got == 0)) && !m_source->stopped()) {
    m_trouble = name() + ": the last " + m_layout.what + " is incomplete (" + std::to_string(rest) + " of " +
                std::to_string(m_layout.unit) + " bytes) and was left out";
  }
  return got - rest;
}

bool PieceReader::is_frame_line(const std::string& line) {
  if (line == "FRAME" || line.rfind("FRAME ", 0) == 0) return true;
  m_trouble = name() + ": an image does not begin with FRAME";
  return false;
}

BufferedPieces::BufferedPieces(std::unique_ptr<ByteSource> source, const PieceLayout& layout, size_t buffers)
    : PieceReader(std::move(source), layout), m_buffers(buffers), m_sizes(buffers) {
  for (auto& buffer : m_buffers) buffer.resize(m_layout.bytes + kPadding);
  m_thread = std::thread(&BufferedPieces::read_ahead, this);
}

BufferedPieces::~BufferedPieces() {
  BufferedPieces::stop();
  m_thread.join();
}

void BufferedPieces::stop() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_stopped = true;
  m_source->stop();
  m_changed.notify_all();
}

size_t BufferedPieces::read_piece(uint8_t* to) {
  if (m_layout.frame_lines) {
    std::string line;
    if (!m_source->read_line(&line, kMaxFrameLine)) {
      note_end(line.size(), !line.empty());
      return 0;
    }
    if (!is_frame_line(line)) return 0;
  }
  const size_t got = m_source->read(to, m_layout.bytes);
  return got == m_layout.bytes ? got : note_end(got, m_layout.frame_lines);
}

void BufferedPieces::read_ahead() {
  for (size_t i = 0;; ++i) {
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_changed.wait(lock, [&] { return m_stopped || i - m_taken < m_buffers.size(); });
      if (m_stopped) break;
    }
    const size_t size = read_piece(m_buffers[i % m_buffers.size()].data());
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sizes[i % m_sizes.size()] = size;
    if (size > 0) ++m_filled;
    m_ended = size < m_layout.bytes;
    m_changed.notify_all();
    if (m_ended) break;
  }
}

Piece BufferedPieces::next() {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (m_lent) ++m_taken;
  m_lent = false;
  m_changed.notify_all();
  m_changed.wait(lock, [&] { return m_stopped || m_ended || m_filled > m_taken; });
  m_over = m_ended && m_filled == m_taken;
  if (m_stopped || m_over) return {};
  m_lent = true;
  const size_t i = m_taken % m_buffers.size();
  return {m_buffers[i].data(), m_sizes[i]};
}

MappedPieces::MappedPieces(std::unique_ptr<ByteSource> source, const PieceLayout& layout)
    : PieceReader(std::move(source), layout), m_position(m_source->position()) {
  // One page more at either end: an image need not begin on a page, and its end is followed by readable memory.
  m_window_bytes = (m_layout.bytes / page_bytes() + 3) * page_bytes();
  void* window = mmap(nullptr, m_window_bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (window == MAP_FAILED) throw Failure("cannot map " + name() + ": " + error_text(errno));
  m_window = static_cast<uint8_t*>(window);
}

MappedPieces::~MappedPieces() { munmap(m_window, m_window_bytes); }

bool MappedPieces::skip_frame_line() {
  char text[kMaxFrameLine + 1];
  const ssize_t n = pread(m_source->descriptor(), text, sizeof(text), m_position);
  if (n < 0) m_trouble = "cannot read " + name() + ": " + error_text(errno);
  if (n <= 0) return false;
  const char* const end = std::find(text, text + n, '\n');
  if (!is_frame_line(std::string(text, static_cast<size_t>(end - text)))) return false;
  m_position += end + 1 - text;
  return true;
}

/// Maps the image at an offset of the file over the one before.
uint8_t* MappedPieces::map(off_t at) {
  const auto page = static_cast<off_t>(page_bytes());
  const off_t begin = at / page * page;
  const size_t bytes = static_cast<size_t>(at - begin) + m_layout.bytes;
  void* const mapped = mmap(m_window, bytes, PROT_READ, MAP_SHARED | MAP_FIXED, m_source->descriptor(), begin);
  if (mapped == MAP_FAILED) {
    m_trouble = "cannot map " + name() + ": " + error_text(errno);
    return nullptr;
  }
#ifdef POSIX_FADV_WILLNEED
  // The disk works on the next image while this one is encoded.
  posix_fadvise(m_source->descriptor(), at + static_cast<off_t>(m_layout.bytes), static_cast<off_t>(m_layout.bytes),
                POSIX_FADV_WILLNEED);
#endif
  return m_window + (at - begin);
}

Piece MappedPieces::next() {
  if (!m_trouble.empty()) return {};
  if (m_layout.frame_lines && !skip_frame_line()) return {};
  const off_t left = m_source->file_size() - m_position;
  if (left < static_cast<off_t>(m_layout.bytes)) {
    note_end(static_cast<size_t>(std::max<off_t>(left, 0)), m_layout.frame_lines);
    return {};
  }
  uint8_t* const data = map(m_position);
  if (data == nullptr) return {};
  m_position += static_cast<off_t>(m_layout.bytes);
  return {data, m_layout.bytes};
}

std::unique_ptr<PieceReader> open_images(std::unique_ptr<ByteSource> source, const PieceLayout& layout) {
  if (source->file_size() >= 0) return std::make_unique<MappedPieces>(std::move(source), layout);
  return std::make_unique<BufferedPieces>(std::move(source), layout, kImageBuffers);
}

}  // namespace meru_tool
