#pragma once

#include <cstddef>
#include <cstdint>

/// @return whether a frame of AAC begins here: a header of ADTS that says something possible
bool is_adts_header(const uint8_t* bytes, size_t count);

/// @return the size of a frame as its header says, the header included
int adts_frame_size(const uint8_t* header);

/// Keeps a damaged frame of AAC from costing those after it. A demuxer that loses its place looks for the next bytes
/// that look like a header, which may be in the middle of a frame, and a damaged length makes it pass over whole
/// frames. Hosts push whole frames, so the next one is known to begin with the next push: what does not fit into a push
/// is overwritten with zero bytes, in which no frame is found. A host that pushes other parts of the stream is left
/// alone.
class AdtsGuard {
 public:
  /// Looks at the next pushed packet, in the order of the stream, before the demuxer reads it.
  void check(uint8_t* data, size_t size);

 private:
  int64_t m_whole = 0;   // pushes of whole frames, one after the other, since the beginning
  bool m_parts = false;  // the host pushes parts of frames
};
