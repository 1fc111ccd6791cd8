#pragma once

#include "base/base_writer.h"
#include "raw_packets/input_buffer.h"

/// Publishes the books of a session of packets, once nobody pushes and nobody reads any more.
/// @param first  the first of a chain of writers that have ended; null when there was none
void publish_books(InputBuffer* video, InputBuffer* audio, const BaseWriter* first);
