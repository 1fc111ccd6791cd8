#include "MVRepair/restore/regular_file.h"

#include <filesystem>
#include <system_error>

#include "common/ffmpeg_compat.h"

FilePtr open_regular_file(const std::string& path, const char* mode) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(std::filesystem::u8path(path), error)) return nullptr;
  return FilePtr(meru_compat::fopen_utf8(path.c_str(), mode));
}
