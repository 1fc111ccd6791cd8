#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

namespace nuv {

/// A value, or the reason why there is none. A freshly made one is an error.
template <class T>
struct Expected_ {
  T value{};
  int32_t code = -100;
  std::string message = "unknow error";
  bool has_error = true;

  /// Makes this an error with a message formatted as printf does it, whose arguments may be of this very result.
  Expected_& set_error(int code_, const char* fmt, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 3, 4)))
#endif
      ;

  /// Makes this a success: no message, code 0.
  Expected_& set_value(T value_) {
    value = std::move(value_);
    code = 0;
    message.clear();
    has_error = false;
    return *this;
  }
};

/// Formats as vprintf; the format itself where it cannot be printed.
inline std::string vformat_text(const char* fmt, va_list args) {
  va_list measured;
  va_copy(measured, args);
  const int length = std::vsnprintf(nullptr, 0, fmt, measured);
  va_end(measured);
  if (length < 0) return fmt;
  std::string text(static_cast<size_t>(length), '\0');
  // The string has room for the terminating zero behind its last character.
  std::vsnprintf(text.data(), text.size() + 1, fmt, args);
  return text;
}

template <class T>
Expected_<T>& Expected_<T>::set_error(int code_, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  message = vformat_text(fmt, args);
  va_end(args);
  code = code_;
  has_error = true;
  return *this;
}

/// Calls what it holds, if anything, when it goes out of scope. What it calls must not throw.
class Defer {
 public:
  explicit Defer(std::function<void()> call) : m_call(std::move(call)) {}
  ~Defer() {
    if (m_call) m_call();
  }
  Defer(const Defer&) = delete;
  Defer& operator=(const Defer&) = delete;

 private:
  std::function<void()> m_call;
};

}  // namespace nuv
