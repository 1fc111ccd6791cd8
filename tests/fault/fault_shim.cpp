// Stands in front of the C library, the allocator of C++ and FFmpeg, for all of the program that is linked with it, and
// makes one call fail. It passes on everything else.
#include "fault/fault_shim.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "support/sanitized.h"

namespace meru_test {
namespace {

/// The addresses of a loaded library.
struct Range {
  const char* name;
  uintptr_t begin = 0;
  uintptr_t end = 0;

  bool holds(const void* address) const {
    const auto at = reinterpret_cast<uintptr_t>(address);
    return at >= begin && at < end;
  }
};

std::atomic<bool> g_armed{false};
Fault g_kind;
long g_at = 0;
const char* g_folder = nullptr;
FaultReport* g_report = nullptr;
Range g_library{"/libMeruLib."};
Range g_cpp{"/libstdc++."};

int find_range(dl_phdr_info* info, size_t /*size*/, void* wanted) {
  auto* range = static_cast<Range*>(wanted);
  if (std::strstr(info->dlpi_name, range->name) == nullptr) return 0;
  range->begin = info->dlpi_addr;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const uintptr_t end = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr + info->dlpi_phdr[i].p_memsz;
    if (info->dlpi_phdr[i].p_type == PT_LOAD && end > range->end) range->end = end;
  }
  return 1;
}

/// Counts a call. @return whether it is the one that fails
bool fails(Fault kind, const char* function) {
  if (!g_armed || kind != g_kind || ++g_report->calls != g_at) return false;
  std::strncpy(g_report->failed, function, sizeof(g_report->failed) - 1);
  backtrace(g_report->callers, FaultReport::kMostFrames);
  return true;
}

bool of_library(const void* caller) { return g_library.holds(caller); }
/// Also what the standard library does, which nobody else here uses: FFmpeg is C, and the hosts of these tests are
/// idle.
bool of_cpp(const void* caller) { return of_library(caller) || g_cpp.holds(caller); }

bool in_folder(const char* path) { return g_armed && std::strncmp(path, g_folder, std::strlen(g_folder)) == 0; }

bool in_folder(int fd) {
  if (!g_armed) return false;
  char link[40];
  char path[512] = {};
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  return readlink(link, path, sizeof(path) - 1) > 0 && in_folder(path);
}

/// The function of that name that this stands in front of.
template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void begin_faults(Fault kind, long at, const char* folder, FaultReport* report) {
  dl_iterate_phdr(&find_range, &g_library);
  dl_iterate_phdr(&find_range, &g_cpp);
  void* warm_up[1];
  backtrace(warm_up, 1);  // loads what it needs
  g_kind = kind;
  g_at = at;
  g_folder = folder;
  g_report = report;
  report->library_address = g_library.begin;
  report->library_end = g_library.end;
  g_armed = true;
}

void end_faults() { g_armed = false; }

}  // namespace meru_test

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

using meru_test::fails;
using meru_test::Fault;
using meru_test::in_folder;
using meru_test::next;
using meru_test::of_cpp;
using meru_test::of_library;

