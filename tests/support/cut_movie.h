#pragma once

#include <stdexcept>
#include <string>

#include "support/meru_tool.h"

namespace meru_test {

/// A movie without its own table: everything up to it, as a kill leaves it.
inline void cut_before_table(const std::string& movie, const std::string& broken) {
  const std::string bytes = file_text(movie);
  const size_t table = bytes.rfind("moov");
  if (table == std::string::npos) throw std::runtime_error("no table in " + movie);
  write_file(broken, bytes.substr(0, table - 4));
}

}  // namespace meru_test
