// Counts what the converters allocate, by standing in for the allocator of the whole program.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "ReSample/qv_resample.h"
#include "support/case_name.h"
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

// Too small to be scaled by several threads, and high enough to be converted in bands.
constexpr int kWidth = 320;
constexpr int kHeight = 480;

struct Conversion {
  const char* name;
  int width, height;  ///< of the movie; the images are kWidth x kHeight
};
class ConverterAllocations : public testing::TestWithParam<Conversion> {};

TEST_P(ConverterAllocations, NothingIsAllocatedForAnImage) {
  if (!kCounts) GTEST_SKIP() << "the allocator cannot be replaced in this build";
  const FramePtr encoder = make_picture(AV_PIX_FMT_YUV420P, GetParam().width, GetParam().height);
  const FramePtr image = make_picture(AV_PIX_FMT_BGRA, kWidth, kHeight);
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

INSTANTIATE_TEST_SUITE_P(All, ConverterAllocations,
                         testing::Values(Conversion{"Scaled", 128, 96}, Conversion{"OfTheSameSize", kWidth, kHeight}),
                         meru_test::CaseName());

}  // namespace