namespace {

using Open = int (*)(const char*, int, ...);
using Seek = off_t (*)(int, off_t, int);

int fail_with(int error) {
  errno = error;
  return -1;
}

ssize_t read_file(void* fd, char* bytes, size_t count) {
  return read(static_cast<int>(reinterpret_cast<intptr_t>(fd)), bytes, count);
}

ssize_t write_file(void* fd, const char* bytes, size_t count) {
  const ssize_t written = write(static_cast<int>(reinterpret_cast<intptr_t>(fd)), bytes, count);
  return written < 0 ? 0 : written;  // which is how such a stream learns of an error
}

int seek_file(void* fd, off64_t* offset, int whence) {
  const off64_t at = lseek64(static_cast<int>(reinterpret_cast<intptr_t>(fd)), *offset, whence);
  if (at >= 0) *offset = at;
  return at < 0 ? -1 : 0;
}

int close_file(void* fd) { return close(static_cast<int>(reinterpret_cast<intptr_t>(fd))); }

int flags_of(const char* mode) {
  switch (mode[0]) {
    case 'r':
      return O_RDONLY;
    case 'w':
      return O_WRONLY | O_CREAT | O_TRUNC;
    default:
      return O_WRONLY | O_CREAT | O_APPEND;
  }
}

/// A stream whose system calls come through here, which those of the C library's own streams do not.
FILE* open_stream(const char* path, const char* mode) {
  const int fd = open(path, flags_of(mode) | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  return fopencookie(reinterpret_cast<void*>(static_cast<intptr_t>(fd)), mode,
                     {&read_file, &write_file, &seek_file, &close_file});
}

}  // namespace

extern "C" {

void* __libc_malloc(size_t size);

int open(const char* path, int flags, ...) {
  static const auto real = next<Open>("open");
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = va_arg(ap, mode_t);
  va_end(ap);
  if (in_folder(path) && fails(Fault::kOpen, "open")) return fail_with(EMFILE);
  return real(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = va_arg(ap, mode_t);
  va_end(ap);
  return open(path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
  static const auto real = next<FILE* (*)(const char*, const char*)>("fopen");
  return in_folder(path) ? open_stream(path, mode) : real(path, mode);
}

FILE* fopen64(const char* path, const char* mode) { return fopen(path, mode); }

ssize_t read(int fd, void* bytes, size_t count) {
  static const auto real = next<ssize_t (*)(int, void*, size_t)>("read");
  return in_folder(fd) && fails(Fault::kRead, "read") ? fail_with(EIO) : real(fd, bytes, count);
}

ssize_t write(int fd, const void* bytes, size_t count) {
  static const auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
  return in_folder(fd) && fails(Fault::kWrite, "write") ? fail_with(ENOSPC) : real(fd, bytes, count);
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
  static const auto real = next<Seek>("lseek");
  return in_folder(fd) && fails(Fault::kSeek, "lseek") ? fail_with(EIO) : real(fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept { return lseek(fd, offset, whence); }

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept {
  static const auto real = next<decltype(&pthread_create)>("pthread_create");
  const bool ours = of_cpp(__builtin_return_address(0));
  return ours && fails(Fault::kThread, "pthread_create") ? EAGAIN : real(thread, attributes, routine, argument);
}

void* malloc(size_t size) noexcept {
  const bool fail = of_library(__builtin_return_address(0)) && fails(Fault::kMemory, "malloc");
  return fail ? nullptr : __libc_malloc(size);
}

}  // extern "C"

void* operator new(size_t size) {
  const bool fail = of_cpp(__builtin_return_address(0)) && fails(Fault::kMemory, "operator new");
  void* memory = fail ? nullptr : __libc_malloc(size > 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new[](size_t size) {
  const bool fail = of_cpp(__builtin_return_address(0)) && fails(Fault::kMemory, "operator new[]");
  void* memory = fail ? nullptr : __libc_malloc(size > 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t /*size*/) noexcept { std::free(memory); }

// FFmpeg's functions that need memory, when our code calls them. All that they are given is passed in registers, and
// passed on as it came; a failure is a null pointer or a negative number in the register of the result.
namespace {

using Word = uintptr_t;
using Passed = Word (*)(Word, Word, Word, Word, Word, Word);

constexpr auto kNoMemory = static_cast<Word>(-ENOMEM);

Word pass(const char* name, const void* caller, Word failure, const Word (&given)[6]) {
  if (of_library(caller) && fails(Fault::kMemory, name)) return failure;
  return next<Passed>(name)(given[0], given[1], given[2], given[3], given[4], given[5]);
}

}  // namespace

#define MERU_NEEDS_MEMORY(name, failure)                                          \
  extern "C" Word name(Word a, Word b, Word c, Word d, Word e, Word f) {          \
    return pass(#name, __builtin_return_address(0), failure, {a, b, c, d, e, f}); \
  }

MERU_NEEDS_MEMORY(av_audio_fifo_alloc, 0)
MERU_NEEDS_MEMORY(av_audio_fifo_realloc, kNoMemory)
MERU_NEEDS_MEMORY(av_dict_copy, kNoMemory)
MERU_NEEDS_MEMORY(av_dict_set, kNoMemory)
MERU_NEEDS_MEMORY(av_dict_set_int, kNoMemory)
MERU_NEEDS_MEMORY(av_frame_alloc, 0)
MERU_NEEDS_MEMORY(av_frame_clone, 0)
MERU_NEEDS_MEMORY(av_frame_copy_props, kNoMemory)
MERU_NEEDS_MEMORY(av_frame_get_buffer, kNoMemory)
MERU_NEEDS_MEMORY(av_frame_make_writable, kNoMemory)
MERU_NEEDS_MEMORY(av_malloc, 0)
MERU_NEEDS_MEMORY(av_mallocz, 0)
MERU_NEEDS_MEMORY(av_opt_get, kNoMemory)
MERU_NEEDS_MEMORY(av_opt_set, kNoMemory)
MERU_NEEDS_MEMORY(av_packet_alloc, 0)
MERU_NEEDS_MEMORY(av_packet_clone, 0)
MERU_NEEDS_MEMORY(av_packet_make_refcounted, kNoMemory)
MERU_NEEDS_MEMORY(av_packet_ref, kNoMemory)
MERU_NEEDS_MEMORY(av_read_frame, kNoMemory)
MERU_NEEDS_MEMORY(av_realloc, 0)
MERU_NEEDS_MEMORY(av_write_frame, kNoMemory)
MERU_NEEDS_MEMORY(avcodec_alloc_context3, 0)
MERU_NEEDS_MEMORY(avcodec_open2, kNoMemory)
MERU_NEEDS_MEMORY(avcodec_parameters_copy, kNoMemory)
MERU_NEEDS_MEMORY(avcodec_parameters_from_context, kNoMemory)
MERU_NEEDS_MEMORY(avcodec_receive_packet, kNoMemory)
MERU_NEEDS_MEMORY(avcodec_send_frame, kNoMemory)
MERU_NEEDS_MEMORY(avformat_alloc_context, 0)
MERU_NEEDS_MEMORY(avformat_find_stream_info, kNoMemory)
MERU_NEEDS_MEMORY(avformat_new_stream, 0)
MERU_NEEDS_MEMORY(avformat_write_header, kNoMemory)
MERU_NEEDS_MEMORY(avio_open, kNoMemory)
MERU_NEEDS_MEMORY(avio_open2, kNoMemory)
MERU_NEEDS_MEMORY(swr_alloc, 0)
MERU_NEEDS_MEMORY(swr_convert_frame, kNoMemory)
MERU_NEEDS_MEMORY(swr_init, kNoMemory)

extern "C" {

// Those with more arguments than registers.

Word avio_alloc_context(Word a, Word b, Word c, Word d, Word e, Word f, Word g) {
  using Whole = Word (*)(Word, Word, Word, Word, Word, Word, Word);
  if (of_library(__builtin_return_address(0)) && fails(Fault::kMemory, "avio_alloc_context")) return 0;
  return next<Whole>("avio_alloc_context")(a, b, c, d, e, f, g);
}

Word sws_getContext(Word a, Word b, Word c, Word d, Word e, Word f, Word g, Word h, Word i, Word j) {
  using Whole = Word (*)(Word, Word, Word, Word, Word, Word, Word, Word, Word, Word);
  if (of_library(__builtin_return_address(0)) && fails(Fault::kMemory, "sws_getContext")) return 0;
  return next<Whole>("sws_getContext")(a, b, c, d, e, f, g, h, i, j);
}

// What these take in is gone also when they fail.

Word avformat_alloc_output_context2(Word* made, Word b, Word c, Word d) {
  const Word result = pass("avformat_alloc_output_context2", __builtin_return_address(0), kNoMemory,
                           {reinterpret_cast<Word>(made), b, c, d, 0, 0});
  if (result == kNoMemory) *made = 0;
  return result;
}

Word avformat_open_input(Word* context, Word b, Word c, Word d) {
  if (!of_library(__builtin_return_address(0)) || !fails(Fault::kMemory, "avformat_open_input")) {
    return next<Passed>("avformat_open_input")(reinterpret_cast<Word>(context), b, c, d, 0, 0);
  }
  next<Passed>("avformat_free_context")(*context, 0, 0, 0, 0, 0);
  *context = 0;
  return kNoMemory;
}

Word av_interleaved_write_frame(Word context, Word packet) {
  if (!of_library(__builtin_return_address(0)) || !fails(Fault::kMemory, "av_interleaved_write_frame")) {
    return next<Passed>("av_interleaved_write_frame")(context, packet, 0, 0, 0, 0);
  }
  if (packet != 0) next<Passed>("av_packet_unref")(packet, 0, 0, 0, 0, 0);
  return kNoMemory;
}

Word av_write_trailer(Word context) {
  const bool fail = of_library(__builtin_return_address(0)) && fails(Fault::kMemory, "av_write_trailer");
  const Word result = next<Passed>("av_write_trailer")(context, 0, 0, 0, 0, 0);
  return fail ? kNoMemory : result;
}

}  // extern "C"

#endif
