#include "common/checked_seeks.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

/// A file in memory whose seeks fail when they are told to.
class Output {
 public:
  Output() : m_io(make(this)) { m_io->seekable = AVIO_SEEKABLE_NORMAL; }
  ~Output() {
    av_freep(&m_io->buffer);
    avio_context_free(&m_io);
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  AVIOContext* io() const { return m_io; }
  void write(const std::string& text) const {
    avio_write(m_io, reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    avio_flush(m_io);
  }

  std::string bytes;
  bool seeks_fail = false;

 private:
  static AVIOContext* make(Output* self) {
    constexpr int kSize = 64;
    return avio_alloc_context(static_cast<unsigned char*>(av_malloc(kSize)), kSize, 1, self, nullptr, &put, &seek);
  }
  static int put(void* opaque, meru_compat::WrittenByte* data, int size) {
    auto* self = static_cast<Output*>(opaque);
    self->bytes.replace(self->m_at, static_cast<size_t>(size), reinterpret_cast<const char*>(data),
                        static_cast<size_t>(size));
    self->m_at += static_cast<size_t>(size);
    return size;
  }
  static int64_t seek(void* opaque, int64_t offset, int whence) {
    auto* self = static_cast<Output*>(opaque);
    if (self->seeks_fail) return AVERROR(EIO);
    if ((whence & AVSEEK_SIZE) != 0) return static_cast<int64_t>(self->bytes.size());
    self->m_at = static_cast<size_t>(offset);
    return offset;
  }

  size_t m_at = 0;
  AVIOContext* m_io;
};

TEST(CheckedSeeksTest, NothingIsWrittenBehindASeekThatFailed) {
  Output output;
  output.write("packets");
  const CheckedSeeks checked(output.io());
  output.seeks_fail = true;
  EXPECT_LT(avio_seek(output.io(), 0, SEEK_SET), 0);
  output.write("size");
  EXPECT_EQ(output.bytes, "packets");
  EXPECT_EQ(output.io()->error, AVERROR(EIO));
}

TEST(CheckedSeeksTest, WritingGoesOnWhereASeekWentTo) {
  Output output;
  output.write("packets");
  const CheckedSeeks checked(output.io());
  EXPECT_EQ(avio_seek(output.io(), 0, SEEK_SET), 0);
  output.write("PACK");
  EXPECT_EQ(output.bytes, "PACKets");
  EXPECT_EQ(output.io()->error, 0);
}

TEST(CheckedSeeksTest, AskingForTheSizeIsNoSeek) {
  Output output;
  const CheckedSeeks checked(output.io());
  output.seeks_fail = true;
  EXPECT_LT(output.io()->seek(output.io()->opaque, 0, AVSEEK_SIZE), 0);
  output.write("packets");
  EXPECT_EQ(output.bytes, "packets");
}

TEST(CheckedSeeksTest, LeavesTheOutputAsItWas) {
  Output output;
  {
    const CheckedSeeks checked(output.io());
    output.seeks_fail = true;
    EXPECT_LT(avio_seek(output.io(), 3, SEEK_SET), 0);
  }
  output.write("packets");
  EXPECT_EQ(output.bytes, "packets");
}

TEST(CheckedSeeksTest, NoOutputAndOneThatCannotSeekAreLeftAlone) {
  const CheckedSeeks nothing(nullptr);
  Output output;
  output.io()->seekable = 0;
  const auto* const before = reinterpret_cast<const void*>(output.io()->seek);
  const CheckedSeeks checked(output.io());
  EXPECT_EQ(reinterpret_cast<const void*>(output.io()->seek), before);
}

}  // namespace
