#pragma once

#include <string>

namespace nuv {

/// @return whether `fmt` holds the conversion "%I64d", which the C library here does not know.
bool has_i64(const char* fmt);

/// @return `fmt` with every "%I64d" replaced by this platform's conversion of a long long.
std::string expand_i64(const char* fmt);

/// Prints to standard error at once, as fprintf does, with "%I64d" understood.
void print_stderr(const char* fmt, ...);

}  // namespace nuv
