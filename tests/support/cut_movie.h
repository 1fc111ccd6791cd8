#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "support/meru_tool.h"

namespace meru_test {

/// A movie without its own table: everything up to it, as a kill leaves it.
inline void cut_before_table(const std::string& movie, const std::string& broken) {
  const std::string bytes = file_text(movie);
  const size_t table = bytes.rfind("moov");
  if (table == std::string::npos) throw std::runtime_error("no table in " + movie);
  write_file(broken, bytes.substr(0, table - 4));
}

/// A movie that takes long to repair, sparse, and its index: that of another movie with many packets of one size. Its
/// last byte is not zero, so that all of it counts as recorded.
inline void make_long(const std::string& from_index, int packet_size, const std::string& movie,
                      const std::string& index) {
  const std::string text = file_text(from_index);
  std::string line;
  while (line.size() < 950) line += ",," + std::to_string(packet_size) + ",512,,512,1;";
  std::string body = text.substr(0, text.rfind("}\n") + 2) + ",48" + line.substr(1) + "\n";
  for (int i = 0; i < 2000; ++i) body += line + "\n";
  write_file(index, body);
  write_file(movie, "x");
  std::filesystem::resize_file(movie, 1LL << 40);
  std::ofstream(movie, std::ios::binary | std::ios::app) << 'x';
}

}  // namespace meru_test
