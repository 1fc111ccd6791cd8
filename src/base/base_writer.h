#pragma once

#include <atomic>

#include "common/books.h"
#include "common/ffmpeg_handles.h"
#include "common/io_interrupt.h"
#include "output/encoder_delay.h"
#include "output/start_gate.h"

/// The end of the encoding chain: takes an output context, then packets, then writes the trailer. This class writes on
/// the calling thread; MR::MR_AVWriter does the same on a thread of its own and to several outputs.
class BaseWriter {
 public:
  using StatusCallback = void (*)(int id, const char* text, void* user);

  BaseWriter() = default;
  BaseWriter(const BaseWriter&) = delete;
  BaseWriter& operator=(const BaseWriter&) = delete;
  virtual ~BaseWriter() = default;

  /// Prepares further outputs at the addresses `urls`, a list that ends at the first null. The base has none.
  virtual void create_other_writers(const char** urls);
  virtual void start() {}
  virtual void stop() {}

  /// Writes the header of `s`, which stays the caller's and must outlive the writing. The container's metadata are also
  /// offered to the muxer as its options: a key that is one is consumed as such.
  /// @return FFmpeg's result, negative on failure
  virtual int writeHeader(AVFormatContext* s, const char* metainfo);
  /// Writes one packet stamped in `tb`; its content is consumed. `flag` marks a privileged packet. Null does nothing.
  /// @return 0 or a negative FFmpeg error
  virtual int writePacket(const AVRational* tb, AVPacket* pkt, bool flag);
  virtual int writeTailer();

  /// Sets `dict` from "key:value;key:value" and prints the text on stderr and each pair on stdout. Items without a
  /// colon are ignored; a repeated key replaces the earlier value.
  static void write_metainfo(AVDictionary** dict, const char* metainfo);
  void log_packet(const char* /*tag*/, const AVFormatContext* /*s*/, const AVPacket* /*pkt*/) {}

  /// Gives the opening of a live output a deadline, until it is over: ten seconds, or the time-out when that is longer.
  void limit_opening();

  StatusCallback m_status_cb = nullptr;  ///< reports failures of the writing, set by the owner before the start
  void* m_status_user = nullptr;         ///< handed to m_status_cb
  AVFormatContext* m_fmt_ctx = nullptr;  ///< set by writeHeader, not owned
  std::atomic<double> m_last_time{0.0};  ///< time of the latest packet in seconds
  BaseWriter* m_prev_writer = nullptr;   ///< the writer before this one in a chain, null for the main writer
  BaseWriter* m_next_writer = nullptr;   ///< the writer that this one hands every packet on to
  bool m_live = false;                   ///< the output is a live stream: it gets a bounded time at the end
  int m_timeout_sec = 0;                 ///< bounds each network read and write; 0 = no bound
  IoInterrupt m_interrupt;               ///< breaks off this output's blocking network calls
  bool m_extradata_apart = false;        ///< the encoder keeps its parameter sets out of the packets
  bool m_indexed = false;                ///< the output has a side index
  MR::EncoderDelay m_encoder_delay;      ///< of a main writer: what its encoder holds
  const MR::EncoderDelay* m_delay = &m_encoder_delay;  ///< the main writer's
  MR::StartGate* m_gate = nullptr;   ///< what local files of the start pass; null: nothing stops the start
  MR::OutputBooks m_books;           ///< what was handed to this output and what became of it
  IoInterrupt* m_io = &m_interrupt;  ///< what does so: its owner's, when that opened the output before this was made

 private:
  void note_streams();
};

/// As BaseWriter::write_metainfo, cutting up the caller's own text and without the heading line. Always true.
bool splite_metaInfo(AVDictionary** dict, char* metainfo);
