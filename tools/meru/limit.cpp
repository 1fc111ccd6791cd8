#include "limit.h"

#include <cstdio>

#include "failure.h"

namespace meru_tool {

void Limit::check() const {
  if (value >= low && value <= high) return;
  char text[160];
  std::snprintf(text, sizeof(text), "%s: %g is not between %g and %g", option, value, low, high);
  throw UsageError(text);
}

}  // namespace meru_tool
