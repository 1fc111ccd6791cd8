// Counts what the converters allocate, by standing in for the allocator of the whole program.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "ReSample/qv_resample.h"
#include "support/media_frames.h"
#include "support/sanitized.h"

namespace {
std::atomic<long> g_allocations{0};
}

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
  ++g_allocations;
  return __libc_malloc(size);
}

int posix_memalign(void** out, size_t alignment, size_t size) {
  ++g_allocations;
  *out = __libc_memalign(alignment, size);
  return *out != nullptr ? 0 : ENOMEM;
}
}
constexpr bool kCounts = true;
#else
constexpr bool kCounts = false;
#endif

namespace {

using meru_test::make_picture;

TEST(ConverterAllocationsTest, NothingIsAllocatedForAnImage) {
  if (!kCounts) GTEST_SKIP() << "the allocator cannot be replaced in this build";
  const FramePtr encoder = make_picture(AV_PIX_FMT_YUV420P, 128, 96);
  const FramePtr image = make_picture(AV_PIX_FMT_BGRA, 256, 192);
  MR::QVRescale rescale;
  ASSERT_EQ(rescale.qv_config_frame(encoder.get(), image.get(), {1, 25}), 0);
  const AVRational tb{1, 1000000};
  ASSERT_NE(rescale.qv_convert_frame(image.get(), &tb), nullptr);
  const long before = g_allocations;
  EXPECT_GT(before, 0);
  for (int i = 1; i < 100; ++i) {
    image->pts = i * 40000;
    ASSERT_NE(rescale.qv_convert_frame(image.get(), &tb), nullptr);
  }
  EXPECT_EQ(g_allocations - before, 0);
}

}  // namespace
