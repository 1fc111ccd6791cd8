#pragma once

#include <cstddef>

extern "C" {
#include <libavutil/pixfmt.h>
}

/// What the answer of a trial is remembered for. The encoder's name is deliberately not part of it: one trial answers
/// for every hardware encoder of that picture size.
struct HWIndex {
  int width;
  int height;
  int pix_fmt;

  bool operator==(const HWIndex& other) const {
    return width == other.width && height == other.height && pix_fmt == other.pix_fmt;
  }
};

struct HWIndexHasher {
  size_t operator()(const HWIndex& index) const;
};

/// Tells whether the encoder `name` can be opened on this machine for this picture size. The first call for a size and
/// format tries it, which may take long; later calls return that answer, whatever name they give. Thread-safe.
bool isHardwareEnable(const char* name, int width, int height, AVPixelFormat pix_fmt);
