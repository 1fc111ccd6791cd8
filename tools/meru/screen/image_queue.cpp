#include "screen/image_queue.h"

namespace meru_tool {

ImageQueue::ImageQueue(size_t places) : m_places(places) {
  for (size_t place = 0; place < places; ++place) m_free.push_back(place);
}

std::optional<size_t> ImageQueue::free_place() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_free.empty() || m_closed) return std::nullopt;
  const size_t place = m_free.back();
  m_free.pop_back();
  return place;
}

void ImageQueue::put(TakenImage image) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_taken.push_back(image);
  m_changed.notify_all();
}

void ImageQueue::wait_empty() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait(lock, [this] { return m_closed || m_free.size() == m_places; });
}

std::optional<TakenImage> ImageQueue::next() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait(lock, [this] { return m_closed || !m_taken.empty(); });
  if (m_taken.empty()) return std::nullopt;
  const TakenImage image = m_taken.front();
  m_taken.pop_front();
  return image;
}

void ImageQueue::release(size_t place) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_free.push_back(place);
  m_changed.notify_all();
}

void ImageQueue::close() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_closed = true;
  m_changed.notify_all();
}

}  // namespace meru_tool
