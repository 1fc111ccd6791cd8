#include "AVSnapshot/tiny_json.h"

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

}  // namespace tiny
