#pragma once

#include <array>
#include <exception>
#include <memory>
#include <string>
#include <thread>

#include "base/base_writer.h"
#include "base/packetqueue.h"
#include "base/stream_url.h"
#include "common/ffmpeg_compat.h"

namespace MR {

/// Ends the start of a recording: what() is the text and code() the number that the host is told.
class MRException : public std::exception {
 public:
  MRException(std::string text, int code) : m_code(code), m_text(std::move(text)) {}
  const char* what() const noexcept override { return m_text.c_str(); }
  int code() const { return m_code; }

 private:
  int m_code;
  std::string m_text;
};

std::ostream& operator<<(std::ostream& out, const MRException& e);

/// Code of the exception that says that the recording was stopped while it started; never reported to the host.
constexpr int kAlreadyExited = 20;

/// Writes packets on a thread of its own, through a bounded queue, and hands each one on to further outputs, every one
/// of which is such a writer with its own context, queue and thread.
///
/// Packets handed to an output are written, or dropped and counted by reason in `m_books`.
///
/// One or two threads write packets (audio and video); starting and stopping come from one thread. A full queue blocks
/// whoever writes.
class MR_AVWriter : public BaseWriter {
 public:
  /// @param max_cache    packets that may wait
  /// @param extra_cache  how many more of them when the packet written is privileged
  /// @param url          address of a further output; null for the main writer
  MR_AVWriter(int max_cache, int extra_cache, const char* url);
  ~MR_AVWriter() override;

  void create_other_writers(const char** urls) override;
  /// Starts the threads of the chain. Throws MRException (20) when stop() has come before.
  void start() override;
  /// Ends the chain: every queue is written out, every trailer written, every further output closed.
  void stop() override;
  /// Writes the header of the main output, then opens the further outputs, live ones side by side, and writes theirs. A
  /// further output that cannot be opened is left out. Throws MRException (20) when stop() has come before.
  /// @return the main output's result
  int writeHeader(AVFormatContext* s, const char* metainfo) override;
  /// The timestamp that has to rise in each stream is the dts where frames are reordered, else the pts.
  /// @return 0 when queued, or dropped because the timestamp does not rise; negative when this output has failed. The
  ///         packet is consumed and handed on either way
  int writePacket(const AVRational* tb, AVPacket* pkt, bool flag) override;
  /// Queues the end marker in the whole chain. @return 0, or -1 when there is no writing thread
  int writeTailer() override;

  int cachedNPackets() { return m_queue->packets(); }
  /// @return whether writing has failed; what owns the main writer was told then
  bool failed() const { return m_failed; }
  bool tailer_done() const { return m_tailer_done; }
  /// @return `s` itself for the main writer, a clone of it for a further output
  AVFormatContext* prepare_fmt_ctx(AVFormatContext* s);

  /// Makes an output context like `src` for `url`, with its I/O open. @return null when that fails; nothing is left
  /// open
  AVFormatContext* clone_fmt_ctx(AVFormatContext* src, const char* url);

 private:
  static constexpr size_t kMaxStreams = OutputBooks::kStreams;

  void open_others(AVFormatContext* s, const char* metainfo);
  int open(AVFormatContext* s, const char* metainfo);
  int open_output(AVFormatContext* s, const char* metainfo);
  int open_local(const std::string& path, AVFormatContext* s, const char* metainfo);
  void abandon();
  void set_interleaving();
  int understood(int error) const;
  void log_failure(const char* url, int error) const;
  bool rises(const AVStream* st, const AVPacket* pkt);
  int enqueue(const AVStream* st, AVPacket* pkt, bool flag);
  void note_drop(Drop reason, int stream);
  void drop_queued(Drop reason);
  void start_thread();
  void running();
  int write_queued();
  int write_frame(AVPacket* pkt);
  int write_trailer();
  void fail(int error);
  void join();
  void release_connection();
  void close_clone();
  [[noreturn]] static void throw_exited(const char* log_text);

  std::unique_ptr<std::thread> m_thread;
  std::unique_ptr<PacketQueue> m_queue;
  int m_max_cache;
  int m_extra_cache;
  std::atomic<bool> m_tailer_done{false};
  std::atomic<bool> m_failed{false};  // set before the queue is aborted
  bool m_needs_trailer =
      false;          // the header is written; of the starting thread, then of the writing one, then of stop()
  std::string m_url;  // address of a further output, empty for the main writer
  int m_number = 0;   // place of a further output in the chain, 0 for the main writer
  std::atomic<bool> m_exited{false};
  std::array<std::atomic<int64_t>, kMaxStreams> m_last_pts;  // dts where the stream reorders its frames
  std::unique_ptr<MR_AVWriter> m_next_owned;                 // what m_next_writer points to
  std::unique_ptr<meru_compat::OutputFormatCopy> m_format;   // of a further output's context
  int64_t m_least_interleave_usec = 0;                       // writing thread: what the muxer needs
};

}  // namespace MR
