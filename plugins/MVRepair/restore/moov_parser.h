#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "AVSnapshot/tiny_json.h"
#include "common/ffmpeg_handles.h"

/// What the first lines of a side index say. A kind that the index does not describe has no extradata at all.
struct MVHeader {
  int version = 0;
  int audio_index = 0;
  int video_index = 0;
  std::string video_codec;
  std::string pix_fmt;
  std::string audio_codec;
  std::string sample_fmt;
  int sample_rate = 0;
  int channels = 0;
  int frame_size = 0;  ///< samples of an audio packet
  int width = 0;
  int height = 0;
  std::optional<std::string> audio_extradata;  ///< Base64
  std::optional<std::string> video_extradata;  ///< Base64
  int video_tb_num = 0;
  int video_tb_den = 0;
  int audio_tb_num = 0;
  int audio_tb_den = 0;
};

/// Reads a side index: first its header, then its lines of packet records. The file may hold anything. One thread.
class MoovParser {
 public:
  MoovParser();
  virtual ~MoovParser();
  MoovParser(const MoovParser&) = delete;
  MoovParser& operator=(const MoovParser&) = delete;

  /// Reads the header of the index `file`, which may stand in quotes. The video's parameter sets are brought into
  /// the form that MP4 files have.
  /// @return false, with a line in the log, when the file cannot be opened or read, describes no stream, or has
  ///         parameter sets that cannot be used
  bool start(const char* file);
  /// @return the next line of records with its line feed, at most 8191 characters of it, valid until the next call;
  ///         null at the end and before a start
  char* readBody();
  /// @return whether there may be lines that could not be read
  bool unreadable() const { return body_lost || (fp != nullptr && ferror(fp.get()) != 0); }
  /// @return how much of the file was handed out, 0.0 to 1.0, or what set_progress said
  double progress() const;
  void set_progress(double progress) { progress_override = progress; }
  void reset();

  /// Replaces the video's parameter sets (Annex B in Base64) by an AVC decoder configuration record (in Base64). Empty
  /// ones are replaced by those of a common constrained-baseline stream.
  /// @return false when there is no pair of parameter sets in them
  static bool get_extradata(MVHeader& described);

  const MVHeader& get_header() const { return header; }
  /// The number of the line handed out last, header lines included.
  int line_number() const { return line_no; }

 private:
  bool read_header(FILE* index);
  bool take_stream_line(const tiny::TinyJson& json);
  bool open_body();

  std::unique_ptr<char[]> line;
  int header_lines = 0;
  std::optional<std::string> path;
  FilePtr fp;
  bool body_lost = false;  // the file could not be opened again
  MVHeader header;
  int64_t file_size = 0;
  int64_t file_pos = 0;
  int line_no = 0;
  double progress_override = -1.0;
};
