#include "AVSnapshot/tiny_json.h"

#include <sstream>

namespace tiny {

void Value::set_text(const std::string& value) { m_text = m_key.empty() ? value : "\"" + m_key + "\":" + value; }

Value& TinyJson::operator[](const std::string& key) {
  if (key.empty()) m_is_array = true;
  return m_values.emplace_back(key);
}

std::string TinyJson::WriteJson(int kind) const {
  static constexpr const char* kOpen[] = {"", "{", "["};
  static constexpr const char* kClose[] = {"", "}", "]"};
  const int brackets = kind == kObject || kind == kArray ? kind : kNone;
  std::string out = kOpen[brackets];
  const char* separator = "";
  for (const Value& value : m_values) {
    out += separator + value.text();
    separator = ",";
  }
  return out + kClose[brackets];
}

bool TinyJson::ReadJson(const std::string& json) {
  ParseJson parser;
  const bool accepted = parser.ParseObj(json);
  m_read = parser.members();
  return accepted;
}

const std::string* TinyJson::find(const std::string& key) const {
  for (const auto& [name, value] : m_read) {
    if (name == key) return &value;
  }
  return nullptr;
}

template <>
std::string TinyJson::Get(const std::string& key, const std::string& absent) const {
  const std::string* value = find(key);
  return value != nullptr ? *value : absent;
}

template <>
int TinyJson::Get(const std::string& key, const int& absent) const {
  const std::string* value = find(key);
  if (value == nullptr) return absent;
  if (*value == "true") return 1;
  if (*value == "false") return 0;
  int number = 0;
  std::istringstream stream(*value);
  return stream >> number ? number : absent;
}

}  // namespace tiny
