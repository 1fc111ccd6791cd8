#pragma once

#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "common/ffmpeg_compat.h"
#include "common/ffmpeg_handles.h"
#include "common/forked.h"
#include "common/io_interrupt.h"
#include "common/status_relay.h"
#include "meru/raw_packets.h"
#include "output/start_gate.h"
#include "raw_packets/expected.h"
#include "raw_packets/input_buffer.h"
#include "raw_packets/open_input.h"

class Snapshot;
namespace MR {
class MR_AVWriter;
}

/// @return the container for the main output of a session, or null
const AVOutputFormat* output_format(const MovieInfo2& info);

/// The session behind a handle of raw packets: two buffers that the host fills, and a worker thread that opens the
/// output, finds the packets in the buffers again and hands them to the writer.
///
/// One thread pushes video and one audio (or one both); starting and ending come from one thread, with no push running.
/// The contexts, the writer and the side index are the worker's alone.
class AVPacketMux : public OfThisProcess {
 public:
  AVPacketMux();
  ~AVPacketMux();
  AVPacketMux(const AVPacketMux&) = delete;
  AVPacketMux& operator=(const AVPacketMux&) = delete;

  /// Copies the record, its texts included, and starts the worker. Without a thread the session is over at once, and
  /// `cb` is told why.
  void start(const MovieInfo2& info, MovieStatusCallback cb, void* user);
  /// Ends the inputs, waits until everything is written, and destroys the session. Inside a callback, and when the
  /// worker hangs in the opening of an output, nothing is waited for: the worker then destroys the session when it is
  /// through, and calls the host no more.
  static void end(AVPacketMux* session);

  InputBuffer* video() { return &m_video; }
  InputBuffer* audio() { return &m_audio; }

 private:
  /// Says, while it exists, that the worker is in a call that nothing may be able to break off.
  class Opening;

  static constexpr int kHeaderFailed = -5;

  void keep_text(const char** text);
  void worker();
  void thread_running();
  void run();
  void clear();

  bool open_output();
  nuv::Expected_<AVFormatContext*> make_output();
  int open_io(AVFormatContext* ctx);
  bool open_inputs();
  bool open_input(InputBuffer* ib, const char* format, InputBuffer* other, InputContextPtr* ctx);
  AVStream* add_stream(const AVFormatContext* input);
  bool add_streams();
  bool wants_bare_sound() const;
  void describe_bare_sound();
  void make_writer();
  bool open_snapshot();
  bool write_header();
  void copy_packets();
  void drop_writer();
  void send_pushes_away();
  bool fail(int code, const std::string& text);
  void fail_unexpectedly(int code, const char* text, const char* reason);

  void limit_outputs();
  void end_inputs();
  bool wait_for_worker();
  bool leave_to_worker();
  bool writes_files() const;

  std::unique_ptr<std::thread> m_thread;
  InputBuffer m_video;
  InputBuffer m_audio;
  InputContextPtr m_video_ctx;
  InputContextPtr m_audio_ctx;
  std::unique_ptr<meru_compat::OutputFormatCopy> m_oformat;  // before the context that uses it
  FormatContextPtr m_out_ctx;
  MovieInfo2 m_info{};  // its pointers are to m_texts
  std::list<std::string> m_texts;
  std::unique_ptr<StatusRelay> m_relay;  // the host's callback and its pointer
  std::unique_ptr<Snapshot> m_snapshot;
  AVStream* m_video_ost = nullptr;
  AVStream* m_audio_ost = nullptr;
  bool m_reorders = false;    // frames of video may come in another order than they are shown
  bool m_bare_sound = false;  // frames of sound are written without their headers
  MR::StartGate m_gate;       // of the local files that the opening creates
  IoInterrupt m_interrupt;    // of the main output
  bool m_network = false;     // the main output is not a file

  using Clock = std::chrono::steady_clock;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::unique_ptr<MR::MR_AVWriter> m_writer;        // the worker's; made, and given up, under m_mutex
  std::unique_ptr<MR::MR_AVWriter> m_ended_writer;  // for its books
  bool m_limited = false;             // guarded by m_mutex, like all that follows: live outputs have until...
  Clock::time_point m_deadline;       // ... then
  bool m_opening = false;             // the worker is in an Opening...
  Clock::time_point m_opening_since;  // ... since then
  bool m_done = false;                // the worker touches the session no more, but for destroying it
  bool m_left = false;                // the worker destroys the session
};
