#pragma once

#include <cstdint>
#include <string>

#include "common/ffmpeg_handles.h"

/// The movie that a repair reads packets from. The file may hold anything. One thread.
class BrokenMovie {
 public:
  /// @return whether it can be read
  bool open(const std::string& path);
  /// To be called before anything is read. Ends the movie after its last byte that is not zero: after a loss of power a
  /// file system shows zeros where data was not on the disk yet. A hole costs nothing to look through, whatever its
  /// size.
  void ignore_zero_tail();

  /// Bytes up to the end of the movie.
  int64_t size() const { return m_size; }
  int64_t position() const { return ftello(m_file.get()); }
  /// @return whether a read has reached the end of the movie; no later call takes it back
  bool ended() const { return m_ended; }
  /// @return whether a seek failed for another reason than its target: what is read next could be any bytes
  bool lost_position() const { return m_lost_position; }
  /// The first failure of the system, as opposed to damage: 0 or FFmpeg's negative error.
  int error() const { return m_error; }

  /// Goes to a position, which may lie beyond the end. @return false for one that no file has
  bool go_to(int64_t position);
  void skip(int64_t count);
  /// How many of `size` bytes can be there.
  int readable(int size) const;
  /// Reads `size` bytes into a buffer with space for readable(size) of them, or goes to where they would end.
  /// @return the bytes read
  int read(uint8_t* to, int size);
  bool read_failed() const { return ferror(m_file.get()) != 0; }

 private:
  void note_failed_seek();

  FilePtr m_file;
  int64_t m_size = 0;
  bool m_ended = false;
  bool m_lost_position = false;
  int m_error = 0;
};
