#pragma once

#include <cstdint>

/// The library clock in microseconds: the raw monotonic clock, moved to the neighbourhood of the wall clock once, at
/// the first call of the process. All time stamps of a recording and the length of pauses are measured on it.
int64_t global_pts();
