#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tiny {

/// Takes a flat JSON object apart into its members' keys and values, both as text. Never recurses and never reads past
/// the text, whatever it holds.
class ParseJson {
 public:
  using Members = std::vector<std::pair<std::string, std::string>>;

  /// Parses what stands between the first "{" and the last "}" of `json`. Quoted values lose their quotes, nested
  /// arrays and objects are kept whole as raw text, anything else reaches to the next comma. Blanks between tokens are
  /// skipped.
  /// @return false when the text is no such object; the members read so far are kept
  bool ParseObj(const std::string& json);

  const Members& members() const { return m_members; }

 private:
  static bool Trims(const std::string& json, std::string* inner);
  bool FetchStrStr(std::string* out);
  bool FetchBracketed(std::string* out);
  bool FetchBare(std::string* out);
  bool FetchValue(std::string* out);
  void SkipBlanks();
  bool AtEnd() const { return m_pos >= m_text.size(); }

  std::string m_text;
  size_t m_pos = 0;
  Members m_members;
};

}  // namespace tiny
