#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

struct AVBSFContext;
struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace meru_tool {

/// One medium of a file, packet by packet, in the form that the library takes: H.264 with start codes, AAC in ADTS.
///
/// The file is an elementary stream, which FFmpeg's parser splits, or a movie, whose packets are brought into that
/// form. One thread.
class PacketSource {
 public:
  enum Kind { kVideo, kAudio };
  struct Packet {
    const uint8_t* data = nullptr;  ///< valid until the next packet is read
    int size = 0;
    int64_t pts_usec = 0;  ///< as the file has it
    int64_t dts_usec = 0;  ///< the same as the pts unless `exact`
    bool exact = false;    ///< both are the file's
  };

  /// @param elementary  whether the file is an elementary stream, stamped from 0 on
  /// @param fps         images per second of an elementary stream; 0 for what the stream says, else 25
  /// Throws a Failure when the file cannot be read, lacks the medium, or holds it in another codec.
  PacketSource(std::string path, Kind kind, bool elementary, double fps);
  ~PacketSource();
  PacketSource(const PacketSource&) = delete;
  PacketSource& operator=(const PacketSource&) = delete;

  /// What a file holds.
  struct Contents {
    bool video = false, audio = false;
    bool elementary = false;  ///< one medium alone, without time stamps
  };
  /// Throws a Failure when the file cannot be read.
  static Contents look_into(const std::string& path);

  const std::string& path() const { return m_path; }
  /// The smallest time in microseconds at which something is shown or heard; to be taken off of all media of a movie
  /// alike. What a trimmed movie hides before it, and decoding, then have negative timestamps, which say the same in
  /// the remuxed movie. INT64_MAX when there is no packet. Throws as next().
  int64_t start_usec();
  /// @return false at the end. Throws a Failure when the file is damaged.
  bool next(Packet* packet);

 private:
  struct Free {
    void operator()(AVFormatContext* p) const;
    void operator()(AVPacket* p) const;
    void operator()(AVBSFContext* p) const;
  };
  class AdtsWriter;

  void open(bool elementary);
  void check_codec() const;
  void make_annex_b_filter();
  void add_parameter_sets();
  bool read();
  bool read_filtered();
  void read_ahead();
  bool take_ahead();
  void guess_dts();
  void choose_timestamps();
  int64_t to_usec(int64_t ticks) const;
  void stamp(Packet* packet);
  int64_t elementary_stamp();

  std::string m_path;
  Kind m_kind;
  bool m_elementary;
  double m_fps;
  std::unique_ptr<AVFormatContext, Free> m_format;
  std::unique_ptr<AVPacket, Free> m_packet;
  std::unique_ptr<AVBSFContext, Free> m_filter;  // movies with H.264 in length-prefixed form
  std::unique_ptr<AdtsWriter> m_adts;            // movies with AAC
  AVStream* m_stream = nullptr;
  int64_t m_count = 0;                                  // packets delivered
  double m_sound_usec = 0;                              // of an elementary stream, read so far
  std::deque<std::unique_ptr<AVPacket, Free>> m_ahead;  // of a movie: read, not delivered
  bool m_at_end = false;                                // of a movie: all is read
  bool m_chosen = false, m_exact = false;               // of a movie: whether both timestamps are used
  int64_t m_last_dts = INT64_MIN;                       // of a movie, in its time base
};

}  // namespace meru_tool
