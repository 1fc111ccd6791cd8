#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

namespace meru_tool {

/// An image that was captured.
struct TakenImage {
  size_t place = 0;        ///< where it is held
  int64_t taken_usec = 0;  ///< on the library's clock
};

/// The images between the thread that captures and the one that pushes. An encoder is sometimes busy for longer than
/// the time between two images; they wait here meanwhile.
class ImageQueue {
 public:
  explicit ImageQueue(size_t places);

  /// The capturing thread: a place to capture into, none when all hold images that wait.
  std::optional<size_t> free_place();
  void put(TakenImage image);
  /// The capturing thread: waits until all images are pushed, or nobody will.
  void wait_empty();

  /// The pushing thread: waits for the next image. None when there will be no more.
  std::optional<TakenImage> next();
  /// The pushing thread is done with it.
  void release(size_t place);

  /// Nothing more is put in; or nothing more is taken out.
  void close();

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  const size_t m_places;
  std::vector<size_t> m_free;      // guarded by m_mutex
  std::deque<TakenImage> m_taken;  // guarded by m_mutex
  bool m_closed = false;           // guarded by m_mutex
};

}  // namespace meru_tool
