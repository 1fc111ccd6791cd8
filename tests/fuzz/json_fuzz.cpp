// The JSON reader on any text, and on what the writer makes of any text.
#include <algorithm>
#include <cstdint>

#include "AVSnapshot/tiny_json.h"
#include "fuzz/fuzzing.h"

namespace {

/// Index lines hold only texts that need no escapes.
std::string plain(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(),
                            [](char c) { return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 32; }),
             text.end());
  return text;
}

void read_back(const std::string& text, int number) {
  tiny::TinyJson out;
  out["text"] = text;
  out["number"] = number;
  out["empty"] = "";
  out["last"] = text;
  tiny::TinyJson in;
  meru_fuzz::require(in.ReadJson(out.WriteJson() + "\n"), "every written line is accepted");
  meru_fuzz::require(in.Get<std::string>("text") == text, "texts come back");
  meru_fuzz::require(in.Get<std::string>("last") == text, "the last text comes back");
  meru_fuzz::require(in.Get<std::string>("empty", "absent").empty(), "an empty text comes back");
  meru_fuzz::require(in.Get<int>("number") == number, "numbers come back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  tiny::TinyJson json;
  json.ReadJson(text);
  for (const char* key : {"type", "index", "qv", "tb.num", ""}) {
    (void)json.Get<std::string>(key);
    (void)json.Get<int>(key);
  }
  int number = 0;
  for (size_t i = 0; i < std::min<size_t>(size, 4); ++i)
    number = static_cast<int>(static_cast<unsigned>(number) << 8 | data[i]);
  read_back(plain(text), number);
  return 0;
}
