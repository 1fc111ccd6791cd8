#pragma once

#include <clocale>
#ifdef __APPLE__
#include <xlocale.h>
#endif

namespace nuv {

/// While one exists, the calling thread prints numbers as the C locale does, with a point, whatever locale the host has
/// set: other programs read them. The host's locale and other threads are not touched.
class CNumbers {
 public:
  CNumbers();
  ~CNumbers();
  CNumbers(const CNumbers&) = delete;
  CNumbers& operator=(const CNumbers&) = delete;

 private:
  locale_t m_previous;
};

}  // namespace nuv
