#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "meru/log.h"
#include "support/temp_dir.h"

extern "C" {
#include <libavutil/log.h>
}

namespace meru_fuzz {

/// Ends the fuzzer with the input at hand when something does not hold that always must.
inline void require(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "violated: %s\n", what);
  abort();
}

/// Keeps the log's lines from the terminal; they are still made.
inline void be_quiet() {
  nuv::Logger::instance()->m_callback = [](const char*, int, const char*, int, const char*) {};
  av_log_set_level(AV_LOG_QUIET);
}

inline void write_file(const std::string& path, const char* bytes, size_t size) {
  FILE* file = fopen(path.c_str(), "wb");
  require(file != nullptr, "the temporary folder can be written");
  require(fwrite(bytes, 1, size, file) == size, "the temporary folder has room");
  fclose(file);
}

/// A folder in memory for the whole run.
inline meru_test::TempDir& folder() {
  static meru_test::TempDir dir(meru_test::TempDir::fast_parent());
  return dir;
}

}  // namespace meru_fuzz
