#include "output/local_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/avstring.h>
}

namespace fs = std::filesystem;

namespace MR {

namespace {

/// The place that a path means: existing folders resolved, the final links followed, also to a file that is not there.
fs::path place_of(const std::string& path) {
  constexpr int kMostLinks = 40;
  std::error_code error;
  fs::path place = fs::absolute(fs::u8path(path), error);
  for (int i = 0; i < kMostLinks && fs::is_symlink(fs::symlink_status(place, error)); ++i) {
    const fs::path target = fs::read_symlink(place, error);
    if (error) break;
    place = place.parent_path() / target;
  }
  const fs::path resolved = fs::weakly_canonical(place, error);
  return error ? place.lexically_normal() : resolved;
}

}  // namespace

std::string local_path(const char* url) {
  if (url == nullptr || *url == '\0') return {};
  const char* protocol = avio_find_protocol_name(url);
  if (protocol == nullptr || strcmp(protocol, "file") != 0) return {};
  av_strstart(url, "file:", &url);
  std::error_code error;
  const fs::file_status status = fs::status(fs::u8path(url), error);
  return !fs::exists(status) || fs::is_regular_file(status) ? url : "";
}

bool same_file(const std::string& a, const std::string& b) {
  if (a.empty() || b.empty()) return false;
  std::error_code error;
  if (fs::equivalent(fs::u8path(a), fs::u8path(b), error) && !error) return true;
  return place_of(a) == place_of(b);
}

CreatedFile::CreatedFile(std::string path) : m_path(std::move(path)) {
  struct stat status = {};
  m_created = !m_path.empty() && lstat(m_path.c_str(), &status) != 0;
}

void CreatedFile::opened() {
  struct stat status = {};
  if (!m_created) return;
  m_created = lstat(m_path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  m_device = status.st_dev;
  m_inode = status.st_ino;
}

void CreatedFile::remove() const {
  struct stat status = {};
  if (!m_created || lstat(m_path.c_str(), &status) != 0) return;
  if (status.st_dev == m_device && status.st_ino == m_inode) unlink(m_path.c_str());
}

}  // namespace MR
