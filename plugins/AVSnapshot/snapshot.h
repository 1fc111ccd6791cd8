#pragma once

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_set>

#include "AVSnapshot/line_cache.h"
#include "common/ffmpeg_handles.h"

/// Writes the side index of one output: the streams' parameters, and for every packet where its bytes lie in the movie.
///
/// It does not wrap the muxer's calls: it puts hooks into the private copy of the output format that the context works
/// on, so that every header and packet passes it, on whatever thread the muxer is called. One object is touched by that
/// one thread only; deleting it while another output's hook runs is safe.
class Snapshot {
 public:
  Snapshot();
  /// Unregisters, then writes out what is pending and closes the file.
  virtual ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  /// Creates the index file, replacing an earlier one. @return whether it is open; false when one was open already
  bool open(const char* path);
  /// Installs the hooks on `oc`, which must have its I/O open and its header not yet written. The index's own header is
  /// written when the muxer writes its. @return whether the output is indexed from now on
  bool write_header(AVFormatContext* oc);
  /// How much of the recording at most is kept from the operating system.
  void flush_every(int64_t usec) { flush_interval_usec = usec; }
  /// Writes the finished records to the file, without ending the line.
  void flush();
  void close();
  int version() const { return 2; }

  bool is_audio_packet(const AVPacket* pkt) const { return pkt != nullptr && pkt->stream_index == audio_index; }

  /// The hooks. An output whose Snapshot is gone just reaches its muxer.
  static int static_write_header(AVFormatContext* oc);
  static int static_write_packet(AVFormatContext* oc, AVPacket* pkt);

 private:
  int filter_write_header(AVFormatContext* oc);
  int filter_packet(AVFormatContext* oc, AVPacket* pkt);
  void write_stream_lines(const AVFormatContext* oc);
  void record_previous(const AVFormatContext* oc, const AVPacket* pkt, int64_t pos);
  void remember(const AVPacket* pkt, int64_t pos);
  void put_pending();
  void flush_file();
  void flush_if_due(AVFormatContext* oc, const AVPacket* pkt);

  std::mutex file_mutex;  // held by what a start that is abandoned may meet: the stream lines, and the closing
  FilePtr fp;
  LineCache cache;
  int packet_count = 0;
  int last_stream_index = 0;
  int last_key_flag = 0;
  int64_t last_pos = 0;
  int last_size = 0;
  int64_t last_pts_delta = 0;
  int64_t last_dts_delta = 0;
  int64_t last_duration = 0;
  int64_t audio_pts = 0;
  int64_t audio_dts = 0;
  int64_t video_pts = 0;
  int64_t video_dts = 0;
  int video_index = -1;
  int audio_index = -1;
  size_t cache_written = 0;  // characters of the cache that are in the file already
  // Below half a second, since the packet that finds the flush due comes up to a packet's duration later.
  int64_t flush_interval_usec = 400000;
  int64_t last_flush_usec = 0;  // steady clock
  int64_t last_flush_media_usec = 0;
};

/// The Snapshots that exist: a hook may run for an output whose Snapshot is deleted.
class GlobalSnapshots {
 public:
  static GlobalSnapshots& instance();
  void add(const Snapshot* snapshot);
  void del(const Snapshot* snapshot);
  bool have(const Snapshot* snapshot);

 private:
  std::shared_mutex m_mutex;
  std::unordered_set<const Snapshot*> m_set;  // guarded by m_mutex
};
