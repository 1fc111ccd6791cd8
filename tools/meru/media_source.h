#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "movie_shape.h"
#include "piece_reader.h"
#include "record_options.h"

namespace meru_tool {

/// One track's source. It counts in units: images, or samples of every channel. Used by one thread, but for stop().
class MediaSource {
 public:
  virtual ~MediaSource() = default;

  /// Waits for the first piece, before there is a session. @return false when the source holds none
  virtual bool ready() { return true; }
  /// Pushes what has to be pushed before any other track is. @return the units pushed
  virtual int64_t prime(void* /*session*/) { return 0; }
  /// Fetches the next piece, of at most `room` units where it can be cut. @return false at the end
  virtual bool next(int64_t room) = 0;
  /// Units of the piece fetched.
  virtual int64_t units() const = 0;
  /// Pushes the piece fetched. @return the library's result, negative when the encoder or the output failed
  virtual int push(void* session) = 0;
  /// Time of unit `index` in microseconds.
  virtual int64_t time_of(int64_t index) const = 0;
  /// Units in a duration, at least one.
  virtual int64_t units_in(double seconds) const = 0;
  /// Whether it goes on for ever.
  virtual bool endless() const { return false; }
  /// Ends a wait for a piece, from any thread.
  virtual void stop() {}
  /// What was wrong with the source, once it has ended.
  virtual std::string trouble() const { return {}; }
  virtual std::string name() const { return "the test source"; }
};

/// The source of the images, and what it says of them; null when there is to be no video.
std::unique_ptr<MediaSource> open_video(const RecordOptions& options, VideoShape* shape);
/// The source of the sound; null when there is to be none.
std::unique_ptr<MediaSource> open_audio(const RecordOptions& options);

}  // namespace meru_tool
