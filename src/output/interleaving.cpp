#include "output/interleaving.h"

#include <cstring>

namespace MR {

namespace {

constexpr int64_t kIndexedUsec = 100000;
constexpr int64_t kLiveUsec = 1000000;

/// Containers that take the packets of their streams in any order.
bool takes_any_order(const AVFormatContext* ctx) {
  for (const char* name : {"mp4", "mov", "ipod", "3gp", "3g2", "psp"}) {
    if (strcmp(ctx->oformat->name, name) == 0) return true;
  }
  return false;
}

}  // namespace

int64_t interleave_usec(const AVFormatContext* ctx, bool live, bool indexed, const EncoderDelay& delay) {
  if (!live && !indexed) return 0;
  // Only of these a repair is promised. Others may fail at a packet that comes before those that were written.
  const bool soon = !live && takes_any_order(ctx);
  return (soon ? kIndexedUsec : kLiveUsec) + delay.held_usec(!soon);
}

}  // namespace MR
