#pragma once

#include "byte_source.h"
#include "movie_shape.h"

namespace meru_tool {

/// Reads the stream header of a YUV4MPEG2 source. Throws a Failure when it is none or not one that can be recorded.
VideoShape read_y4m_header(ByteSource* source);

}  // namespace meru_tool
