#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "byte_source.h"

namespace meru_tool {

/// A piece of a source: an image, or some samples.
struct Piece {
  uint8_t* data = nullptr;  ///< null: there is no further piece
  size_t size = 0;
};

/// How a source is cut into pieces.
struct PieceLayout {
  size_t bytes = 0;            ///< size of a piece
  size_t unit = 0;             ///< a last piece may be shorter if it is a multiple of this
  bool frame_lines = false;    ///< every piece follows a line that begins with "FRAME"
  const char* what = "image";  ///< what a piece or its unit is called in messages
};

/// Hands out the pieces of a source one after another, each valid until the next is asked for.
class PieceReader {
 public:
  PieceReader(std::unique_ptr<ByteSource> source, const PieceLayout& layout);
  virtual ~PieceReader() = default;
  PieceReader(const PieceReader&) = delete;
  PieceReader& operator=(const PieceReader&) = delete;

  /// Waits for the next piece.
  virtual Piece next() = 0;
  /// Ends a wait, from any thread; no piece follows.
  virtual void stop() = 0;
  /// What was wrong with the source, once its end has been reached; empty when nothing was.
  virtual std::string trouble() const { return m_trouble; }
  const std::string& name() const { return m_source->name(); }

 protected:
  /// Notes in `m_trouble` why the pieces end, `got` bytes into one that has `begun` if its frame line was
  /// there. @return the bytes of a shorter last piece
  size_t note_end(size_t got, bool begun);
  bool is_frame_line(const std::string& line);

  std::unique_ptr<ByteSource> m_source;
  PieceLayout m_layout;
  std::string m_trouble;
};

/// Reads ahead on a thread of its own, into a few buffers. For pipes and for sound.
class BufferedPieces : public PieceReader {
 public:
  BufferedPieces(std::unique_ptr<ByteSource> source, const PieceLayout& layout, size_t buffers);
  ~BufferedPieces() override;
  Piece next() override;
  void stop() override;
  /// Only what concerns the pieces handed out: the thread may be further ahead.
  std::string trouble() const override { return m_over ? m_trouble : std::string(); }

 private:
  void read_ahead();
  size_t read_piece(uint8_t* to);

  std::vector<std::vector<uint8_t>> m_buffers;
  std::vector<size_t> m_sizes;  // guarded by m_mutex: bytes in each buffer
  std::mutex m_mutex;
  std::condition_variable m_changed;
  size_t m_filled = 0;     // guarded by m_mutex: pieces read so far
  size_t m_taken = 0;      // guarded by m_mutex: pieces given back by the consumer
  bool m_lent = false;     // the consumer's: whether it holds a piece
  bool m_over = false;     // the consumer's: whether it has been told that no piece is left
  bool m_ended = false;    // guarded by m_mutex: no further piece will be read
  bool m_stopped = false;  // guarded by m_mutex
  std::thread m_thread;    // last: it uses the others
};

/// Maps the images of a regular file, one at a time: no copy, and no more memory than one image.
class MappedPieces : public PieceReader {
 public:
  MappedPieces(std::unique_ptr<ByteSource> source, const PieceLayout& layout);
  ~MappedPieces() override;
  Piece next() override;
  void stop() override {}

 private:
  bool skip_frame_line();
  uint8_t* map(off_t at);

  off_t m_position;
  uint8_t* m_window = nullptr;  // address range that every image is mapped into
  size_t m_window_bytes = 0;
};

std::unique_ptr<PieceReader> open_images(std::unique_ptr<ByteSource> source, const PieceLayout& layout);

}  // namespace meru_tool
