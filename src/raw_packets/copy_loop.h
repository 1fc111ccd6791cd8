#pragma once

#include <cstdint>
#include <limits>
#include <map>

#include "base/base_writer.h"
#include "common/ffmpeg_handles.h"
#include "raw_packets/input_buffer.h"

/// One input of a session of packets, as the copying sees it.
struct MuxInput {
  const char* name;           ///< for the log
  AVFormatContext* ifmt_ctx;  ///< its demuxer, null when there is none
  InputBuffer* buffer;
  AVStream* ost;                                            ///< the output stream made for it
  bool bare = false;                                        ///< frames of sound are written without their headers
  int64_t last_pts = 0;                                     ///< of the packet written last, microseconds
  int64_t step = 0;                                         ///< from the one before it to that packet
  int64_t last_tick = std::numeric_limits<int64_t>::min();  ///< the same packet's stamp as the output has it
  bool damaged = false;                                     ///< something in it was no packet
};

/// Copies packets from the inputs to a writer, the smallest time stamp first, until all inputs have ended.
///
/// Reading waits for the host, but not for a medium that rests while the other's host is held back: then the other one
/// goes on alone. At most one packet of each input is held. What is damaged is left out.
class CopyLoop {
 public:
  /// Everything stays the caller's and must outlive the loop. The output's header must be written.
  CopyLoop(MuxInput* video, MuxInput* audio, BaseWriter* writer) : m_inputs{video, audio}, m_writer(writer) {}

  /// Ends at the end of all inputs, or at the first error behind their first packets, which it logs. @return 0 or the
  /// error
  int run();

 private:
  void copy();
  void prime();
  bool rests() const;
  bool read_rested();
  int read(MuxInput* input);
  int read_undamaged(MuxInput* input);
  static void note_damage(MuxInput* input, int error);
  bool read_next(MuxInput* input);
  void note_failure(const char* doing, int error);
  MuxInput* earliest() const;
  int write(MuxInput* input, AVPacket* packet);

  MuxInput* m_inputs[2];
  BaseWriter* m_writer;
  int m_error = 0;
  PacketPtr m_work;
  std::map<AVFormatContext*, PacketPtr> m_pending;
};
