#include "common/c_numbers.h"

namespace nuv {

namespace {

/// Null when the system has no memory for it: numbers are then printed as the host's locale has them.
locale_t c_locale() {
  static const locale_t made = newlocale(LC_ALL_MASK, "C", nullptr);
  return made;
}

}  // namespace

// A null locale changes nothing and returns the one in use.
CNumbers::CNumbers() : m_previous(uselocale(c_locale())) {}

CNumbers::~CNumbers() { uselocale(m_previous); }

}  // namespace nuv
