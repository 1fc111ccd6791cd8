#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace meru_tool {

struct FreeReply {
  void operator()(void* reply) const { std::free(reply); }
};
/// What libxcb hands over to be freed.
template <class T>
using XcbReply = std::unique_ptr<T, FreeReply>;
using XcbError = XcbReply<xcb_generic_error_t>;

}  // namespace meru_tool
