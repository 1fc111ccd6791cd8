#include "MVRepair/restore/broken_movie.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "MVRepair/restore/regular_file.h"

namespace {

constexpr int64_t kBlock = int64_t{1} << 18;

/// @return whether the file system says that [begin, end) is a hole
bool is_hole(FILE* file, int64_t begin, int64_t end) {
#ifdef SEEK_DATA
  const int fd = fileno(file);
  const off_t before = fd >= 0 ? lseek(fd, 0, SEEK_CUR) : -1;
  if (before < 0) return false;
  const off_t data = lseek(fd, begin, SEEK_DATA);
  const bool hole = data >= 0 ? data >= end : errno == ENXIO;
  return lseek(fd, before, SEEK_SET) == before && hole;  // where the stream takes its descriptor to be
#else
  (void)file, (void)begin, (void)end;
  return false;
#endif
}

/// @return how many of the bytes are left without the zeros at their end
size_t without_zero_tail(const char* bytes, size_t count) {
  static constexpr std::array<char, 4096> kZeros{};
  while (count >= kZeros.size() && memcmp(bytes + count - kZeros.size(), kZeros.data(), kZeros.size()) == 0) {
    count -= kZeros.size();
  }
  while (count > 0 && bytes[count - 1] == '\0') --count;
  return count;
}

/// @return the end of the data in [begin, end): `begin` when all of it is zero, `end` when it cannot be read
int64_t data_end(FILE* file, int64_t begin, int64_t end, std::vector<char>* buffer) {
  const auto count = static_cast<size_t>(end - begin);
  if (fseeko(file, begin, SEEK_SET) != 0 || fread(buffer->data(), 1, count, file) != count) return end;
  return begin + static_cast<int64_t>(without_zero_tail(buffer->data(), count));
}

}  // namespace

bool BrokenMovie::open(const std::string& path) {
  m_file = open_regular_file(path, "rb");
  if (m_file == nullptr || fseeko(m_file.get(), 0, SEEK_END) != 0) return false;
  m_size = ftello(m_file.get());
  return m_size >= 0 && fseeko(m_file.get(), 0, SEEK_SET) == 0;
}

/// Searches backwards, in steps that double from one hole to the next.
void BrokenMovie::ignore_zero_tail() {
  std::vector<char> buffer(kBlock);
  for (int64_t step = kBlock; m_size > 0;) {
    const int64_t begin = std::max<int64_t>(m_size - step, 0);
    if (is_hole(m_file.get(), begin, m_size)) {
      m_size = begin;
      if (step <= INT64_MAX / 4) step *= 2;
    } else if (m_size - begin > kBlock) {
      step = std::max(step / 2, kBlock);
    } else {
      m_size = data_end(m_file.get(), begin, m_size, &buffer);
      if (m_size > begin) break;
    }
  }
  clearerr(m_file.get());
  go_to(0);
}

bool BrokenMovie::go_to(int64_t position) {
  if (position < 0) return false;
  // File systems differ in how far beyond the end one may go, and in what reading there reports.
  constexpr int64_t kFarthest = INT64_MAX / 2;
  if (fseeko(m_file.get(), std::min(position, kFarthest), SEEK_SET) == 0) return true;
  note_failed_seek();
  fseeko(m_file.get(), 0, SEEK_END);
  return true;
}

void BrokenMovie::skip(int64_t count) {
  if (fseeko(m_file.get(), count, SEEK_CUR) != 0) note_failed_seek();
}

void BrokenMovie::note_failed_seek() {
  if (errno == EINVAL || errno == EOVERFLOW) return;
  m_error = AVERROR(errno);
  m_lost_position = true;
}

int BrokenMovie::readable(int size) const {
  const int64_t left = std::max<int64_t>(m_size - position(), 0);
  return static_cast<int>(std::min<int64_t>(size, left));
}

int BrokenMovie::read(uint8_t* to, int size) {
  const int ask = readable(size);
  const int got = static_cast<int>(fread(to, 1, static_cast<size_t>(ask), m_file.get()));
  m_ended = m_ended || ask < size || feof(m_file.get()) != 0;
  if (read_failed()) m_error = AVERROR(EIO);
  if (got < size && !m_ended) skip(size - got);
  return got;
}
