#include "AVSnapshot/parse_json.h"

#include <algorithm>

namespace tiny {

namespace {

constexpr char kBlanks[] = " \t\r\n";

}  // namespace

/// Cuts out what stands between the outermost braces.
bool ParseJson::Trims(const std::string& json, std::string* inner) {
  const size_t open = json.find('{');
  const size_t close = json.rfind('}');
  if (open == std::string::npos || close == std::string::npos || close < open) return false;
  *inner = json.substr(open + 1, close - open - 1);
  return true;
}

void ParseJson::SkipBlanks() { m_pos = std::min(m_text.find_first_not_of(kBlanks, m_pos), m_text.size()); }

/// A quoted text. There are no escapes: it ends at the next quote.
bool ParseJson::FetchStrStr(std::string* out) {
  if (AtEnd() || m_text[m_pos] != '"') return false;
  const size_t close = m_text.find('"', m_pos + 1);
  if (close == std::string::npos) return false;
  *out = m_text.substr(m_pos + 1, close - m_pos - 1);
  m_pos = close + 1;
  return true;
}

/// A nested array or object with its brackets, found by counting them.
bool ParseJson::FetchBracketed(std::string* out) {
  const char open = m_text[m_pos];
  const char close = open == '[' ? ']' : '}';
  int depth = 0;
  for (size_t i = m_pos; i < m_text.size(); ++i) {
    if (m_text[i] == open) ++depth;
    if (m_text[i] == close) --depth;
    if (depth > 0) continue;
    *out = m_text.substr(m_pos, i - m_pos + 1);
    m_pos = i + 1;
    return true;
  }
  return false;
}

/// A number or a word, up to the next comma.
bool ParseJson::FetchBare(std::string* out) {
  const size_t end = std::min(m_text.find(',', m_pos), m_text.size());
  *out = m_text.substr(m_pos, end - m_pos);
  out->erase(out->find_last_not_of(kBlanks) + 1);
  m_pos = end;
  return !out->empty();
}

bool ParseJson::FetchValue(std::string* out) {
  SkipBlanks();
  if (AtEnd()) return false;
  switch (m_text[m_pos]) {
    case '"':
      return FetchStrStr(out);
    case '[':
    case '{':
      return FetchBracketed(out);
    default:
      return FetchBare(out);
  }
}

bool ParseJson::ParseObj(const std::string& json) {
  m_members.clear();
  m_pos = 0;
  if (!Trims(json, &m_text)) return false;
  SkipBlanks();
  while (!AtEnd()) {
    std::string key;
    std::string value;
    if (!FetchStrStr(&key)) return false;
    SkipBlanks();
    if (AtEnd() || m_text[m_pos] != ':') return false;
    ++m_pos;
    if (!FetchValue(&value)) return false;
    m_members.emplace_back(std::move(key), std::move(value));
    SkipBlanks();
    if (AtEnd()) return true;
    if (m_text[m_pos] != ',') return false;
    ++m_pos;
    SkipBlanks();
  }
  return true;
}

}  // namespace tiny
