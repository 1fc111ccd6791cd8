#pragma once

#include <list>

namespace nuv {

/// Keeps the links of lists for reuse, so that an element that enters and leaves a list costs no allocation once there
/// are as many links as elements at the busiest moment. One owner, no lock of its own.
template <class T>
class SpareLinks {
 public:
  /// Makes one link more. Throws std::bad_alloc, and has then changed nothing.
  void add() { m_spare.emplace_back(); }
  /// Gives one unused link back to the system, if there is one.
  void remove() {
    if (!m_spare.empty()) m_spare.pop_front();
  }

  /// Appends `value`. Allocates, and so can throw std::bad_alloc, only when no link is spare.
  void push_back(std::list<T>* list, const T& value) {
    if (m_spare.empty()) add();
    m_spare.front() = value;
    list->splice(list->end(), m_spare, m_spare.begin());
  }
  /// Removes the first element, keeping its link. The list must not be empty.
  void pop_front(std::list<T>* list) { m_spare.splice(m_spare.begin(), *list, list->begin()); }

 private:
  std::list<T> m_spare;
};

}  // namespace nuv
