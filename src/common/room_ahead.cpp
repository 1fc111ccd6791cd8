#include "common/room_ahead.h"

#ifdef __linux__

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/log_site.h"

extern "C" {
#include <libavutil/avstring.h>
}

namespace {

constexpr int64_t kAhead = int64_t{32} << 20;
constexpr int64_t kPlenty = 4 * kAhead;

/// The path of a file that FFmpeg writes by itself; null for anything else.
const char* path_of(const AVFormatContext* output) {
  if (output->url == nullptr) return nullptr;
  const char* protocol = avio_find_protocol_name(output->url);
  if (protocol == nullptr || std::strcmp(protocol, "file") != 0) return nullptr;
  const char* path = output->url;
  av_strstart(path, "file:", &path);
  return path;
}

bool has_own_io(const AVFormatContext* output) {
  return output != nullptr && output->pb != nullptr && (output->oformat->flags & AVFMT_NOFILE) == 0;
}

bool is_regular(const char* path) {
  struct stat status = {};
  return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

/// @return the size of a regular file; -1 for anything else
int64_t size_of(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

}  // namespace

RoomAhead::RoomAhead(const AVFormatContext* output) : m_output(has_own_io(output) ? output : nullptr) {}

RoomAhead::~RoomAhead() {
  give_back();
  if (m_fd >= 0) close(m_fd);
}

void RoomAhead::follow() {
  if (m_output == nullptr) return;
  const int64_t written = avio_tell(m_output->pb);
  if (written < kAhead || written + kAhead / 2 < m_end) return;
  if ((m_fd >= 0 || open_again()) && disk_has_plenty()) {
    set_aside(written);
  } else {
    give_back();
  }
}

/// @return whether the output is a file; its name may belong to another one by now
bool RoomAhead::open_again() {
  const char* path = path_of(m_output);
  if (path == nullptr || !is_regular(path)) return false;
  m_fd = open(path, O_WRONLY | O_CLOEXEC | O_NONBLOCK);  // without waiting, whatever it has become
  return m_fd >= 0 && size_of(m_fd) == avio_size(m_output->pb);
}

/// What is set aside must not be missing elsewhere: to the side index, or to another output.
bool RoomAhead::disk_has_plenty() const {
  struct statvfs disk = {};
  if (fstatvfs(m_fd, &disk) != 0) return false;
  // What f_bavail counts; some file systems leave one of the two at 0.
  const uint64_t block = disk.f_frsize != 0 ? disk.f_frsize : disk.f_bsize;
  return block != 0 && disk.f_bavail >= static_cast<uint64_t>(kPlenty) / block;
}

void RoomAhead::set_aside(int64_t written) {
  const int64_t begin = std::max(m_end, written);
  const int64_t end = written + kAhead;
  if (fallocate(m_fd, FALLOC_FL_KEEP_SIZE, begin, end - begin) == 0) {
    m_end = end;
  } else if (errno != EINTR) {
    if (errno == ENOSPC || errno == EDQUOT) m_end = end;  // it may have set a part aside
    MERU_LOG(5, "no room is set aside: %s", AvError(AVERROR(errno)).text);
    give_back();
  }
}

/// Sets nothing aside any more.
void RoomAhead::give_back() {
  const AVFormatContext* const output = std::exchange(m_output, nullptr);
  if (output == nullptr || m_end == 0) return;
  // A file system that tells of what was written only later must not have it cut off.
  const int64_t size = size_of(m_fd);
  if (size < avio_size(output->pb)) return;
  // To the size that it has, which frees what lies behind. When that fails the file is as good, and larger on the disk.
  if (ftruncate(m_fd, size) != 0) MERU_LOG(4, "room could not be given back: %s", AvError(AVERROR(errno)).text);
}

#else

RoomAhead::RoomAhead(const AVFormatContext* /*output*/) {}
RoomAhead::~RoomAhead() = default;
void RoomAhead::follow() {}

#endif
