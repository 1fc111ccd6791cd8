#include <cxxabi.h>
#include <fnmatch.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/run_command.h"

namespace {

using Names = std::vector<std::string>;

/// The list that the linker is given: symbols, in which * may stand for something.
const Names& listed() {
  static const Names list = [] {
    Names lines;
    std::ifstream file(MERU_SOURCE "/src/exports.list");
    for (std::string line; std::getline(file, line);) {
      if (!line.empty() && line[0] != '#') lines.push_back(line);
    }
    return lines;
  }();
  return list;
}

/// The names that leave the library, as the linker sees them.
const Names& exported() {
  static const Names list = [] {
    const auto result = meru_test::run_command("nm -D --defined-only " + meru_test::quoted(MERU_LIBRARY));
    EXPECT_EQ(result.status, 0) << result.output;
    Names names;
    std::istringstream lines(result.output);
    for (std::string address, type, name; lines >> address >> type >> name;)
      names.push_back(name.substr(0, name.find('@')));
    return names;
  }();
  return list;
}

bool stands_for(const std::string& line, const std::string& symbol) {
  return fnmatch(line.c_str(), symbol.c_str(), 0) == 0;
}

bool is_plain(const std::string& symbol) { return symbol.rfind("_Z", 0) != 0; }

/// The name of a C++ symbol without its parameters, empty for a plain one.
std::string cpp_name(const std::string& symbol) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status),
                                                         &std::free);
  const std::string text = status == 0 && !is_plain(symbol) ? name.get() : "";
  return text.substr(0, text.find('('));
}

/// The functions that the public headers declare.
std::set<std::string> declared() {
  static const std::regex declaration(R"(^MERU_API [^(]*\b(MERU\w+)\()");
  std::set<std::string> names;
  for (const auto& header : std::filesystem::directory_iterator(MERU_SOURCE "/include/meru")) {
    std::ifstream file(header.path());
    std::smatch match;
    for (std::string line; std::getline(file, line);) {
      if (std::regex_search(line, match, declaration)) names.insert(match[1]);
    }
  }
  return names;
}

TEST(ExportedSymbols, AreAllOnTheList) {
  ASSERT_FALSE(exported().empty());
  for (const std::string& symbol : exported()) {
    EXPECT_TRUE(
        std::any_of(listed().begin(), listed().end(), [&](const auto& line) { return stands_for(line, symbol); }))
        << symbol << " leaves the library and is not on the list";
  }
}

TEST(ExportedSymbols, HoldEveryLineOfTheList) {
  ASSERT_FALSE(listed().empty());
  for (const std::string& line : listed()) {
    EXPECT_EQ(std::count_if(exported().begin(), exported().end(), [&](const auto& s) { return stands_for(line, s); }),
              1)
        << line;
  }
}

TEST(ExportedSymbols, AreTheFunctionsOfTheHeadersInBothLinkages) {
  std::set<std::string> plain;
  std::set<std::string> cpp;
  for (const std::string& symbol : exported()) {
    if (is_plain(symbol)) plain.insert(symbol);
    const std::string name = cpp_name(symbol);
    if (name.rfind("MERU", 0) == 0) cpp.insert(name);
  }
  EXPECT_GE(declared().size(), 31U);
  EXPECT_EQ(plain, declared());
  EXPECT_EQ(cpp, declared());
}

}  // namespace
