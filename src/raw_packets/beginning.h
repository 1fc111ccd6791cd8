#pragma once

#include <cstddef>
#include <cstdint>

/// Watches the first bytes of a stream for what its parameters are found from: of H.264 both parameter sets and then a
/// part of a picture, of AAC the header of a frame.
class Beginning {
 public:
  /// That of a stream of which nothing has to be found any more.
  Beginning() = default;
  /// @param format  "h264" or "aac"; that of any other is never complete
  explicit Beginning(const char* format);

  void read(const uint8_t* bytes, size_t count);
  bool is_complete() const { return m_medium == Medium::kNone; }

 private:
  enum class Medium { kNone, kPictures, kSound, kUnknown };

  bool read_picture(uint8_t byte);

  Medium m_medium = Medium::kNone;  // of which something is missing
  bool m_sequence_set = false, m_picture_set = false;
  uint32_t m_last = ~uint32_t{0};  // the last four bytes
};
