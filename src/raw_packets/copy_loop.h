#pragma once

#include <array>
#include <cstddef>
#include <memory>

#include "base/base_writer.h"
#include "common/ffmpeg_handles.h"
#include "raw_packets/input_reader.h"

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
  /// @return why an input cannot be recorded, for the host; null unless that has ended the run
  const char* refused() const { return m_refused; }

 private:
  /// An input that has a demuxer.
  struct Side {
    MuxInput* input = nullptr;
    std::unique_ptr<InputReader> reader;
    PacketPtr pending;
  };

  void copy();
  void prime();
  bool rests() const;
  bool any_pending() const;
  bool read_rested();
  bool read_next(Side* side);
  void note_failure(const char* doing, int error);
  void note_read_failure(const Side& side, int error);
  Side* earliest();
  int write(MuxInput* input, AVPacket* packet);
  bool drop_late(MuxInput* input, const AVPacket* packet);
  void settle();

  MuxInput* m_inputs[2];
  BaseWriter* m_writer;
  int m_error = 0;
  const char* m_refused = nullptr;
  std::array<Side, 2> m_sides;
};
