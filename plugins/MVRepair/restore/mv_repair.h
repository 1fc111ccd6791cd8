#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "MVRepair/restore/broken_movie.h"
#include "MVRepair/restore/moov_parser.h"
#include "MVRepair/restore/packet_record.h"
#include "common/ffmpeg_handles.h"
#include "common/forked.h"
#include "common/room_ahead.h"

/// Rebuilds a movie that was cut short from the packets in it and its side index.
///
/// One repair at a time and object. stop() and is_running() may be called from any thread. An object that a shared_ptr
/// holds lives at least as long as its repair's thread.
class MVRepair : public std::enable_shared_from_this<MVRepair>, public OfThisProcess {
 public:
  /// Progress from 0.0 to 1.0, a code, and a text that is valid during the call.
  using Callback = std::function<void(double, int, const char*)>;

  MVRepair();
  /// Stops what still runs.
  ~MVRepair();
  MVRepair(const MVRepair&) = delete;
  MVRepair& operator=(const MVRepair&) = delete;

  /// Repairs on a thread of its own; a stopped object reports -5 instead. The paths are copied.
  /// @throws std::system_error "thread constructor failed"
  void start_async(const char* broken, const char* moov, const char* output, Callback on_report);
  /// Repairs on the calling thread. @return whether the new movie was completed
  bool start_sync(const char* broken, const char* moov, const char* output, Callback on_report);
  /// Ends the repair after the current line of the index and waits for its thread. Called by that thread itself, from
  /// inside the callback, it does not wait, and no further callback comes. Works once.
  void stop();
  bool is_running() const { return running; }

  /// The line on standard output that precedes each report.
  static void print_progress(double progress);

  /// The whole repair; a null path is one that cannot be used. @return true also when FFmpeg ended with end of file
  bool work_running(const char* broken, const char* moov, const char* output);

 private:
  /// What came into the new movie.
  struct Totals {
    int64_t packets = 0;
    int64_t bytes = 0;
    double duration_sec = 0;
  };

  bool repair(const char* broken, const char* moov, const char* output);
  std::thread take_thread();
  bool is_own_thread();
  void on_progress(double progress, int code, const char* msg);
  int rebuild(const char* output, const std::string& broken_path, const std::string& moov, BrokenMovie* broken,
              MoovParser& parser);
  bool restore_packages(AVFormatContext* out, BrokenMovie* broken, MoovParser& parser, RoomAhead* room);
  void remux_packets(const char* line, BrokenMovie* broken, AVFormatContext* out, const MoovParser& parser);
  bool restore_packet(const PacketRecord& record, BrokenMovie* broken, AVFormatContext* out, const MVHeader& header);
  bool write(const PacketRecord& record, AVFormatContext* out, const MoovParser& parser, const char* rest);
  int64_t duration_of(const PacketRecord& record, const AVStream* st, const MVHeader& header);
  void follow(const PacketRecord& record, const MVHeader& header);
  void pass_over(const PacketRecord& record, BrokenMovie* broken, const MVHeader& header);
  static bool seek_to(const PacketRecord& record, BrokenMovie* broken);
  bool read_bytes(const PacketRecord& record, BrokenMovie* broken);
  bool grow_buffer(int size);

  int64_t audio_pts = 0;
  int64_t audio_dts = 0;
  int64_t video_pts = 0;
  int64_t video_dts = 0;
  int64_t video_step = 0;  // from the last video dts but one to the last; 0 when there are no two
  bool video_begun = false;
  std::unique_ptr<uint8_t, FreeWith<av_free>> buffer;
  int buffer_size = 0;
  Callback callback;
  std::mutex thread_mutex;
  std::thread thread;  // guarded by thread_mutex
  std::atomic<bool> aborted{false};
  std::atomic<bool> running{false};
  std::atomic<bool> silent{false};  // stopped from inside the callback: the host is told no more
  PacketPtr packet;
  Totals totals;
  int failure = 0;  // of the system, as opposed to damage: the movie is completed, and not called whole
};
