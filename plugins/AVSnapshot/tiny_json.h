#pragma once

#include <list>
#include <string>
#include <utility>

#include "AVSnapshot/parse_json.h"

/// Flat JSON objects of string and integer members on one line, as the side index needs them, and no more.
namespace tiny {

/// One member, kept as its finished text.
class Value {
 public:
  /// A value with an empty key is an array element.
  explicit Value(std::string key) : m_key(std::move(key)) {}

  void Set(int value) { set_text(std::to_string(value)); }
  void Set(long long value) { set_text(std::to_string(value)); }
  /// The text is put between quotes as it is; it must hold no quote, backslash or control character.
  void Set(const std::string& text) { set_text("\"" + text + "\""); }
  void Set(const char* text) { Set(std::string(text)); }

  template <class T>
  Value& operator=(const T& value) {
    Set(value);
    return *this;
  }

  const std::string& text() const { return m_text; }

 private:
  void set_text(const std::string& value);

  std::string m_key;
  std::string m_text;
};

/// An ordered list of members.
class TinyJson {
 public:
  enum Brackets { kNone = 0, kObject = 1, kArray = 2 };

  /// Appends a new member, always; the order of appending is the order in the text.
  Value& operator[](const std::string& key);

  /// The text as an object.
  std::string WriteJson() const { return WriteJson(kObject); }
  std::string WriteJson(int kind) const;

  /// Parses one object's text; what was read before is dropped. @return whether it was accepted
  bool ReadJson(const std::string& json);
  /// The value read for the first member of that key, as text or as a number ("true" and "false" are 1 and 0);
  /// `absent` when there is none or it is no such value.
  template <class T>
  T Get(const std::string& key, const T& absent = T()) const;

  bool is_array() const { return m_is_array; }

 private:
  const std::string* find(const std::string& key) const;

  std::list<Value> m_values;  // a list: the references handed out stay valid
  bool m_is_array = false;
  ParseJson::Members m_read;
};

template <>
std::string TinyJson::Get(const std::string& key, const std::string& absent) const;
template <>
int TinyJson::Get(const std::string& key, const int& absent) const;

}  // namespace tiny
